// The room registry: numbered keys of the configuration, and an LDAP
// directory served by a private slapd.
#include "rooms/rooms.h"

#include <gtest/gtest.h>

#include <memory>
#include <set>

#include "config.h"
#include "logger.h"
#include "netutil.h"
#include "states/states.h"
#include "support.h"
#include "support_slapd.h"

namespace {

using room_set = std::set<std::string>;
const char* const admin_pass = slapd_server::admin_password;

// The states file opens once per process: one states file and one log for
// the whole program, the table emptied before every test.
temp_dir suite_dir;
const std::string states_path = suite_dir.file("states.db"), log_path = suite_dir.file("log");
states_file states;

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

class Rooms : public ::testing::Test {
  protected:
    static void SetUpTestSuite() {
        logger_init(log_path.c_str(), 5, 0, 0);
        ASSERT_EQ(0, states.open(states_path));
        server_ = std::make_unique<slapd_server>();
        if (server_->start()) server_->add(directory_ldif);
    }
    static void TearDownTestSuite() { server_.reset(); }
    void SetUp() override {
        ASSERT_EQ("", server_->error()) << "the test directory server is not available";
        Clear();
        log_mark_ = read_file(log_path).size();
    }
    static void Clear() { ASSERT_TRUE(sqlite_exec(states_path, "delete from rooms")); }

    // Loads the rooms with `rooms` as the [rooms] section of the configuration.
    void Load(const std::string& rooms) {
        write_file(dir_.file("orlanbeck.conf"), "[rooms]\n" + rooms);
        config cfg;
        ASSERT_TRUE(parse_config_file(dir_.file("orlanbeck.conf"), cfg));
        load_rooms_conf(cfg.rooms, states);
    }
    // A [rooms] section for the test server; `extra` goes last.
    static std::string Ldap(const std::string& type, const std::string& filter,
                            const std::string& extra = "", int port = 0) {
        return "type = " + type + "\nldap_host = 127.0.0.1\nldap_port = " +
               std::to_string(port ? port : server_->port()) +
               "\nldap_version = 3\nldap_base = cn=wing,dc=hotel,dc=test\nldap_scope = one\n"
               "ldap_filter = " +
               filter + "\nldap_attribute = roomNumber\n" + extra;
    }
    static int Search(const char* scope, const char* filter, const char* password) {
        return load_rooms_ldap("127.0.0.1", server_->port(), 3, 0, slapd_server::admin_dn, password,
                               "cn=wing,dc=hotel,dc=test", scope, filter, "roomNumber", states);
    }
    room_set Loaded() {
        room_set out;
        for (auto& row : sqlite_rows(states_path, "select room from rooms")) out.insert(row[0]);
        return out;
    }
    // How many lines of `level` written since the test began hold `text`.
    size_t Logged(const std::string& level, const std::string& text) {
        size_t n = 0;
        for (const std::string& line : lines_of(read_file(log_path).substr(log_mark_)))
            n += line.find("  " + level + "[") != std::string::npos &&
                 line.find(text) != std::string::npos;
        return n;
    }

    static inline std::unique_ptr<slapd_server> server_;
    temp_dir dir_;
    size_t log_mark_ = 0;
};

TEST_F(Rooms, NumberedKeysUntilTheFirstGapOrTheDirectoryOfTypeLdapInAnyCase) {
    ASSERT_TRUE(
        sqlite_exec(states_path, "insert into rooms values ('101','2020-01-01','10:00:00',7)"));
    Load("room1 = 101\nroom2 = 102\nroom4 = 104\n");
    EXPECT_EQ((room_set{"101", "102"}), Loaded());
    EXPECT_EQ((std::vector<std::vector<std::string>>{{"0", ""}}),
              sqlite_rows(states_path, "select calls, citime from rooms where room='101'"));
    Clear();
    Load("type = file\nroom1 = 101\n");
    EXPECT_EQ(room_set{}, Loaded());

    // Every value of the first entry, with an anonymous bind or the admin's.
    Load(Ldap("ldap", "(roomNumber=*)"));
    EXPECT_EQ((room_set{"301", "302", "303"}), Loaded());
    Clear();
    Load(Ldap("LDAPv3", "(roomNumber=*)",
              std::string("ldap_user = ") + slapd_server::admin_dn + "\nldap_pass = " + admin_pass +
                  "\n"));
    EXPECT_EQ((room_set{"301", "302", "303"}), Loaded());
    EXPECT_EQ(0u, Logged("ERROR", "LDAP"));
}

// A search for "(roomNumber=4*)" finds only cn=suite (two levels down), one
// for "(roomNumber=3*)" only cn=floor (one level down); neither matches the
// base cn=wing itself. So the scopes tell apart whatever order entries come in.
TEST_F(Rooms, ScopeFollowsTheLeadingCharactersOnlyAndFailuresLoadNothing) {
    const std::pair<const char*, std::string> cases[] = {
        {"sub", "43"}, {"one", "3"}, {"base", ""}, {"Base", "43"}, {nullptr, "43"}};
    for (const auto& [scope, found] : cases) {
        std::string got;
        for (std::string digit : {"4", "3"})
            if (Search(scope, ("(roomNumber=" + digit + "*)").c_str(), admin_pass) == 0)
                got += digit;
        EXPECT_EQ(found, got) << (scope ? scope : "(absent)");
    }
    Clear();

    // Failures are logged and load nothing.
    log_mark_ = read_file(log_path).size();
    Load(Ldap("ldap", "(roomNumber=*)",
              std::string("ldap_user = ") + slapd_server::admin_dn + "\nldap_pass = wrong\n"));
    EXPECT_EQ(1u, Logged("WARNING", "LDAPget: bind failed: Invalid credentials"));
    Load(Ldap("ldap", "(roomNumber=*)", "", pick_free_port()));  // nothing listens there
    EXPECT_EQ(1u, Logged("WARNING", "LDAPget: bind failed: Can't contact LDAP server"));
    Load(Ldap("ldap", "(cn=nobody)"));
    EXPECT_EQ(1u, Logged("WARNING", "LDAPget: Value not found in directory."));
    EXPECT_EQ(3u, Logged("ERROR", "LDAP rooms load failure"));

    EXPECT_EQ(-5, Search("sub", "(cn=deep)", admin_pass));  // an entry without the attribute
    EXPECT_EQ(room_set{}, Loaded());
}

}  // namespace
