// The status endpoint ([status] listen), end to end: metrics and health
// while calls are posted across a lost link.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <set>

#include "support_daemon.h"

using namespace std::chrono_literals;

namespace {

// The value of the series `name` (with its labels as written) in a scrape.
double value_of(const std::string& scrape, const std::string& name) {
    for (const std::string& line : lines_of(scrape))
        if (line.compare(0, name.size() + 1, name + " ") == 0)
            return strtod(line.c_str() + name.size() + 1, nullptr);
    return -1;
}

TEST(Status, MetricsAndHealthFollowPostingsAndTheLink) {
    daemon_run run;
    const int port = pick_free_port();
    run.set("fixes", "all", "yes").set("status", "listen", std::to_string(port));
    run.use_manager();
    run.set("rooms", "room1", "101");
    ASSERT_TRUE(run.start()) << run.log();
    ASSERT_TRUE(wait_until([&] { return http_get(port, "/health").first == 200; }))
        << http_get(port, "/health").second;
    // A scraper that asks and never reads, and one that never asks, hold
    // nothing but their own connections.
    const int idle = connect_loopback(port);
    const int asking = connect_loopback(port);
    ASSERT_EQ(4, write(asking, "GET ", 4));

    auto call = [&](int i) {
        char start[32];
        snprintf(start, sizeof start, "2026-11-24 10:00:%02d", i);
        return run.mgr.send_cdr(mgr_cdr_event::make("101", "05550" + std::to_string(i), start, 60));
    };
    auto accepted = [&] {
        return value_of(http_get(port, "/metrics").second, "orlanbeck_postings_accepted_total");
    };
    for (int i = 0; i < 5; ++i) ASSERT_EQ(1, call(i));
    ASSERT_TRUE(wait_until([&] { return accepted() == 5; })) << run.log();
    // Label values from outside: record types that are not two of A-Z and
    // 0-9 count as "other"; an event name is escaped and made valid UTF-8.
    for (const char* r : {"\xc3\xa9|RN1|", "a\"|RN1|", "\xff|RN1|"})
        ASSERT_TRUE(run.pms.send_record(r));
    ASSERT_EQ(1, run.mgr.send_raw("Event: Odd\"\\\xff\r\nPrivilege: user,all\r\n\r\n"));
    ASSERT_TRUE(wait_until([&] {
        const std::string m = http_get(port, "/metrics").second;
        return value_of(m, "orlanbeck_fias_records_received_total{type=\"other\"}") == 3 &&
               value_of(m, "orlanbeck_manager_events_total{event=\"Odd\\\"\\\\\xef\xbf\xbd\"}") ==
                   1;
    })) << http_get(port, "/metrics").second;
    const double starts =
        value_of(http_get(port, "/metrics").second, "orlanbeck_pms_link_starts_total");

    run.pms.stop();  // the link is down until the PMS is back
    ASSERT_TRUE(wait_until([&] { return http_get(port, "/health").first == 503; }));
    EXPECT_EQ("PMS link not active\n", http_get(port, "/health").second);
    for (int i = 5; i < 10; ++i) ASSERT_EQ(1, call(i));
    ASSERT_TRUE(run.pms.start());
    ASSERT_TRUE(run.pms.wait_link_active(15s));
    std::string scrape;
    ASSERT_TRUE(wait_until([&] {
        scrape = http_get(port, "/metrics").second;
        return value_of(scrape, "orlanbeck_postings_accepted_total") == 10 &&
               value_of(scrape, "orlanbeck_calls_waiting") == 0 &&
               value_of(scrape, "orlanbeck_postings_unanswered") == 0;
    })) << scrape;
    EXPECT_EQ(starts + 1, value_of(scrape, "orlanbeck_pms_link_starts_total"));
    EXPECT_EQ(1, value_of(scrape, "orlanbeck_pms_link_up"));
    EXPECT_EQ(1, value_of(scrape, "orlanbeck_manager_up"));
    EXPECT_EQ(10, value_of(scrape, "orlanbeck_calls_cached_total"));
    EXPECT_EQ(200, http_get(port, "/health").first);
    close(idle);
    close(asking);

    // The scrape is valid Prometheus text.
    if (access("/usr/bin/promtool", X_OK) == 0) {
        const std::string file = run.dir().file("scrape.txt");
        write_file(file, scrape);
        EXPECT_EQ(0, system(("promtool check metrics < " + file + " > /dev/null 2>&1").c_str()))
            << scrape;
    }

    // A reload that changes the address moves the endpoint.
    const int moved = pick_free_port();
    run.set("status", "listen", "127.0.0.1:" + std::to_string(moved)).write_config();
    run.process().signal(SIGHUP);
    ASSERT_TRUE(wait_until([&] { return http_get(moved, "/health").first == 200; })) << run.log();
    EXPECT_EQ(0, http_get(port, "/health").first);

    // Only the address named is listened on.
    const int other = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in sin{};
    sin.sin_family = AF_INET;
    sin.sin_port = htons(static_cast<uint16_t>(moved));
    inet_pton(AF_INET, "127.0.0.2", &sin.sin_addr);
    EXPECT_NE(0, connect(other, reinterpret_cast<sockaddr*>(&sin), sizeof sin));
    close(other);
}

// The TCP ports that process `pid` listens on.
std::vector<int> listening_ports(pid_t pid) {
    std::set<std::string> sockets;  // inodes
    const std::string fds = "/proc/" + std::to_string(pid) + "/fd";
    for (int fd = 0; fd < 1024; ++fd) {
        char target[64] = "";
        const ssize_t n =
            readlink((fds + "/" + std::to_string(fd)).c_str(), target, sizeof target - 1);
        if (n > 8 && std::string(target, 8) == "socket:[")
            sockets.insert(std::string(target + 8, static_cast<size_t>(n) - 9));
    }
    std::vector<int> ports;
    for (const char* table : {"/proc/net/tcp", "/proc/net/tcp6"})
        for (const std::string& line : lines_of(read_file(table))) {
            char local[64], remote[64], state[8];
            unsigned long inode = 0;
            if (sscanf(line.c_str(), "%*d: %63s %63s %7s %*s %*s %*s %*s %*s %lu", local, remote,
                       state, &inode) == 4 &&
                std::string(state) == "0A" && sockets.count(std::to_string(inode)))
                ports.push_back(static_cast<int>(strtol(strchr(local, ':') + 1, nullptr, 16)));
        }
    return ports;
}

TEST(Status, WithoutTheSectionNothingListens) {
    daemon_run run;
    ASSERT_TRUE(run.start()) << run.log();
    EXPECT_TRUE(listening_ports(run.process().pid()).empty());
    EXPECT_EQ(std::string::npos, run.log().find("Status endpoint"));
}

}  // namespace
