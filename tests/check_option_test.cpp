// `orlanbeck -t`: the configuration check names each problem with its key,
// exits 0 only for a usable file, and starts nothing.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "netutil.h"
#include "support.h"

namespace {

struct check_result {
    int status;
    std::string output;
};

check_result check(const temp_dir& dir, const std::string& options, const std::string& conf) {
    child_process proc;
    const std::string script = "cd '" + dir.path() + "' && exec '" + orlanbeck_binary() + "' " +
                               options + " -c '" + conf + "'";
    EXPECT_TRUE(proc.start({"/bin/sh", "-c", script}));
    const int status = proc.wait_exit();
    return {status, proc.output()};
}

TEST(CheckOption, TheSampleConfigurationIsUsableAndNothingIsCreated) {
    temp_dir dir;
    mkdir(dir.file("run").c_str(), 0755);
    check_result r = check(dir, "-t", source_dir() + "/etc/orlanbeck.conf");
    EXPECT_EQ(0, r.status) << r.output;
    EXPECT_NE(std::string::npos, r.output.find("orlanbeck.conf: usable")) << r.output;
    for (const char* file : {"run/orlanbeck.db", "run/pbx.db", "run/orlanbeck.log"})
        EXPECT_NE(0, access(dir.file(file).c_str(), F_OK)) << file;
}

TEST(CheckOption, EveryProblemIsNamedWithItsKey) {
    temp_dir dir;
    const int port = pick_free_port();
    write_file(dir.file("bad.conf"),
               "[fixes]\nbogus = yes\nmysql = yes\n"
               "[pms]\nstatesfile = " +
                   dir.file("states.db") +
                   "\n"
                   "[pbx]\ndbdriver = sqlite\ndatabase = " +
                   dir.file("pbx.db") +
                   "\n"
                   "[crm]\ndbdriver = mysql\nhost = 127.0.0.1\nport = " +
                   std::to_string(port) +
                   "\n[old]\ndbdriver = oracle\n"
                   "[services]\ncheckin = pbx update sippeers set callerid='%name%'\n"
                   "checkout = pbx:update sippeers set callerid='%nope%'\n"
                   "bareon = nodb:update x set barred=1\n"
                   "cdr_use_manager = yes\nbillcalls = pbx:select 1\n");
    check_result r = check(dir, "--test-config", dir.file("bad.conf"));
    EXPECT_EQ(1, r.status);
    for (const char* text :
         {"Unknown key \"bogus\" in [fixes]", "services:checkin = \"pbx update",
          "services:checkout has an unknown placeholder at \"%nope%",
          "services:bareon names the database \"nodb\", which no section defines",
          "services:billcalls is never run", "[old] dbdriver = oracle is no known driver",
          "bad.conf: 6 problems"})
        EXPECT_NE(std::string::npos, r.output.find(text)) << text << "\n" << r.output;
    EXPECT_EQ(std::string::npos, r.output.find("Can not connect")) << r.output;
    EXPECT_NE(0, access(dir.file("states.db").c_str(), F_OK));

    r = check(dir, "-tt", dir.file("bad.conf"));
    EXPECT_EQ(1, r.status);
    EXPECT_NE(std::string::npos, r.output.find("Can not connect to DB crm of mysql")) << r.output;
    EXPECT_NE(0, access(dir.file("states.db").c_str(), F_OK));
}

}  // namespace
