#include "rooms/rooms.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cctype>
#include <chrono>
#include <memory>
#include <mutex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "config.h"
#include "db/sqlite.h"
#include "logger.h"
#include "netutil.h"
#include "support.h"
#include "support_slapd.h"

namespace {

using room_set = std::set<std::string>;

// "HH:MM:SS"
bool is_time_of_day(const std::string& text) {
    if (text.size() != 8 || text[2] != ':' || text[5] != ':') return false;
    for (size_t i : {0, 1, 3, 4, 6, 7})
        if (!isdigit(static_cast<unsigned char>(text[i]))) return false;
    return text.compare(0, 2, "24") < 0 && text[3] < '6' && text[6] <= '6';
}

// The internal database opens once per process: one states file and one log
// for the whole program, the table emptied before every test.
struct shared_files {
    temp_dir dir;
    std::string states = dir.file("states.db");
    std::string log = dir.file("orlanbeck.log");
    bool opened = false;

    shared_files() {
        logger_init(log.c_str(), 5, 0, 0);
        opened = open_states_file(states.c_str()) == 0;
    }
};

shared_files& files() {
    static shared_files f;
    return f;
}

class RoomsTest : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_TRUE(files().opened) << "cannot open " << files().states;
        clear_rooms();
        load_config("");
        mark_log();
    }

    static void clear_rooms() {
        std::lock_guard<dbdriver_t> guard(sqliteint);
        EXPECT_EQ(0, sqliteint.query("delete from rooms"));
    }

    // Writes the configuration with `rooms` as its [rooms] section and loads it.
    void load_config(const std::string& rooms) {
        std::string path = dir_.file("orlanbeck.conf");
        write_file(path, "[pms]\nstatesfile = " + files().states + "\n\n[rooms]\n" + rooms);
        ASSERT_EQ(0, load_conf(path.c_str()));
    }

    void load_rooms(const std::string& rooms) {
        load_config(rooms);
        load_rooms_conf();
    }

    // room, ci_date, citime, calls of every row, by room.
    std::vector<std::vector<std::string>> rows() {
        return sqlite_rows(files().states,
                           "select room, ci_date, citime, calls from rooms order by room");
    }

    room_set rooms() {
        room_set out;
        for (auto& row : rows()) out.insert(row[0]);
        return out;
    }

    // Every loaded row carries the time of day in ci_date, an empty citime and
    // no calls.
    void expect_fresh_stamps() {
        for (auto& row : rows()) {
            EXPECT_TRUE(is_time_of_day(row[1])) << row[0] << ": " << row[1];
            EXPECT_EQ("", row[2]) << row[0];
            EXPECT_EQ("0", row[3]) << row[0];
        }
    }

    // The log written since the test began (or since log_mark_ was moved).
    std::string new_log() { return read_file(files().log).substr(log_mark_); }
    void mark_log() { log_mark_ = read_file(files().log).size(); }

    // Whether a new line of `level` holds `text`.
    bool logged(const std::string& level, const std::string& text) {
        return count(level, text) > 0;
    }

    size_t count(const std::string& level, const std::string& text) {
        std::istringstream in(new_log());
        size_t n = 0;
        for (std::string line; std::getline(in, line);)
            if (line.find("  " + level + "[") != std::string::npos &&
                line.find(text) != std::string::npos)
                ++n;
        return n;
    }

    temp_dir dir_;
    size_t log_mark_ = 0;
};

TEST_F(RoomsTest, NumberedKeysLoadEveryRoomWithTheTimeOfDayStamp) {
    load_rooms("room1 = 101\nroom2 = 102\nroom3 = 103\n");
    EXPECT_EQ((room_set{"101", "102", "103"}), rooms());
    expect_fresh_stamps();
}

TEST_F(RoomsTest, ListEndsAtTheFirstMissingNumber) {
    load_rooms("room1 = 101\nroom2 = 102\nroom4 = 104\n");
    EXPECT_EQ((room_set{"101", "102"}), rooms());

    load_rooms("room2 = 202\nroom3 = 203\n");
    EXPECT_EQ((room_set{"101", "102"}), rooms()) << "without room1 nothing is loaded";
}

TEST_F(RoomsTest, TypeChoosesTheSource) {
    load_rooms("type = file\nroom1 = 101\n");
    EXPECT_TRUE(rooms().empty());

    load_rooms("type =\nroom1 = 101\n");
    EXPECT_EQ((room_set{"101"}), rooms());
}

TEST_F(RoomsTest, KnownRoomIsRewrittenWithNoCalls) {
    ASSERT_TRUE(
        sqlite_exec(files().states, "insert into rooms values ('101','2020-01-01','10:00:00',7)"));
    load_rooms("room1 = 101\n");
    ASSERT_EQ(1u, rows().size());
    expect_fresh_stamps();
}

TEST_F(RoomsTest, FailingRoomIsLoggedAndTheRestLoaded) {
    load_rooms("room1 = 1'01\nroom2 = 102\n");
    EXPECT_EQ((room_set{"102"}), rooms());
    EXPECT_NE(std::string::npos, new_log().find("Sqlite query error"));
}

TEST_F(RoomsTest, UnreadableConfigurationLoadsNothingSilently) {
    config_file = dir_.file("missing.conf");
    load_rooms_conf();
    EXPECT_TRUE(rooms().empty());
    EXPECT_EQ("", new_log());
}

// The internal database opens once per process: this case runs in a fresh one
// whose states file cannot be created. Loading stops at the first room.
TEST(RoomsStatesFile, UnopenableStatesFileStopsTheLoad) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    auto load = [] {
        temp_dir dir;
        const std::string log = dir.file("log"), conf = dir.file("orlanbeck.conf");
        const std::string states = dir.file("missing/states.db");
        write_file(conf, "[pms]\nstatesfile = " + states + "\n[rooms]\nroom1 = 101\nroom2 = 102\n");
        logger_init(log.c_str(), 5, 0, 0);
        load_conf(conf.c_str());
        load_rooms_conf();
        const std::string text = read_file(log), line = "Unable to open states file " + states;
        int lines = 0;
        for (size_t pos = text.find(line); pos != std::string::npos; pos = text.find(line, pos + 1))
            ++lines;
        return lines;
    };
    EXPECT_EXIT(exit(load()), ::testing::ExitedWithCode(1), "");
}

// The directory: every entry below is an inetOrgPerson, so that any of them
// may hold room numbers.
//   cn=wing                    (no rooms)
//     cn=deep                  (no rooms)
//       cn=suite               401
//     cn=floor                 301 302 303
const char* const directory_ldif =
    "dn: cn=wing,dc=hotel,dc=test\nobjectClass: inetOrgPerson\ncn: wing\nsn: wing\n\n"
    "dn: cn=deep,cn=wing,dc=hotel,dc=test\nobjectClass: inetOrgPerson\ncn: deep\nsn: deep\n\n"
    "dn: cn=suite,cn=deep,cn=wing,dc=hotel,dc=test\nobjectClass: inetOrgPerson\ncn: suite\n"
    "sn: suite\nroomNumber: 401\n\n"
    "dn: cn=floor,cn=wing,dc=hotel,dc=test\nobjectClass: inetOrgPerson\ncn: floor\nsn: floor\n"
    "roomNumber: 301\nroomNumber: 302\nroomNumber: 303\n";

const char* const wing = "cn=wing,dc=hotel,dc=test";
const char* const with_rooms = "(roomNumber=*)";

class RoomsLdapTest : public RoomsTest {
  protected:
    static void SetUpTestSuite() {
        server_ = std::make_unique<slapd_server>();
        if (server_->start()) server_->add(directory_ldif);
        server_error_ = server_->error();
    }

    static void TearDownTestSuite() { server_.reset(); }

    void SetUp() override {
        RoomsTest::SetUp();
        ASSERT_EQ("", server_error_) << "the test directory server is not available";
    }

    // The [rooms] section for the test server, after `head` lines.
    static std::string ldap_section(const std::string& head) {
        return head + "ldap_host = 127.0.0.1\nldap_port = " + std::to_string(server_->port()) +
               "\n";
    }

    static int search(const char* scope, const char* filter = with_rooms, const char* base = wing) {
        return load_rooms_ldap("127.0.0.1", server_->port(), 3, 0, slapd_server::admin_dn,
                               slapd_server::admin_password, base, scope, filter, "roomNumber");
    }

    static std::unique_ptr<slapd_server> server_;
    static std::string server_error_;
};

std::unique_ptr<slapd_server> RoomsLdapTest::server_;
std::string RoomsLdapTest::server_error_;

TEST_F(RoomsLdapTest, DirectoryTypeLoadsEveryValueOfTheFirstEntry) {
    const std::string search_keys =
        "ldap_version = 3\nldap_base = cn=wing,dc=hotel,dc=test\nldap_scope = one\n"
        "ldap_filter = (roomNumber=*)\nldap_attribute = roomNumber\n";
    const std::string admin = std::string("ldap_user = ") + slapd_server::admin_dn +
                              "\nldap_pass = " + slapd_server::admin_password + "\n";
    for (const char* type : {"LDAP", "ldap", "Ldap", "ldapv3"}) {
        SCOPED_TRACE(type);
        clear_rooms();
        // One of them binds anonymously.
        std::string user = std::string(type) == "ldap" ? "" : admin;
        load_rooms(ldap_section(std::string("type = ") + type + "\n") + search_keys + user);
        EXPECT_EQ((room_set{"301", "302", "303"}), rooms());
        expect_fresh_stamps();
    }
    EXPECT_FALSE(logged("ERROR", "LDAP")) << new_log();
}

// Two searches per scope text tell the three scopes apart whatever order the
// server returns entries in: one finds only cn=suite (two levels down), the
// other only cn=floor (one level down); neither matches cn=wing itself.
TEST_F(RoomsLdapTest, ScopeFollowsTheLeadingCharactersOnly) {
    struct outcome {
        int result;
        room_set loaded;
    };
    const outcome suite = {0, {"401"}}, floor = {0, {"301", "302", "303"}}, none = {-4, {}};
    struct scope_case {
        const char* scope;
        outcome two_down, one_down;
    };
    const scope_case cases[] = {
        {"sub", suite, floor},     {"subtree", suite, floor}, {"one", none, floor},
        {"onelevel", none, floor}, {"base", none, none},      {"Base", suite, floor},
        {"xyz", suite, floor},     {nullptr, suite, floor},
    };
    auto check = [&](const char* scope, const char* filter, const outcome& expected) {
        SCOPED_TRACE(std::string(scope ? scope : "(absent)") + " " + filter);
        clear_rooms();
        EXPECT_EQ(expected.result, search(scope, filter));
        EXPECT_EQ(expected.loaded, rooms());
    };
    for (const scope_case& c : cases) {
        check(c.scope, "(roomNumber=4*)", c.two_down);
        check(c.scope, "(roomNumber=3*)", c.one_down);
    }

    // Both match: only the first entry returned is used.
    clear_rooms();
    EXPECT_EQ(0, search("sub", with_rooms));
    room_set loaded = rooms();
    EXPECT_TRUE(loaded == suite.loaded || loaded == floor.loaded) << loaded.size();
}

TEST_F(RoomsLdapTest, FailedBindLoadsNothingAndStartUpGoesOn) {
    const std::string search_keys =
        "ldap_base = cn=wing,dc=hotel,dc=test\nldap_filter = (roomNumber=*)\n"
        "ldap_attribute = roomNumber\n";
    load_rooms(ldap_section("type = ldap\nldap_version = 3\n") + search_keys +
               "ldap_user = " + slapd_server::admin_dn + "\nldap_pass = wrong\n");
    EXPECT_TRUE(logged("WARNING", "LDAPget: bind failed: Invalid credentials")) << new_log();

    // The default protocol version is 2, which this server refuses.
    load_rooms(ldap_section("type = ldap\n") + search_keys);
    EXPECT_TRUE(logged("WARNING", "LDAPget: bind failed: Protocol error")) << new_log();

    // Nothing listens on this port.
    load_rooms("type = ldap\nldap_host = 127.0.0.1\nldap_version = 3\nldap_port = " +
               std::to_string(pick_free_port()) + "\n" + search_keys);
    EXPECT_TRUE(logged("WARNING", "LDAPget: bind failed: Can't contact LDAP server")) << new_log();

    EXPECT_TRUE(rooms().empty());
    EXPECT_EQ(3u, count("ERROR", "LDAP rooms load failure")) << new_log();
}

TEST_F(RoomsLdapTest, SearchWithoutResultLoadsNothing) {
    load_rooms(ldap_section("type = ldap\nldap_version = 3\n") +
               "ldap_base = cn=wing,dc=hotel,dc=test\nldap_filter = (cn=nobody)\n"
               "ldap_attribute = roomNumber\n");
    EXPECT_TRUE(logged("WARNING", "LDAPget: Value not found in directory.")) << new_log();
    EXPECT_TRUE(logged("ERROR", "LDAP rooms load failure")) << new_log();

    EXPECT_EQ(-3, search("sub", with_rooms, "dc=elsewhere,dc=test"));
    EXPECT_TRUE(logged("DEBUG", "LDAPget: search failed: No such object")) << new_log();

    // An entry without the attribute: refused without a line of its own.
    mark_log();
    EXPECT_EQ(-5, search("sub", "(cn=deep)"));
    EXPECT_EQ("", new_log());
    EXPECT_TRUE(rooms().empty());
}

TEST_F(RoomsLdapTest, IncompleteSettingsAreRefusedWithoutContactingTheServer) {
    const std::string keys = ldap_section("type = ldap\nldap_version = 3\n");
    for (const char* missing : {"ldap_base", "ldap_filter", "ldap_attribute"}) {
        SCOPED_TRACE(missing);
        std::string section = keys;
        if (std::string(missing) != "ldap_base")
            section += "ldap_base = cn=wing,dc=hotel,dc=test\n";
        if (std::string(missing) != "ldap_filter") section += "ldap_filter = (roomNumber=*)\n";
        if (std::string(missing) != "ldap_attribute") section += "ldap_attribute = roomNumber\n";
        mark_log();
        load_rooms(section + "ldap_user = cn=admin,dc=hotel,dc=test\nldap_pass = wrong\n");
        EXPECT_TRUE(logged("ERROR", "LDAP rooms load failure")) << new_log();
        EXPECT_EQ(std::string::npos, new_log().find("bind failed")) << new_log();
    }
    EXPECT_TRUE(rooms().empty());
}

TEST_F(RoomsTest, SilentDirectoryServerIsGivenUpInBoundedTime) {
    int port = 0;
    int fd = listen_loopback(0, &port);  // accepts connections and never answers
    ASSERT_GE(fd, 0);
    auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(-2, load_rooms_ldap("127.0.0.1", port, 3, 0, nullptr, nullptr, wing, "sub",
                                  with_rooms, "roomNumber"));
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(60));
    EXPECT_TRUE(logged("WARNING", "LDAPget: bind failed: Timed out")) << new_log();
    close(fd);
}

}  // namespace
