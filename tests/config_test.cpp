// The configuration file: keys, types, defaults, reloads, the warnings about
// service strings and the database sections.
#include "config.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>

#include "config_check.h"
#include "logger.h"
#include "support.h"

namespace {

// A setting as text: numbers in decimal, an unset text as "(unset)".
#define NUMBER(m) [](const config& c) { return std::to_string(c.m); }
#define TEXT(m) [](const config& c) { return opt_text(c.m).value_or("(unset)"); }

// Keys of every kind of setting and handling (the daemon's own tests cover the
// others): their line in a file and the setting they give.
const struct setting {
    const char *section, *line, *loaded;
    std::string (*get)(const config&);
} kSettings[] = {
    {"PMS", "interface = PBX iface", "PBX iface", TEXT(pmsinterface)},
    {"logger", "log_type = file", "1", NUMBER(logtype)},
    {"logger", "disable_log = yes", "1", NUMBER(disable_log)},
    {"services", "cdr_mgr_events = cdr", "cdr", TEXT(mgr_events)},
    {"pms", "room_max_length = 64", "64", NUMBER(room_max_length)},
    {"pms", "plus_prefix = 011", "011", TEXT(plus_prefix)},
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
            n += std::all_of(parts.begin(), parts.end(),
                             [&](auto& p) { return line.find(p) != std::string::npos; });
        return n;
    }

    temp_dir dir_;
    config_loader loader{dir_.file("orlanbeck.conf")};
    config_ptr snapshot;
};

TEST_F(Config, KeysLandInTheirSettingsAndAReloadWithoutThemGivesTheDefaults) {
    std::string text;
    for (const setting& s : kSettings) text += "[" + std::string(s.section) + "]\n" + s.line + "\n";
    ASSERT_EQ(load(text), 0);
    for (const setting& s : kSettings) EXPECT_EQ(s.get(cfg()), s.loaded) << s.line;
    EXPECT_EQ(log_text(), "");  // a sound file gives no warning at all

    ASSERT_EQ(load("; nothing but a comment\n"), 0);
    for (const setting& s : kSettings) EXPECT_EQ(s.get(cfg()), s.get(config{})) << s.line;

    ASSERT_EQ(load("[logger]\nlog_type = SysLog-only\n[pms]\nport = 70000\nroom_max_length = "
                   "65\nplus_prefix = +\n"),
              0);
    EXPECT_EQ(cfg().logtype, 0);
    EXPECT_EQ(cfg().pmsport, 4464);
    EXPECT_EQ(cfg().room_max_length, 8);
    EXPECT_EQ(cfg().plus_prefix, "00");
    EXPECT_EQ(log_lines_with({"WARNING["}), 3u) << log_text();
    EXPECT_EQ(log_lines_with({"WARNING[", "pms:port = 70000"}), 1u) << log_text();
    EXPECT_EQ(log_lines_with({"WARNING[", "pms:room_max_length = \"65\"", "8 used"}), 1u);
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
    const std::pair<std::string, const char*> warned[] = {{"checkin", "\":\""},
                                                          {"billcalls", "%name%"},
                                                          {"checkout", "%param%"},
                                                          {"bareon", "nosuch"},
                                                          {"wakeup_set", "%DATE%"}};
    for (const auto& [key, about] : warned)
        EXPECT_EQ(log_lines_with({"WARNING[", "services:" + key, about}), 1u) << key << log_text();
    EXPECT_EQ(log_lines_with({"WARNING["}), std::size(warned)) << log_text();

    ASSERT_EQ(load(sqlite("pbx", "pbx.db") +
                   "[services]\nbillcalls = pbx:select 1\nwakeup_result = pbx:select 1\n"
                   "room_status = pbx:select 1\nremark = pbx:update x set r=1\n"),
              0);
    EXPECT_EQ(log_lines_with({"WARNING[", "services:billcalls", "services:billmark"}), 1u);
    EXPECT_EQ(log_lines_with({"WARNING[", "services:wakeup_result", "services:wrmark"}), 1u);
    EXPECT_EQ(log_lines_with({"services:room_status"}), 0u) << log_text();
}

TEST_F(Config, SelfServiceWithoutItsEventClassesLoginOrBesideTheLampIsReported) {
    ASSERT_EQ(load("[services]\ncdr_mgr_events = cdr\nmwi_on = ami:MWIUpdate|Mailbox=%exten%\n"
                   "[dialcodes]\nguest_service_event = GuestService\nvoicemail = yes\n"),
              0);
    check_configuration(cfg());
    EXPECT_EQ(cfg().dialcodes.guest_service_event.value_or(""), "GuestService");
    for (const char* about : {"\"user\" events", "\"call\" events", "needs a Manager login",
                              "comes back to it as voice mail counts"})
        EXPECT_EQ(log_lines_with({"WARNING[", about}), 1u) << about << log_text();
}

TEST_F(Config, DatabaseSections) {
    ASSERT_EQ(load("[PBX]\ndbdriver = SQLite\ndatabase = " + db("pbx.db") +
                   "\ndate_format = %d.%m.%Y %H:%M:%S\ntime_format = %H.%M\nsynchronous = Normal\n"
                   "[asterisk]\ndbdriver = mysql\nhost = 127.0.0.1\nuser = u\n"
                   "[other]\ndbdriver = postgres\n" +
                   sqlite("abcdefghijklmnoXXX", "x.db") + sqlite("abcdefghijklmnoYYY", "y.db") +
                   "[bad]\ndbdriver = sqlite\nsynchronous = fast\ndatabase = " +
                   db("missing/bad.db") + "\n"),
              0);
    dbdriver_ptr drv = find("pbx");
    ASSERT_TRUE(drv);
    EXPECT_FALSE(find("PBX"));
    EXPECT_EQ(drv->database, db("pbx.db"));
    EXPECT_STREQ(drv->dateformat, "%d.%m.%Y %H:%M:");
    EXPECT_STREQ(drv->timeformat, "%H.%M");
    // mysql and other words register nothing; names are cut, the later one wins.
    EXPECT_FALSE(find("asterisk") || find("other"));
    ASSERT_TRUE(find("abcdefghijklmno"));
    EXPECT_EQ(find("abcdefghijklmno")->database, db("y.db"));
    EXPECT_EQ(log_lines_with({"WARNING[", "date_format", "pbx"}), 1u) << log_text();
    // synchronous = normal is taken only on a file in WAL mode (the SQLite driver's test).
    EXPECT_EQ(log_lines_with({"WARNING[", "pbx.db is not in WAL mode"}), 1u) << log_text();
    EXPECT_EQ(log_lines_with({"WARNING[", "[bad] synchronous = \"fast\" is neither"}), 1u);
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

TEST_F(Config, DeadlinesComeWithTheirKeysOrTheFixAndABadValueIsReported) {
    // Port 1 on loopback refuses at once: the loads never wait for a server.
    const std::string sections =
        "[pbx]\ndbdriver = sqlite\n[my]\ndbdriver = mysql\nhost = 127.0.0.1\nport = 1\n";
    auto limits = [&] {
        const db_settings& my = cfg().databases.back();
        return std::to_string(cfg().ami_connect_timeout) + " " +
               std::to_string(cfg().ami_login_timeout) + " " +
               std::to_string(cfg().rooms.ldap_timeout) + " " +
               std::to_string(my.connect_timeout.value_or(0)) + " " +
               std::to_string(my.read_timeout.value_or(0)) + " " +
               std::to_string(my.write_timeout.value_or(0));
    };
    // Without the fix the long-standing limits stay, but for a key that is set.
    ASSERT_EQ(load(sections + "[services]\nami_login_timeout = 4\n"), 0);
    EXPECT_EQ(limits(), "0 4 0 0 0 0");
    ASSERT_EQ(load(sections + "[fixes]\nall = yes\n"), 0);
    EXPECT_EQ(limits(), "5 10 10 5 30 30");
    // A bad value keeps the default.
    ASSERT_EQ(
        load(sections + "read_timeout = 7\nwrite_timeout = 0\n[services]\nami_login_timeout = 3\n"
                        "ami_connect_timeout = 2s\n[rooms]\nldap_timeout = -1\n[fixes]\n"
                        "deadlines = yes\n"),
        0);
    EXPECT_EQ(limits(), "5 3 10 5 7 30");
    EXPECT_EQ(log_lines_with({"WARNING[", "ami_connect_timeout = \"2s\"", "ignored"}), 1u);
    EXPECT_EQ(log_lines_with({"WARNING[", "ldap_timeout = \"-1\""}), 1u);
    EXPECT_EQ(log_lines_with({"WARNING[", "my:write_timeout = \"0\""}), 1u) << log_text();
}

}  // namespace

TEST_F(Config, ATariffFileWithABrokenLineIsRefusedWholeAndThePreviousTableStays) {
    const std::string header =
        "prefix,description,call_type,rate,first,next,connect,free,valid_from\n";
    const std::string rating = "[rating]\ntariffs = tariffs.csv\nmarkup = 12.5\nunrated = zero\n";
    write_file(dir_.file("tariffs.csv"), header + "0049,Germany,I,0.12,60,60,0.05,0,\n");
    ASSERT_EQ(0, load(rating));
    const tariff_ptr first = cfg().tariff;
    ASSERT_TRUE(first);
    EXPECT_EQ(1250, cfg().rating.rule.markup_hundredths);
    EXPECT_TRUE(cfg().rating.unrated_zero);
    write_file(dir_.file("tariffs.csv"),
               header + "0049,Germany,I,0.13,60,60,0.05,0,\n0044,UK,I,x,60,60,0,0,\n");
    ASSERT_EQ(0, load(rating));
    EXPECT_EQ(first, cfg().tariff);
    EXPECT_EQ(1u, log_lines_with({"ERROR", "Tariff file refused: ", "tariffs.csv:3: rate \"x\""}));
    EXPECT_EQ(1u, log_lines_with({"ERROR", "tariffs.csv refused: the previous table stays"}));
    // Without the key there is no table; a bad value keeps its default.
    ASSERT_EQ(0, load("[rating]\ndecimals = 5\nmarkup = 1.234\n"));
    EXPECT_FALSE(cfg().tariff);
    EXPECT_EQ(2, cfg().rating.rule.decimals);
    EXPECT_EQ(0, cfg().rating.rule.markup_hundredths);
    EXPECT_EQ(1u, log_lines_with({"WARNING", "rating:decimals = \"5\" is not 0-4"}));
}
