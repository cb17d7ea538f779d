// `orlanbeck -t`: the configuration check names each problem with its key,
// exits 0 only for a usable file, and starts nothing.
#include <gtest/gtest.h>
#include <unistd.h>

#include "netutil.h"
#include "support.h"

namespace {

// Runs "orlanbeck <options> -c <conf>" in `dir`: its exit status and output.
std::pair<int, std::string> check(const temp_dir& dir, const std::string& options,
                                  const std::string& conf) {
    child_process proc;
    EXPECT_TRUE(proc.start({"/bin/sh", "-c",
                            "cd '" + dir.path() + "' && exec '" + orlanbeck_binary() + "' " +
                                options + " -c '" + conf + "'"}));
    const int status = proc.wait_exit();
    return {status, proc.output()};
}

TEST(CheckOption, TheSampleIsUsableAndEveryProblemIsNamedWithItsKey) {
    temp_dir dir;
    auto [status, output] = check(dir, "-t", source_dir() + "/etc/orlanbeck.conf");
    EXPECT_EQ(0, status) << output;
    EXPECT_NE(std::string::npos, output.find("orlanbeck.conf: usable")) << output;

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
    std::tie(status, output) = check(dir, "--test-config", dir.file("bad.conf"));
    EXPECT_EQ(1, status);
    for (const char* text :
         {"Unknown key \"bogus\" in [fixes]", "services:checkin = \"pbx update",
          "services:checkout has an unknown placeholder at \"%nope%",
          "services:bareon names the database \"nodb\", which no section defines",
          "services:billcalls is never run", "[old] dbdriver = oracle is no known driver",
          "bad.conf: 6 problems"})
        EXPECT_NE(std::string::npos, output.find(text)) << text << "\n" << output;
    EXPECT_EQ(std::string::npos, output.find("Can not connect")) << output;
    EXPECT_NE(0, access(dir.file("states.db").c_str(), F_OK));

    std::tie(status, output) = check(dir, "-tt", dir.file("bad.conf"));
    EXPECT_EQ(1, status);
    EXPECT_NE(std::string::npos, output.find("Can not connect to DB crm of mysql")) << output;
    EXPECT_NE(0, access(dir.file("states.db").c_str(), F_OK));
}

}  // namespace
