// The configuration file: keys, types, defaults, reloads, snapshots, the
// warnings about service strings and the database sections.
#include "config.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cctype>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "db/registry.h"
#include "logger.h"
#include "support.h"

namespace {




class Config : public ::testing::Test {
  protected:
    void SetUp() override {
        logger_init(dir_.file("test.log").c_str(), 5, 0, 0);
        publish_config(std::make_shared<config>());
    }
    void TearDown() override { logger_init(nullptr, 1, 0, 0); }

    std::string conf_path() const { return dir_.file("orlanbeck.conf"); }
    std::string db(const std::string& name) const { return dir_.file(name); }

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
    void clear_log() const { write_file(dir_.file("test.log"), ""); }
    // Lines of the log holding all of `parts`.
    size_t log_lines_with(const std::vector<std::string>& parts) const {
        size_t n = 0;
        std::string text = log_text();
        size_t start = 0;
        while (start < text.size()) {
            size_t end = text.find('\n', start);
            if (end == std::string::npos) end = text.size();
            std::string line = text.substr(start, end - start);
            bool all = true;
            for (const std::string& p : parts) all = all && line.find(p) != std::string::npos;
            n += all;
            start = end + 1;
        }
        return n;
    }

    temp_dir dir_;
};

TEST_F(Config, EmptyFileLoadsAllDefaults) {
    ASSERT_EQ(load("; nothing but a comment\n"), 0);
    config_ptr cfg = current_config();
    EXPECT_EQ(cfg->pmshost, "localhost");
    EXPECT_EQ(cfg->pmsport, 5010);
    EXPECT_EQ(cfg->statesfile, "/var/run/orlanbeck.db");
    EXPECT_FALSE(cfg->pmsinterface);
    EXPECT_EQ(cfg->logfile, "/var/log/orlanbeck.log");
    EXPECT_EQ(cfg->loglevel, 5);
    EXPECT_EQ(cfg->logtype, 0);
    EXPECT_EQ(cfg->disable_log, 0);
    EXPECT_EQ(cfg->use_manager, 0);
    EXPECT_EQ(cfg->mgr_port, 5038);
    EXPECT_EQ(cfg->mgr_events, "call");
    EXPECT_FALSE(cfg->mgr_host || cfg->mgr_user || cfg->mgr_passwd);
    EXPECT_EQ(cfg->noremovecalls, 0);
    for (const opt_text* s :
         {&cfg->bareon, &cfg->bareoff, &cfg->dndon, &cfg->dndoff, &cfg->wakeup_set,
          &cfg->wakeup_clear, &cfg->checkin, &cfg->checkout, &cfg->billmark, &cfg->billok,
          &cfg->room_state, &cfg->wakeup_result, &cfg->billcalls, &cfg->wrmark, &cfg->remark})
        EXPECT_FALSE(*s);
    EXPECT_TRUE(cfg->dbdrivers.empty());
    EXPECT_EQ(config_file, conf_path());
    EXPECT_EQ(log_text(), "");
}

TEST_F(Config, EveryKeyLandsInItsSetting) {
    ASSERT_EQ(load("[PMS]\n"
                   "Host = pms.example\n"
                   "port = 6001\n"
                   "statesfile = /srv/states.db\n"
                   "interface = PBX interface\n"
                   "[logger]\n"
                   "log_type = file\n"
                   "log_level = 2\n"
                   "disable_log = yes\n"
                   "log_file = /srv/orlanbeck.log\n"
                   "[services]\n"
                   "cdr_use_manager = true\n"
                   "cdr_mgr_port = 15038\n"
                   "cdr_mgr_host = 127.0.0.1\n"
                   "cdr_mgr_user = admin\n"
                   "cdr_mgr_password = secret\n"
                   "cdr_mgr_events = cdr\n"
                   "noremovecalls = 3\n"
                   "bareon = sqlite:bareon %exten%\n"
                   "bareoff = sqlite:bareoff %exten%\n"
                   "dndon = sqlite:dndon %exten%\n"
                   "dndoff = sqlite:dndoff %exten%\n"
                   "wakeup_set = sqlite:wakeup_set %exten%\n"
                   "wakeup_clear = sqlite:wakeup_clear %exten%\n"
                   "checkin = sqlite:checkin %exten%\n"
                   "checkout = sqlite:checkout %exten%\n"
                   "billmark = sqlite:billmark %exten%\n"
                   "billok = sqlite:billok %exten%\n"
                   "room_status = sqlite:room_status %exten%\n"
                   "wakeup_result = sqlite:wakeup_result %exten%\n"
                   "billcalls = sqlite:billcalls %exten%\n"
                   "wrmark = sqlite:wrmark %exten%\n"
                   "remark = sqlite:remark %exten%\n"
                   "[sqlite]\n"
                   "dbdriver = sqlite\n"
                   "database = " +
                   db("pbx.db") + "\n"),
              0);
    config_ptr cfg = current_config();
    EXPECT_EQ(cfg->pmshost, "pms.example");
    EXPECT_EQ(cfg->pmsport, 6001);
    EXPECT_EQ(cfg->statesfile, "/srv/states.db");
    EXPECT_EQ(cfg->pmsinterface, "PBX interface");
    EXPECT_EQ(cfg->logtype, 1);
    EXPECT_EQ(cfg->loglevel, 2);
    EXPECT_EQ(cfg->disable_log, 1);
    EXPECT_EQ(cfg->logfile, "/srv/orlanbeck.log");
    EXPECT_EQ(cfg->use_manager, 1);
    EXPECT_EQ(cfg->mgr_port, 15038);
    EXPECT_EQ(cfg->mgr_host, "127.0.0.1");
    EXPECT_EQ(cfg->mgr_user, "admin");
    EXPECT_EQ(cfg->mgr_passwd, "secret");
    EXPECT_EQ(cfg->mgr_events, "cdr");
    EXPECT_EQ(cfg->noremovecalls, 3);
    const std::pair<const char*, const opt_text*> services[] = {
        {"bareon", &cfg->bareon},
        {"bareoff", &cfg->bareoff},
        {"dndon", &cfg->dndon},
        {"dndoff", &cfg->dndoff},
        {"wakeup_set", &cfg->wakeup_set},
        {"wakeup_clear", &cfg->wakeup_clear},
        {"checkin", &cfg->checkin},
        {"checkout", &cfg->checkout},
        {"billmark", &cfg->billmark},
        {"billok", &cfg->billok},
        {"room_status", &cfg->room_state},
        {"wakeup_result", &cfg->wakeup_result},
        {"billcalls", &cfg->billcalls},
        {"wrmark", &cfg->wrmark},
        {"remark", &cfg->remark},
    };
    for (const auto& [key, value] : services)
        EXPECT_EQ(*value, std::string("sqlite:") + key + " %exten%") << key;
    // A sound file gives no warning at all.
    EXPECT_EQ(log_text(), "");
}

TEST_F(Config, BooleanFormsAndDefaults) {
    const std::pair<const char*, int> forms[] = {
        {"y", 1}, {"Y", 1}, {"t", 1}, {"T", 1}, {"1", 1}, {"yes", 1}, {"True", 1},
        {"n", 0}, {"N", 0}, {"f", 0}, {"F", 0}, {"0", 0}, {"no", 0},  {"x", 0},
    };
    for (const auto& [text, expected] : forms) {
        ASSERT_EQ(load(std::string("[logger]\ndisable_log = ") + text +
                       "\n[services]\ncdr_use_manager = " + text + "\n"),
                  0);
        EXPECT_EQ(current_config()->disable_log, expected) << text;
        EXPECT_EQ(current_config()->use_manager, expected) << text;
    }
    // Numbers and flags always take the file's value or their default.
    ASSERT_EQ(load("[logger]\ndisable_log = 1\nlog_level = 1\n[services]\ncdr_use_manager = 1\n"
                   "cdr_mgr_port = 1000\nnoremovecalls = 1\n[pms]\nport = 1234\n"),
              0);
    ASSERT_EQ(load("[pms]\n"), 0);
    config_ptr cfg = current_config();
    EXPECT_EQ(cfg->disable_log, 0);
    EXPECT_EQ(cfg->use_manager, 0);
    EXPECT_EQ(cfg->loglevel, 5);
    EXPECT_EQ(cfg->mgr_port, 5038);
    EXPECT_EQ(cfg->noremovecalls, 0);
    EXPECT_EQ(cfg->pmsport, 5010);
}

TEST_F(Config, LogTypeSyslogMeansNoSystemLogCopies) {
    ASSERT_EQ(load("[logger]\nlog_type = file\n"), 0);
    EXPECT_EQ(current_config()->logtype, 1);
    ASSERT_EQ(load("[logger]\nlog_type = syslog\n"), 0);
    EXPECT_EQ(current_config()->logtype, 0);
    ASSERT_EQ(load("[logger]\nlog_type = file\n"), 0);
    ASSERT_EQ(load("[logger]\nlog_type = SysLog-only\n"), 0);
    EXPECT_EQ(current_config()->logtype, 0);
    ASSERT_EQ(load("[logger]\nlog_type = file\n"), 0);
    ASSERT_EQ(load("[logger]\nlog_level = 3\n"), 0);
    EXPECT_EQ(current_config()->logtype, 0);
}

TEST_F(Config, PortsAreSixteenBitWithAWarningWhenOutOfRange) {
    ASSERT_EQ(load("[pms]\nport = 65535\n"), 0);
    EXPECT_EQ(current_config()->pmsport, 65535);
    EXPECT_EQ(log_text(), "");
    ASSERT_EQ(load("[pms]\nport = 70000\n"), 0);
    EXPECT_EQ(current_config()->pmsport, 70000 & 0xffff);
    EXPECT_EQ(log_lines_with({"WARNING[", "pms:port"}), 1u) << log_text();
}

TEST_F(Config, MissingFileReturnsMinusOneWithDefaultsPublished) {
    ASSERT_EQ(load("[pms]\nhost = elsewhere\nport = 7000\nstatesfile = /srv/s.db\n"
                   "[logger]\nlog_type = file\nlog_level = 1\nlog_file = /srv/x.log\n"
                   "[services]\ncheckin = sqlite:x\n"),
              0);
    std::string missing = dir_.file("missing.conf");
    fflush(stderr);
    int saved = dup(2);
    int fd = open(dir_.file("stderr").c_str(), O_RDWR | O_CREAT | O_TRUNC, 0600);
    dup2(fd, 2);
    close(fd);
    int rc = load_conf(missing.c_str());
    fflush(stderr);
    dup2(saved, 2);
    close(saved);
    EXPECT_EQ(rc, -1);
    // iniparser's own complaint does not reach the console: the caller reports.
    EXPECT_EQ(read_file(dir_.file("stderr")), "");
    config_ptr cfg = current_config();
    EXPECT_EQ(cfg->pmshost, "localhost");
    EXPECT_EQ(cfg->pmsport, 5010);
    EXPECT_EQ(cfg->statesfile, "/var/run/orlanbeck.db");
    EXPECT_EQ(cfg->logfile, "/var/log/orlanbeck.log");
    EXPECT_EQ(cfg->loglevel, 5);
    EXPECT_EQ(cfg->logtype, 0);
    EXPECT_EQ(cfg->checkin, "sqlite:x");  // not one of the settings reset by a load
    EXPECT_EQ(config_file, missing);
}

TEST_F(Config, ReloadUnsetsTextsWhoseKeysWereRemoved) {
    const std::string full =
        "[pms]\nhost = pmshost\ninterface = PB\n"
        "[services]\ncdr_mgr_host = 127.0.0.1\ncdr_mgr_user = u\ncdr_mgr_password = p\n"
        "cdr_mgr_events = cdr\ncheckin = sqlite:in\nbillcalls = sqlite:calls\n";
    const std::string lean = "[pms]\nport = 5011\n[services]\ncheckout = sqlite:out\n";

    // A plain load keeps texts that the file does not name.
    ASSERT_EQ(load(full), 0);
    ASSERT_EQ(load(lean), 0);
    EXPECT_EQ(current_config()->checkin, "sqlite:in");
    EXPECT_EQ(current_config()->pmsinterface, "PB");
    EXPECT_EQ(current_config()->pmshost, "localhost");  // reset on every load

    // A reload after free_confvals() leaves them unset.
    ASSERT_EQ(reload(full), 0);
    ASSERT_EQ(reload(lean), 0);
    config_ptr cfg = current_config();
    EXPECT_FALSE(cfg->checkin);
    EXPECT_FALSE(cfg->billcalls);
    EXPECT_FALSE(cfg->pmsinterface);
    EXPECT_FALSE(cfg->mgr_host || cfg->mgr_user || cfg->mgr_passwd);
    EXPECT_EQ(cfg->mgr_events, "call");
    EXPECT_EQ(cfg->checkout, "sqlite:out");
    EXPECT_EQ(cfg->pmsport, 5011);

    // free_confvals() alone changes nothing that readers see.
    ASSERT_EQ(reload(full), 0);
    free_confvals();
    EXPECT_EQ(current_config()->checkin, "sqlite:in");
    ASSERT_EQ(load_conf(conf_path().c_str()), 0);
}

TEST_F(Config, HeldSnapshotIsUnchangedByReload) {
    ASSERT_EQ(reload("[pms]\nhost = first\n[services]\ncheckin = pbx:in %exten%\n"
                     "[pbx]\ndbdriver = sqlite\ndatabase = " +
                     db("first.db") + "\n"),
              0);
    config_ptr held = current_config();
    dbdriver_ptr first_pbx = find_dbdriver("pbx");
    ASSERT_TRUE(first_pbx);

    ASSERT_EQ(reload("[pms]\nhost = second\n[services]\ncheckin = pbx:again %exten%\n"
                     "[pbx]\ndbdriver = sqlite\ndatabase = " +
                     db("second.db") + "\n"),
              0);
    EXPECT_EQ(held->pmshost, "first");
    EXPECT_EQ(held->checkin, "pbx:in %exten%");
    EXPECT_EQ(find_dbdriver_in(held->dbdrivers, "pbx"), first_pbx);
    EXPECT_EQ(current_config()->pmshost, "second");
    EXPECT_EQ(current_config()->checkin, "pbx:again %exten%");

    // The held record still works.
    std::lock_guard<dbdriver_t> guard(*first_pbx);
    EXPECT_EQ(first_pbx->query("create table t (a)"), 0);
}

TEST_F(Config, ReadersKeepConsistentSnapshotsWhileReloading) {
    auto text = [&](const std::string& tag) {
        return "[pms]\nhost = host-" + tag + "\n[services]\ncheckin = pbx:checkin-" + tag +
               " %exten%\nbillcalls = pbx:calls-" + tag + "\n[pbx]\ndbdriver = sqlite\n" +
               "database = " + db(tag + ".db") + "\n";
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
                std::string host = cfg->pmshost;
                std::string tag = host.substr(host.size() - 1);
                if (cfg->checkin != "pbx:checkin-" + tag + " %exten%" ||
                    cfg->billcalls != "pbx:calls-" + tag)
                    ++torn;
                dbdriver_ptr drv = find_dbdriver_in(cfg->dbdrivers, "pbx");
                if (!drv || drv->database != db(tag + ".db")) {
                    ++torn;
                } else {
                    std::lock_guard<dbdriver_t> guard(*drv);
                    if (drv->is_connected()) drv->reconnect();
                    if (drv->query("select 1") != 0 || drv->fetch_row() != 0) ++torn;
                    drv->free_result();
                }
                if (!find_dbdriver("pbx")) ++torn;
                ++reads;
            }
        });
    }
    for (int i = 0; i < 100; ++i) ASSERT_EQ(reload(text(i % 2 ? "a" : "b")), 0);
    wait_until([&] { return reads > 100; });
    stop = true;
    for (std::thread& t : readers) t.join();
    EXPECT_EQ(torn, 0);
    EXPECT_GT(reads, 0);
}

TEST_F(Config, ServiceStringsThatCannotWorkAreReportedOnce) {
    ASSERT_EQ(reload("[pbx]\ndbdriver = sqlite\ndatabase = " + db("pbx.db") +
                     "\n"
                     "[services]\n"
                     "checkin = insert into rooms values ('%exten%')\n"
                     "billcalls = pbx:select * from cdr where src='%exten%' and n='%name%'\n"
                     "checkout = pbx:delete from x where a='%param%'\n"
                     "bareon = nosuch:update x set barred=1 where ext='%exten%'\n"
                     "wakeup_set = pbx:update x set t='%time%' where d='%DATE%'\n"
                     "dndon = pbx:update x set dnd=1 where ext='%exten%' and l='%lang%'\n"
                     "remark = pbx:update x set reported=1 where ext='%exten%'\n"
                     "billmark = any:update x set posted='%seqno%' where ext='%exten%'\n"),
              0);
    for (const char* key : {"services:checkin", "services:billcalls", "services:checkout",
                            "services:bareon", "services:wakeup_set"})
        EXPECT_EQ(log_lines_with({"WARNING[", key}), 1u) << key << "\n" << log_text();
    // checkin's warning is about the missing ":", billcalls' about %name%, which
    // the billing loop's routine does not know, bareon's about the database.
    EXPECT_EQ(log_lines_with({"services:checkin", "\":\""}), 1u);
    EXPECT_EQ(log_lines_with({"services:billcalls", "%name%"}), 1u);
    EXPECT_EQ(log_lines_with({"services:checkout", "%param%"}), 1u);
    EXPECT_EQ(log_lines_with({"services:bareon", "nosuch"}), 1u);
    EXPECT_EQ(log_lines_with({"services:wakeup_set", "%DATE%"}), 1u);
    // Sound strings, and marks (which run on the driver of their pass), are quiet.
    EXPECT_EQ(log_lines_with({"services:dndon"}), 0u);
    EXPECT_EQ(log_lines_with({"services:remark"}), 0u);
    EXPECT_EQ(log_lines_with({"services:billmark"}), 0u);
    EXPECT_EQ(log_lines_with({"WARNING["}), 5u) << log_text();
}

TEST_F(Config, ReportsWithoutTheirMarkAreReported) {
    ASSERT_EQ(reload("[pbx]\ndbdriver = sqlite\ndatabase = " + db("pbx.db") +
                     "\n"
                     "[services]\n"
                     "billcalls = pbx:select 1\n"
                     "wakeup_result = pbx:select 1\n"
                     "room_status = pbx:select 1\n"
                     "remark = pbx:update x set r=1\n"),
              0);
    EXPECT_EQ(log_lines_with({"WARNING[", "services:billcalls", "services:billmark"}), 1u);
    EXPECT_EQ(log_lines_with({"WARNING[", "services:wakeup_result", "services:wrmark"}), 1u);
    EXPECT_EQ(log_lines_with({"services:room_status"}), 0u) << log_text();
}

TEST_F(Config, SqliteSectionIsRegisteredUnderItsLowerCaseName) {
    ASSERT_EQ(reload("[PBX]\ndbdriver = SQLite\ndatabase = " + db("pbx.db") + "\n"), 0);
    dbdriver_ptr drv = find_dbdriver("pbx");
    ASSERT_TRUE(drv);
    EXPECT_FALSE(find_dbdriver("PBX"));
    EXPECT_STREQ(drv->name, "pbx");
    EXPECT_STREQ(drv->dateformat, "%Y-%m-%d");
    EXPECT_STREQ(drv->timeformat, "%H:%M:%S");
    EXPECT_EQ(drv->database, db("pbx.db"));
    EXPECT_EQ(drv->is_connected(), 0);
    EXPECT_EQ(access(db("pbx.db").c_str(), F_OK), 0);
    EXPECT_EQ(log_text(), "");
}

TEST_F(Config, OtherDriverWordsRegisterNothingAndSayNothing) {
    ASSERT_EQ(reload("[asterisk]\ndbdriver = mysql\nhost = 127.0.0.1\nuser = u\n"
                     "[other]\ndbdriver = postgres\n"),
              0);
    EXPECT_FALSE(find_dbdriver("asterisk"));
    EXPECT_FALSE(find_dbdriver("other"));
    EXPECT_TRUE(current_config()->dbdrivers.empty());
    EXPECT_EQ(log_text(), "");
}

TEST_F(Config, LongSectionNamesAreCutToFifteenCharacters) {
    ASSERT_EQ(reload("[abcdefghijklmnopqrst]\ndbdriver = sqlite\ndatabase = " + db("a.db") + "\n"),
              0);
    EXPECT_TRUE(find_dbdriver("abcdefghijklmno"));
    EXPECT_FALSE(find_dbdriver("abcdefghijklmnopqrst"));
    EXPECT_FALSE(find_dbdriver("abcdefghijklmnop"));

    // Two sections alike in their first 15 characters: the later one wins.
    ASSERT_EQ(reload("[abcdefghijklmnoXXX]\ndbdriver = sqlite\ndatabase = " + db("x.db") +
                     "\n[abcdefghijklmnoYYY]\ndbdriver = sqlite\ndatabase = " + db("y.db") + "\n"),
              0);
    ASSERT_TRUE(find_dbdriver("abcdefghijklmno"));
    EXPECT_EQ(find_dbdriver("abcdefghijklmno")->database, db("y.db"));
}

TEST_F(Config, UnreachableDatabaseIsRegisteredAnywayAndReported) {
    std::string path = db("later/pbx.db");
    ASSERT_EQ(reload("[bad]\ndbdriver = SQLite\ndatabase = " + path + "\n"), 0);
    dbdriver_ptr drv = find_dbdriver("bad");
    ASSERT_TRUE(drv);
    EXPECT_NE(drv->is_connected(), 0);
    std::string log = log_text();
    EXPECT_TRUE(has_line_like(log, kStamp + ":  ERROR[" + std::to_string(getpid()) +
                                       "]: registry.cpp:@ in load_dbdriver: Can not connect "
                                       "to DB bad of SQLite. Please check settings"))
        << log;
    EXPECT_NE(log.find("Please check settings\n\n"), std::string::npos);
    EXPECT_NE(log.find("Error connecting to " + path + " sqlite db"), std::string::npos) << log;

    // Its first user connects it once the file can be made.
    ASSERT_EQ(mkdir(db("later").c_str(), 0700), 0);
    std::lock_guard<dbdriver_t> guard(*drv);
    ASSERT_NE(drv->is_connected(), 0);
    EXPECT_EQ(drv->reconnect(), 0);
    EXPECT_EQ(drv->is_connected(), 0);
    EXPECT_EQ(drv->query("create table t (a)"), 0);
}

TEST_F(Config, SectionKeysAndOverlongFormats) {
    ASSERT_EQ(reload("[pbx]\ndbdriver = sqlite\ndatabase = " + db("pbx.db") +
                     "\nhost = dbhost\nuser = dbuser\npassword = dbpass\nport = 3307\n"
                     "date_format = %d.%m.%Y %H:%M:%S\ntime_format = %H.%M\n"
                     "[exact]\ndbdriver = sqlite\ndatabase = " +
                     db("exact.db") + "\ndate_format = %Y%m%d-%H%M%S.\n"),
              0);
    dbdriver_ptr drv = find_dbdriver("pbx");
    ASSERT_TRUE(drv);
    EXPECT_STREQ(drv->dateformat, "%d.%m.%Y %H:%M:");
    EXPECT_STREQ(drv->timeformat, "%H.%M");
    EXPECT_EQ(drv->host, "dbhost");
    EXPECT_EQ(drv->user, "dbuser");
    EXPECT_EQ(drv->password, "dbpass");
    EXPECT_EQ(drv->port, 3307);
    EXPECT_EQ(log_lines_with({"WARNING[", "date_format", "pbx"}), 1u) << log_text();

    dbdriver_ptr exact = find_dbdriver("exact");
    ASSERT_TRUE(exact);
    EXPECT_STREQ(exact->dateformat, "%Y%m%d-%H%M%S.");  // 15 characters stay whole
    EXPECT_STREQ(exact->timeformat, "%H:%M:%S");
    EXPECT_EQ(exact->port, 0);
    EXPECT_EQ(log_lines_with({"exact"}), 0u);
}

TEST_F(Config, ReloadMakesFreshRecords) {
    const std::string both = "[pbx]\ndbdriver = sqlite\ndatabase = " + db("pbx.db") +
                             "\n[cdr]\ndbdriver = sqlite\ndatabase = " + db("cdr.db") + "\n";
    ASSERT_EQ(reload(both), 0);
    dbdriver_ptr first = find_dbdriver("pbx");
    dbdriver_ptr first_cdr = find_dbdriver("cdr");
    ASSERT_TRUE(first && first_cdr);

    ASSERT_EQ(reload(both), 0);
    dbdriver_ptr second = find_dbdriver("pbx");
    ASSERT_TRUE(second);
    EXPECT_NE(second, first);
    EXPECT_NE(find_dbdriver("cdr"), first_cdr);

    // A section removed from the file keeps its last record.
    ASSERT_EQ(reload("[pbx]\ndbdriver = sqlite\ndatabase = " + db("pbx2.db") + "\n"), 0);
    ASSERT_TRUE(find_dbdriver("pbx"));
    EXPECT_EQ(find_dbdriver("pbx")->database, db("pbx2.db"));
    EXPECT_TRUE(find_dbdriver("cdr"));
    EXPECT_FALSE(find_dbdriver(nullptr));
    EXPECT_FALSE(find_dbdriver(""));
}

}  // namespace
