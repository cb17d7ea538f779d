// The configuration file: keys, types, defaults, reloads, the warnings about
// service strings and the database sections.
#include "config.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <type_traits>
#include <vector>

#include "config_check.h"
#include "logger.h"
#include "support.h"

namespace {

// A setting as text: numbers in decimal, an unset text as "(unset)".
template <typename T>
std::string show(const T& value) {
    if constexpr (std::is_same_v<T, opt_text>)
        return value ? *value : "(unset)";
    else if constexpr (std::is_same_v<T, std::string>)
        return value;
    else
        return std::to_string(value);
}

#define SETTING(member) [](const config& c) { return show(c.member); }

// Every key with a default, and keys of every type: their line in a file,
// the setting they give, and the default.
const struct setting {
    const char* section;
    const char* line;
    const char* loaded;
    const char* fallback;
    std::string (*get)(const config&);
} kSettings[] = {
    {"PMS", "Host = pms.example", "pms.example", "localhost", SETTING(pmshost)},
    {"PMS", "port = 6001", "6001", "5010", SETTING(pmsport)},
    {"PMS", "statesfile = /srv/s.db", "/srv/s.db", "/var/run/orlanbeck.db", SETTING(statesfile)},
    {"PMS", "interface = PBX iface", "PBX iface", "(unset)", SETTING(pmsinterface)},
    {"logger", "log_type = file", "1", "0", SETTING(logtype)},
    {"logger", "log_level = 2", "2", "5", SETTING(loglevel)},
    {"logger", "disable_log = yes", "1", "0", SETTING(disable_log)},
    {"logger", "log_file = /srv/o.log", "/srv/o.log", "/var/log/orlanbeck.log", SETTING(logfile)},
    {"services", "cdr_use_manager = true", "1", "0", SETTING(use_manager)},
    {"services", "cdr_mgr_port = 15038", "15038", "5038", SETTING(mgr_port)},
    {"services", "cdr_mgr_user = admin", "admin", "(unset)", SETTING(mgr_user)},
    {"services", "cdr_mgr_events = cdr", "cdr", "call", SETTING(mgr_events)},
    {"services", "noremovecalls = 3", "3", "0", SETTING(noremovecalls)},
    {"services", "checkin = db:in %exten%", "db:in %exten%", "(unset)", SETTING(checkin)},
    {"services", "bareon = db:b %exten%", "db:b %exten%", "(unset)", SETTING(bareon)},
};

class Config : public ::testing::Test {
  protected:
    void SetUp() override { logger_init(dir_.file("test.log").c_str(), 5, 0, 0); }
    void TearDown() override { logger_init(nullptr, 1, 0, 0); }

    std::string db(const std::string& name) const { return dir_.file(name); }
    // A section for a SQLite file in the temporary folder.
    std::string sqlite(const std::string& section, const std::string& file) const {
        return "[" + section + "]\ndbdriver = sqlite\ndatabase = " + db(file) + "\n";
    }
    // Writes the file and loads it, as at start or on SIGHUP.
    int load(const std::string& text) {
        write_file(loader.path(), text);
        int rc = loader.load();
        if (rc == 0) warn_service_strings(cfg());
        return rc;
    }
    const config& cfg() { return *(snapshot = loader.current()); }
    dbdriver_ptr find(const char* name) { return find_dbdriver_in(cfg().dbdrivers, name); }

    std::string log_text() const { return read_file(dir_.file("test.log")); }
    // Lines of the log holding all of `parts`.
    size_t log_lines_with(std::initializer_list<std::string> parts) const {
        size_t n = 0;
        for (const std::string& line : lines_of(log_text()))
            n += std::all_of(parts.begin(), parts.end(), [&](const std::string& p) {
                return line.find(p) != std::string::npos;
            });
        return n;
    }

    temp_dir dir_;
    config_loader loader{dir_.file("orlanbeck.conf")};
    config_ptr snapshot;
};

TEST_F(Config, EveryKeyLandsInItsSettingAndAReloadWithoutItGivesTheDefault) {
    std::string text =
        sqlite("db", "db.db") + "[rooms]\nroom1 = 101\nroom2 = 102\nroom4 = 104\nldap_port = 636\n";
    for (const setting& s : kSettings) text += "[" + std::string(s.section) + "]\n" + s.line + "\n";
    ASSERT_EQ(load(text), 0);
    for (const setting& s : kSettings) EXPECT_EQ(s.get(cfg()), s.loaded) << s.line;
    EXPECT_EQ((std::vector<std::string>{"101", "102"}), cfg().rooms.rooms) << "a gap ends the list";
    EXPECT_EQ(636, cfg().rooms.ldap_port);
    EXPECT_EQ(log_text(), "");  // a sound file gives no warning at all

    ASSERT_EQ(load("; nothing but a comment\n"), 0);
    for (const setting& s : kSettings) EXPECT_EQ(s.get(cfg()), s.fallback) << s.line;
    EXPECT_TRUE(cfg().rooms.rooms.empty());
    ASSERT_TRUE(find("db")) << "records of removed sections stay";

    // Forms of booleans, log types and ports.
    const struct {
        const char* text;
        const char* shown;
        std::string (*get)(const config&);
    } forms[] = {
        {"[logger]\ndisable_log = y", "1", SETTING(disable_log)},
        {"[logger]\ndisable_log = True", "1", SETTING(disable_log)},
        {"[logger]\ndisable_log = x", "0", SETTING(disable_log)},
        {"[logger]\nlog_type = SysLog-only", "0", SETTING(logtype)},
        {"[pms]\nport = 70000", "4464", SETTING(pmsport)},
    };
    for (const auto& form : forms) {
        ASSERT_EQ(load(std::string(form.text) + "\n"), 0);
        EXPECT_EQ(form.get(cfg()), form.shown) << form.text;
    }
    EXPECT_EQ(log_lines_with({"WARNING["}), 1u) << log_text();
    EXPECT_EQ(log_lines_with({"WARNING[", "pms:port = 70000"}), 1u) << log_text();

    // A missing file: -1, the defaults, nothing said (the caller reports it).
    std::remove(loader.path().c_str());
    fd_capture console(2, dir_.file("stderr"));
    EXPECT_EQ(loader.load(), -1);
    EXPECT_EQ(console.finish(), "");
    EXPECT_EQ(cfg().pmsport, 5010);
}

TEST_F(Config, ServiceStringsThatCannotWorkAreReportedOnce) {
    ASSERT_EQ(load(sqlite("pbx", "pbx.db") +
                   "[services]\n"
                   "checkin = insert into rooms values ('%exten%')\n"
                   "billcalls = pbx:select * from cdr where src='%exten%' and n='%name%'\n"
                   "checkout = pbx:delete from x where a='%param%'\n"
                   "bareon = nosuch:update x set barred=1 where ext='%exten%'\n"
                   "wakeup_set = pbx:update x set t='%time%' where d='%DATE%'\n"
                   "dndon = pbx:update x set dnd=1 where t='10:00' and l='%lang%'\n"
                   "remark = pbx:update x set reported=1 where ext='%exten%'\n"
                   "billmark = any:update x set posted='%seqno%' where ext='%exten%'\n"),
              0);
    // Marks run on the driver of their pass and are not checked for it.
    const std::pair<const char*, const char*> warned[] = {{"services:checkin", "\":\""},
                                                          {"services:billcalls", "%name%"},
                                                          {"services:checkout", "%param%"},
                                                          {"services:bareon", "nosuch"},
                                                          {"services:wakeup_set", "%DATE%"}};
    for (const auto& [key, about] : warned)
        EXPECT_EQ(log_lines_with({"WARNING[", key, about}), 1u) << key << "\n" << log_text();
    EXPECT_EQ(log_lines_with({"WARNING["}), std::size(warned)) << log_text();

    ASSERT_EQ(load(sqlite("pbx", "pbx.db") +
                   "[services]\nbillcalls = pbx:select 1\nwakeup_result = pbx:select 1\n"
                   "room_status = pbx:select 1\nremark = pbx:update x set r=1\n"),
              0);
    EXPECT_EQ(log_lines_with({"WARNING[", "services:billcalls", "services:billmark"}), 1u);
    EXPECT_EQ(log_lines_with({"WARNING[", "services:wakeup_result", "services:wrmark"}), 1u);
    EXPECT_EQ(log_lines_with({"services:room_status"}), 0u) << log_text();
}

TEST_F(Config, DatabaseSections) {
    ASSERT_EQ(load("[PBX]\ndbdriver = SQLite\ndatabase = " + db("pbx.db") +
                   "\nhost = dbhost\nuser = dbuser\npassword = dbpass\nport = 3307\n"
                   "date_format = %d.%m.%Y %H:%M:%S\ntime_format = %H.%M\n"
                   "[asterisk]\ndbdriver = mysql\nhost = 127.0.0.1\nuser = u\n"
                   "[other]\ndbdriver = postgres\n" +
                   sqlite("abcdefghijklmnoXXX", "x.db") + sqlite("abcdefghijklmnoYYY", "y.db") +
                   "[bad]\ndbdriver = sqlite\ndatabase = " + db("missing/bad.db") + "\n"),
              0);
    dbdriver_ptr drv = find("pbx");
    ASSERT_TRUE(drv);
    EXPECT_FALSE(find("PBX"));
    EXPECT_EQ(drv->database, db("pbx.db"));
    EXPECT_STREQ(drv->dateformat, "%d.%m.%Y %H:%M:");
    EXPECT_STREQ(drv->timeformat, "%H.%M");
    EXPECT_EQ(drv->host + drv->user + drv->password + std::to_string(drv->port),
              "dbhostdbuserdbpass3307");
    // mysql and other words register nothing; names are cut, the later one wins.
    EXPECT_FALSE(find("asterisk") || find("other"));
    ASSERT_TRUE(find("abcdefghijklmno"));
    EXPECT_EQ(find("abcdefghijklmno")->database, db("y.db"));
    EXPECT_EQ(log_lines_with({"WARNING[", "date_format", "pbx"}), 1u) << log_text();
    // An unreachable database is registered anyway and reported.
    ASSERT_TRUE(find("bad"));
    EXPECT_TRUE(has_line_like(log_text(), kStamp + ":  ERROR[" + std::to_string(getpid()) +
                                              "]: registry.cpp:@ in load_dbdriver: Can not "
                                              "connect to DB bad of sqlite. Please check settings"))
        << log_text();

    // A reload makes fresh records and keeps those of removed sections.
    dbdriver_ptr other = find("abcdefghijklmno");
    ASSERT_EQ(load(sqlite("pbx", "pbx2.db")), 0);
    ASSERT_TRUE(find("pbx"));
    EXPECT_NE(find("pbx"), drv);
    EXPECT_EQ(find("pbx")->database, db("pbx2.db"));
    EXPECT_EQ(find("abcdefghijklmno"), other);
}

}  // namespace
