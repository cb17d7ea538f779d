// The configuration file: keys, types, defaults, reloads, snapshots, the
// warnings about service strings and the database sections.
#include "config.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include "db/registry.h"
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
    void SetUp() override {
        logger_init(dir_.file("test.log").c_str(), 5, 0, 0);
        publish_config(std::make_shared<config>());
    }
    void TearDown() override { logger_init(nullptr, 1, 0, 0); }

    std::string conf_path() const { return dir_.file("orlanbeck.conf"); }
    std::string db(const std::string& name) const { return dir_.file(name); }
    // A section for a SQLite file in the temporary folder.
    std::string sqlite(const std::string& section, const std::string& file) const {
        return "[" + section + "]\ndbdriver = sqlite\ndatabase = " + db(file) + "\n";
    }
    // Every key of kSettings, and the database they name.
    std::string full_file() const {
        std::string text = sqlite("db", "db.db");
        for (const setting& s : kSettings)
            text += "[" + std::string(s.section) + "]\n" + s.line + "\n";
        return text;
    }

    // A load as at start: the previous texts stay where the file has no key.
    int load(const std::string& text) {
        write_file(conf_path(), text);
        return load_conf(conf_path().c_str());
    }
    // A load as on SIGHUP: the texts are released first.
    int reload(const std::string& text) {
        write_file(conf_path(), text);
        free_confvals();
        return load_conf(conf_path().c_str());
    }

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
};

TEST_F(Config, EveryKeyLandsInItsSettingAndAReloadWithoutItGivesTheDefault) {
    ASSERT_EQ(load(full_file()), 0);
    for (const setting& s : kSettings) EXPECT_EQ(s.get(*current_config()), s.loaded) << s.line;
    EXPECT_EQ(log_text(), "");  // a sound file gives no warning at all

    ASSERT_EQ(reload("; nothing but a comment\n"), 0);
    for (const setting& s : kSettings) EXPECT_EQ(s.get(*current_config()), s.fallback) << s.line;
    EXPECT_EQ(config_file, conf_path());
}

TEST_F(Config, FormsOfBooleansLogTypesAndPorts) {
    const struct {
        const char* text;
        const char* shown;
        std::string (*get)(const config&);
    } forms[] = {
        {"[logger]\ndisable_log = y", "1", SETTING(disable_log)},
        {"[logger]\ndisable_log = 1", "1", SETTING(disable_log)},
        {"[logger]\ndisable_log = True", "1", SETTING(disable_log)},
        {"[logger]\ndisable_log = N", "0", SETTING(disable_log)},
        {"[logger]\ndisable_log = no", "0", SETTING(disable_log)},
        {"[logger]\ndisable_log = x", "0", SETTING(disable_log)},
        {"[logger]\nlog_type = syslog", "0", SETTING(logtype)},
        {"[logger]\nlog_type = SysLog-only", "0", SETTING(logtype)},
        {"[logger]\nlog_level = 3", "0", SETTING(logtype)},
        {"[pms]\nport = 65535", "65535", SETTING(pmsport)},
        {"[pms]\nport = 70000", "4464", SETTING(pmsport)},
    };
    for (const auto& form : forms) {
        ASSERT_EQ(load(full_file()), 0);  // every setting away from its default
        ASSERT_EQ(load(std::string(form.text) + "\n"), 0);
        EXPECT_EQ(form.get(*current_config()), form.shown) << form.text;
    }
    EXPECT_EQ(log_lines_with({"WARNING["}), 1u) << log_text();
    EXPECT_EQ(log_lines_with({"WARNING[", "pms:port = 70000"}), 1u) << log_text();
}

TEST_F(Config, PlainLoadsKeepTextsAndAMissingFileGivesTheDefaults) {
    ASSERT_EQ(load(full_file()), 0);
    ASSERT_EQ(load("[pms]\nport = 5011\n"), 0);
    EXPECT_EQ(current_config()->checkin, "db:in %exten%");
    EXPECT_EQ(current_config()->pmshost, "localhost");  // reset on every load

    const std::string missing = dir_.file("missing.conf");
    fd_capture console(2, dir_.file("stderr"));
    EXPECT_EQ(load_conf(missing.c_str()), -1);
    EXPECT_EQ(console.finish(), "");  // the caller reports it
    EXPECT_EQ(current_config()->pmsport, 5010);
    EXPECT_EQ(current_config()->checkin, "db:in %exten%");
    EXPECT_EQ(config_file, missing);

    // free_confvals() alone changes nothing that readers see.
    free_confvals();
    EXPECT_EQ(current_config()->checkin, "db:in %exten%");
    ASSERT_EQ(load_conf(conf_path().c_str()), 0);
}

TEST_F(Config, ReadersKeepConsistentSnapshotsWhileReloading) {
    auto text = [&](const std::string& tag) {
        return "[pms]\nhost = host-" + tag + "\n[services]\ncheckin = pbx:checkin-" + tag +
               " %exten%\nbillcalls = pbx:calls-" + tag + "\n" + sqlite("pbx", tag + ".db");
    };
    ASSERT_EQ(reload(text("a")), 0);
    std::atomic<bool> stop{false};
    std::atomic<int> torn{0};
    std::atomic<long> reads{0};
    std::vector<std::thread> readers;
    for (int i = 0; i < 4; ++i) {
        readers.emplace_back([&] {
            while (!stop) {
                config_ptr cfg = current_config();
                std::string tag = cfg->pmshost.substr(5);  // host-<tag>
                dbdriver_ptr drv = find_dbdriver_in(cfg->dbdrivers, "pbx");
                torn += cfg->checkin != "pbx:checkin-" + tag + " %exten%" ||
                        cfg->billcalls != "pbx:calls-" + tag || !drv ||
                        drv->database != db(tag + ".db") || !find_dbdriver("pbx");
                if (drv) {
                    std::lock_guard<dbdriver_t> guard(*drv);
                    if (drv->is_connected()) drv->reconnect();
                    torn += drv->query("select 1") != 0 || drv->fetch_row() != 0;
                    drv->free_result();
                }
                ++reads;
            }
        });
    }
    for (int i = 0; i < 100; ++i) ASSERT_EQ(reload(text(i % 2 ? "a" : "b")), 0);
    wait_until([&] { return reads > 100; });
    stop = true;
    for (std::thread& t : readers) t.join();
    EXPECT_EQ(torn, 0);
}

TEST_F(Config, ServiceStringsThatCannotWorkAreReportedOnce) {
    ASSERT_EQ(reload(sqlite("pbx", "pbx.db") +
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

    ASSERT_EQ(reload(sqlite("pbx", "pbx.db") +
                     "[services]\nbillcalls = pbx:select 1\nwakeup_result = pbx:select 1\n"
                     "room_status = pbx:select 1\nremark = pbx:update x set r=1\n"),
              0);
    EXPECT_EQ(log_lines_with({"WARNING[", "services:billcalls", "services:billmark"}), 1u);
    EXPECT_EQ(log_lines_with({"WARNING[", "services:wakeup_result", "services:wrmark"}), 1u);
    EXPECT_EQ(log_lines_with({"services:room_status"}), 0u) << log_text();
}

TEST_F(Config, DatabaseSections) {
    ASSERT_EQ(reload("[PBX]\ndbdriver = SQLite\ndatabase = " + db("pbx.db") +
                     "\nhost = dbhost\nuser = dbuser\npassword = dbpass\nport = 3307\n"
                     "date_format = %d.%m.%Y %H:%M:%S\ntime_format = %H.%M\n"
                     "[asterisk]\ndbdriver = mysql\nhost = 127.0.0.1\nuser = u\n"
                     "[other]\ndbdriver = postgres\n" +
                     sqlite("abcdefghijklmnoXXX", "x.db") + sqlite("abcdefghijklmnoYYY", "y.db") +
                     sqlite("exact", "exact.db") + "date_format = %Y%m%d-%H%M%S.\n"),
              0);
    dbdriver_ptr drv = find_dbdriver("pbx");
    ASSERT_TRUE(drv);
    EXPECT_FALSE(find_dbdriver("PBX"));
    EXPECT_STREQ(drv->name, "pbx");
    EXPECT_EQ(drv->database, db("pbx.db"));
    EXPECT_EQ(drv->is_connected(), 0);
    EXPECT_STREQ(drv->dateformat, "%d.%m.%Y %H:%M:");
    EXPECT_STREQ(drv->timeformat, "%H.%M");
    EXPECT_EQ(drv->host + drv->user + drv->password + std::to_string(drv->port),
              "dbhostdbuserdbpass3307");
    dbdriver_ptr exact = find_dbdriver("exact");
    ASSERT_TRUE(exact);
    EXPECT_STREQ(exact->dateformat, "%Y%m%d-%H%M%S.");  // 15 characters stay whole
    EXPECT_STREQ(exact->timeformat, "%H:%M:%S");
    // mysql and other words register nothing; names are cut, the later one wins.
    EXPECT_FALSE(find_dbdriver("asterisk") || find_dbdriver("other"));
    EXPECT_FALSE(find_dbdriver("abcdefghijklmnoYYY") || find_dbdriver("abcdefghijklmnop"));
    ASSERT_TRUE(find_dbdriver("abcdefghijklmno"));
    EXPECT_EQ(find_dbdriver("abcdefghijklmno")->database, db("y.db"));
    EXPECT_EQ(log_lines_with({}), 1u) << log_text();
    EXPECT_EQ(log_lines_with({"WARNING[", "date_format", "pbx"}), 1u) << log_text();
}

TEST_F(Config, UnreachableDatabaseIsRegisteredAnywayAndReported) {
    const std::string path = db("later/pbx.db");
    ASSERT_EQ(reload("[bad]\ndbdriver = SQLite\ndatabase = " + path + "\n"), 0);
    dbdriver_ptr drv = find_dbdriver("bad");
    ASSERT_TRUE(drv);
    EXPECT_NE(drv->is_connected(), 0);
    EXPECT_TRUE(has_line_like(log_text(), kStamp + ":  ERROR[" + std::to_string(getpid()) +
                                              "]: registry.cpp:@ in load_dbdriver: Can not "
                                              "connect to DB bad of SQLite. Please check settings"))
        << log_text();
    EXPECT_NE(log_text().find("Please check settings\n\n"), std::string::npos);

    // Its first user connects it once the file can be made.
    ASSERT_EQ(mkdir(db("later").c_str(), 0700), 0);
    std::lock_guard<dbdriver_t> guard(*drv);
    EXPECT_EQ(drv->reconnect(), 0);
    EXPECT_EQ(drv->query("create table t (a)"), 0);
}

TEST_F(Config, ReloadMakesFreshRecordsAndKeepsThoseOfRemovedSections) {
    ASSERT_EQ(reload(sqlite("pbx", "pbx.db") + sqlite("cdr", "cdr.db")), 0);
    dbdriver_ptr pbx = find_dbdriver("pbx"), cdr = find_dbdriver("cdr");
    ASSERT_TRUE(pbx && cdr);
    ASSERT_EQ(reload(sqlite("pbx", "pbx.db") + sqlite("cdr", "cdr.db")), 0);
    EXPECT_NE(find_dbdriver("pbx"), pbx);
    EXPECT_NE(find_dbdriver("cdr"), cdr);
    cdr = find_dbdriver("cdr");
    ASSERT_EQ(reload(sqlite("pbx", "pbx2.db")), 0);
    ASSERT_TRUE(find_dbdriver("pbx"));
    EXPECT_EQ(find_dbdriver("pbx")->database, db("pbx2.db"));
    EXPECT_EQ(find_dbdriver("cdr"), cdr);
    EXPECT_FALSE(find_dbdriver(nullptr) || find_dbdriver(""));
}

}  // namespace
