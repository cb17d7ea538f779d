// The room registry: numbered keys of the configuration, and an LDAP
// directory served by a private slapd.
#include "rooms/rooms.h"

#include <gtest/gtest.h>

#include <memory>
#include <mutex>
#include <set>
#include <string>

#include "config.h"
#include "logger.h"
#include "netutil.h"
#include "states/states.h"
#include "support.h"
#include "support_slapd.h"

namespace {

using room_set = std::set<std::string>;

// The states file opens once per process: one states file and one log
// for the whole program, the table emptied before every test.
struct shared_files {
    temp_dir dir;
    std::string states = dir.file("states.db");
    std::string log = dir.file("orlanbeck.log");
    bool opened = (logger_init(log.c_str(), 5, 0, 0), open_states_file(states) == 0);
};

shared_files& files() {
    static shared_files f;
    return f;
}

class RoomsTest : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_TRUE(files().opened) << "cannot open " << files().states;
        ClearRooms();
        log_mark_ = read_file(files().log).size();
    }
    static void ClearRooms() { ASSERT_TRUE(sqlite_exec(files().states, "delete from rooms")); }

    // Loads the rooms with `rooms` as the [rooms] section of the configuration.
    void Load(const std::string& rooms) {
        std::string path = dir_.file("orlanbeck.conf");
        write_file(path, "[rooms]\n" + rooms);
        config cfg;
        ASSERT_TRUE(parse_config_file(path, cfg));
        load_rooms_conf(cfg.rooms, files().states);
    }
    // The rooms loaded; every row must carry the time of day in ci_date, an
    // empty citime and no calls.
    room_set Rooms() {
        room_set out;
        for (auto& row :
             sqlite_rows(files().states, "select room, ci_date, citime, calls from rooms")) {
            out.insert(row[0]);
            EXPECT_TRUE(like("##:##:##", row[1])) << row[0] << ": " << row[1];
            EXPECT_EQ("", row[2]) << row[0];
            EXPECT_EQ("0", row[3]) << row[0];
        }
        return out;
    }
    // How many lines of `level` written since the test began hold `text`.
    size_t Logged(const std::string& level, const std::string& text) {
        size_t n = 0;
        for (const std::string& line : lines_of(read_file(files().log).substr(log_mark_)))
            n += line.find("  " + level + "[") != std::string::npos &&
                 line.find(text) != std::string::npos;
        return n;
    }

    temp_dir dir_;
    size_t log_mark_ = 0;
};

TEST_F(RoomsTest, NumberedKeysLoadUntilTheFirstGap) {
    ASSERT_TRUE(
        sqlite_exec(files().states, "insert into rooms values ('101','2020-01-01','10:00:00',7)"));
    Load("room1 = 101\nroom2 = 102\nroom4 = 104\n");
    EXPECT_EQ((room_set{"101", "102"}), Rooms());  // 101 rewritten with no calls

    ClearRooms();
    Load("type = file\nroom1 = 101\n");
    EXPECT_EQ(room_set{}, Rooms());
}

// Every entry is an inetOrgPerson, so that any of them may hold room numbers:
//   cn=wing           (no rooms)
//     cn=deep         (no rooms)
//       cn=suite      401
//     cn=floor        301 302 303
const char* const directory_ldif =
    "dn: cn=wing,dc=hotel,dc=test\nobjectClass: inetOrgPerson\ncn: wing\nsn: wing\n\n"
    "dn: cn=deep,cn=wing,dc=hotel,dc=test\nobjectClass: inetOrgPerson\ncn: deep\nsn: deep\n\n"
    "dn: cn=suite,cn=deep,cn=wing,dc=hotel,dc=test\nobjectClass: inetOrgPerson\ncn: suite\n"
    "sn: suite\nroomNumber: 401\n\n"
    "dn: cn=floor,cn=wing,dc=hotel,dc=test\nobjectClass: inetOrgPerson\ncn: floor\nsn: floor\n"
    "roomNumber: 301\nroomNumber: 302\nroomNumber: 303\n";

class RoomsLdapTest : public RoomsTest {
  protected:
    static void SetUpTestSuite() {
        server_ = std::make_unique<slapd_server>();
        if (server_->start()) server_->add(directory_ldif);
    }
    static void TearDownTestSuite() { server_.reset(); }
    void SetUp() override {
        RoomsTest::SetUp();
        ASSERT_EQ("", server_->error()) << "the test directory server is not available";
    }

    // A [rooms] section for the test server; `extra` goes last.
    static std::string Section(const std::string& type, const std::string& filter,
                               const std::string& extra = "", int port = 0) {
        return "type = " + type + "\nldap_host = 127.0.0.1\nldap_port = " +
               std::to_string(port ? port : server_->port()) +
               "\nldap_version = 3\nldap_base = cn=wing,dc=hotel,dc=test\nldap_scope = one\n"
               "ldap_filter = " +
               filter + "\nldap_attribute = roomNumber\n" + extra;
    }
    static int Search(const char* scope, const char* filter, const char* password,
                      const char* base = "cn=wing,dc=hotel,dc=test",
                      const char* attribute = "roomNumber") {
        return load_rooms_ldap("127.0.0.1", server_->port(), 3, 0, slapd_server::admin_dn, password,
                               base, scope, filter, attribute, files().states);
    }

    static std::unique_ptr<slapd_server> server_;
};

std::unique_ptr<slapd_server> RoomsLdapTest::server_;

TEST_F(RoomsLdapTest, DirectoryTypeInAnyCaseLoadsEveryValueOfTheFirstEntry) {
    const std::string admin = std::string("ldap_user = ") + slapd_server::admin_dn +
                              "\nldap_pass = " + slapd_server::admin_password + "\n";
    for (const char* type : {"ldap", "LDAP", "Ldapv3"}) {
        SCOPED_TRACE(type);
        ClearRooms();
        Load(Section(type, "(roomNumber=*)", type[0] == 'l' ? "" : admin));  // one anonymous
        EXPECT_EQ((room_set{"301", "302", "303"}), Rooms());
    }
    EXPECT_EQ(0u, Logged("ERROR", "LDAP"));
}

TEST_F(RoomsLdapTest, FailuresAreLoggedAndLoadNothing) {
    Load(Section("ldap", "(roomNumber=*)",
                 std::string("ldap_user = ") + slapd_server::admin_dn + "\nldap_pass = wrong\n"));
    EXPECT_EQ(1u, Logged("WARNING", "LDAPget: bind failed: Invalid credentials"));
    Load(Section("ldap", "(roomNumber=*)", "", pick_free_port()));  // nothing listens there
    EXPECT_EQ(1u, Logged("WARNING", "LDAPget: bind failed: Can't contact LDAP server"));
    Load(Section("ldap", "(cn=nobody)"));
    EXPECT_EQ(1u, Logged("WARNING", "LDAPget: Value not found in directory."));
    EXPECT_EQ(3u, Logged("ERROR", "LDAP rooms load failure"));

    const char* pass = slapd_server::admin_password;
    EXPECT_EQ(-5, Search("sub", "(cn=deep)", pass));  // an entry without the attribute
    // Incomplete settings are refused before the server is asked (which
    // would refuse the password: -2).
    EXPECT_EQ(-1, Search("sub", "(roomNumber=*)", "wrong", nullptr));
    EXPECT_EQ(-1, Search("sub", nullptr, "wrong"));
    EXPECT_EQ(-1, Search("sub", "(roomNumber=*)", "wrong", "cn=wing,dc=hotel,dc=test", nullptr));
    EXPECT_EQ(room_set{}, Rooms());
}

// Two searches per scope text tell the scopes apart whatever order the server
// returns entries in: one finds only cn=suite (two levels down), the other
// only cn=floor (one level down); neither matches cn=wing itself.
TEST_F(RoomsLdapTest, ScopeFollowsTheLeadingCharactersOnly) {
    const room_set suite = {"401"}, floor = {"301", "302", "303"}, none = {};
    const struct {
        const char* scope;
        room_set two_down, one_down;
    } cases[] = {
        {"sub", suite, floor},  {"one", none, floor},  {"base", none, none},
        {"Base", suite, floor}, {"xyz", suite, floor}, {nullptr, suite, floor},
    };
    for (const auto& c : cases) {
        for (const auto& [filter, expected] :
             {std::pair{"(roomNumber=4*)", c.two_down}, std::pair{"(roomNumber=3*)", c.one_down}}) {
            SCOPED_TRACE(std::string(c.scope ? c.scope : "(absent)") + " " + filter);
            ClearRooms();
            EXPECT_EQ(expected.empty() ? -4 : 0,
                      Search(c.scope, filter, slapd_server::admin_password));
            EXPECT_EQ(expected, Rooms());
        }
    }
    // Both match: only the first entry returned is used.
    ClearRooms();
    EXPECT_EQ(0, Search("sub", "(roomNumber=*)", slapd_server::admin_password));
    room_set loaded = Rooms();
    EXPECT_TRUE(loaded == suite || loaded == floor) << loaded.size();
}

}  // namespace
