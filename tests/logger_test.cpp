// The logger: threshold, line format, destinations, truncation and
// concurrent writers.
#include "logger.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cctype>
#include <ctime>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "support.h"

namespace {





std::string pid_text() {
    return std::to_string(getpid());
}

// What the logger prints before logger_init(), taken before main() runs any
// test (the initial settings are process-wide).
struct before_init_output {
    std::string text;
    before_init_output() {
        temp_dir dir;
        fd_capture cap(2, dir.file("stderr"));
        write_log(L_WARNING, "early.cpp", 1, "early", "early warning");
        write_log(L_ERROR, "early.cpp", 2, "early", "early error");
        text = cap.finish();
    }
};
const before_init_output early;

class Logger : public ::testing::Test {
  protected:
    void TearDown() override { logger_init(nullptr, 1, 0, 0); }

    std::string log_path() const { return dir_.file("test.log"); }
    std::string log_text() const { return read_file(log_path()); }
    void init(int level, int disable = 0) { logger_init(log_path().c_str(), level, 0, disable); }

    // Writes one message of every level 0-5, each naming its level.
    void write_all_levels() {
        for (int level = 0; level <= 5; ++level)
            write_log(level, "f.cpp", 1, "fn", "message of level %d", level);
    }
    std::vector<int> levels_written() const {
        std::vector<int> found;
        for (int level = 0; level <= 5; ++level)
            if (log_text().find("message of level " + std::to_string(level)) != std::string::npos)
                found.push_back(level);
        return found;
    }

    temp_dir dir_;
};

TEST_F(Logger, BeforeInitOnlyErrorsAndAboveGoToStandardError) {
    EXPECT_EQ(early.text.find("early warning"), std::string::npos) << early.text;
    EXPECT_NE(early.text.find("early error"), std::string::npos) << early.text;
}

TEST_F(Logger, ThresholdDecidesWhichLevelsAreWritten) {
    init(5);
    write_all_levels();
    EXPECT_EQ(levels_written(), (std::vector<int>{0, 1, 2, 3, 4, 5}));

    write_file(log_path(), "");
    init(1);
    write_all_levels();
    EXPECT_EQ(levels_written(), (std::vector<int>{4, 5}));

    write_file(log_path(), "");
    init(0);
    write_all_levels();
    EXPECT_EQ(levels_written(), (std::vector<int>{5}));

    write_file(log_path(), "");
    init(5);
    set_log_level(2);
    write_all_levels();
    EXPECT_EQ(levels_written(), (std::vector<int>{3, 4, 5}));
}

TEST_F(Logger, LineFormatOfNormalLevelsAndVerbose) {
    init(5);
    time_t before = time(nullptr);
    write_log(L_WARNING, "room.cpp", 42, "do_checkin", "Room %s, %d calls", "101", 3);
    write_log(L_VERBOSE, "room.cpp", 43, "do_checkin", "plain %s", "text");
    write_log(L_DEBUG, "a.cpp", 7, "f", "debug");
    write_log(L_EVENT, "a.cpp", 7, "f", "event");
    write_log(L_NOTICE, "a.cpp", 7, "f", "notice");
    write_log(L_ERROR, "a.cpp", 7, "f", "error");
    time_t after = time(nullptr);

    std::vector<std::string> lines = lines_of(log_text());
    ASSERT_EQ(lines.size(), 6u) << log_text();
    const std::string pid = pid_text();
    EXPECT_TRUE(like(
        kStamp + ":  WARNING[" + pid + "]: room.cpp:42 in do_checkin: Room 101, 3 calls", lines[0]))
        << lines[0];
    EXPECT_TRUE(like(kStamp + ":  VERBOSE[" + pid + "]: plain text", lines[1])) << lines[1];
    EXPECT_NE(lines[2].find(":  DEBUG[" + pid + "]: a.cpp:7 in f: debug"), std::string::npos);
    EXPECT_NE(lines[3].find(":  EVENT[" + pid + "]: a.cpp:7 in f: event"), std::string::npos);
    EXPECT_NE(lines[4].find(":  NOTICE[" + pid + "]: a.cpp:7 in f: notice"), std::string::npos);
    EXPECT_NE(lines[5].find(":  ERROR[" + pid + "]: a.cpp:7 in f: error"), std::string::npos);

    // The stamp is the local time as "%D %T".
    struct tm tmv {};
    const char* end = strptime(lines[0].c_str(), "%D %T", &tmv);
    ASSERT_NE(end, nullptr);
    EXPECT_EQ(end - lines[0].c_str(), 17);
    tmv.tm_isdst = -1;
    time_t logged = mktime(&tmv);
    EXPECT_GE(logged, before);
    EXPECT_LE(logged, after);
}

TEST_F(Logger, DisableSilencesEverythingIncludingBogusLevels) {
    init(5, 1);
    fd_capture cap(2, dir_.file("stderr"));
    write_all_levels();
    write_log(7, "f.cpp", 1, "fn", "bogus");
    EXPECT_EQ(cap.finish(), "");
    EXPECT_EQ(log_text(), "");

    // Only exactly 1 disables.
    init(5, 0);
    write_log(L_DEBUG, "f.cpp", 1, "fn", "back again");
    EXPECT_NE(log_text().find("back again"), std::string::npos);
}

TEST_F(Logger, BogusLevelsWarnOnStandardErrorAndNegativeOnesAreDropped) {
    init(5);
    fd_capture cap(2, dir_.file("stderr"));
    write_log(7, "f.cpp", 1, "fn", "seven");
    write_log(-1, "f.cpp", 1, "fn", "minus one");
    EXPECT_EQ(cap.finish(), "log called with bogus level: 7\n");
    EXPECT_EQ(log_text(), "");

    // The threshold test comes first: a high level passes it at any threshold.
    init(1);
    fd_capture cap2(2, dir_.file("stderr2"));
    write_log(9, "f.cpp", 1, "fn", "nine");
    EXPECT_EQ(cap2.finish(), "log called with bogus level: 9\n");
}

TEST_F(Logger, EmptyOrUnwritablePathGoesToStandardError) {
    const std::vector<std::string> paths = {"", dir_.file("no/such/dir/x.log"), dir_.path()};
    for (const std::string& path : paths) {
        logger_init(path.c_str(), 5, 0, 0);
        fd_capture cap(2, dir_.file("stderr"));
        write_log(L_ERROR, "f.cpp", 9, "fn", "to the console");
        std::string out = cap.finish();
        EXPECT_TRUE(
            like(kStamp + ":  ERROR[" + pid_text() + "]: f.cpp:9 in fn: to the console\n", out))
            << "path '" << path << "': " << out;
    }
    logger_init(nullptr, 5, 0, 0);
    fd_capture cap(2, dir_.file("stderr"));
    write_log(L_VERBOSE, "f.cpp", 9, "fn", "null path");
    EXPECT_NE(cap.finish().find("VERBOSE[" + pid_text() + "]: null path\n"), std::string::npos);
}

TEST_F(Logger, FileIsReopenedForEveryLine) {
    init(5);
    write_log(L_ERROR, "f.cpp", 1, "fn", "first");
    ASSERT_EQ(rename(log_path().c_str(), dir_.file("rotated.log").c_str()), 0);
    write_log(L_ERROR, "f.cpp", 1, "fn", "second");
    EXPECT_NE(read_file(dir_.file("rotated.log")).find("first"), std::string::npos);
    EXPECT_EQ(read_file(dir_.file("rotated.log")).find("second"), std::string::npos);
    EXPECT_NE(log_text().find("second"), std::string::npos);
}

TEST_F(Logger, LinesAreCutAt1023Characters) {
    init(5);
    std::string longtext(3000, 'x');
    write_log(L_VERBOSE, "f.cpp", 1, "fn", "%s", longtext.c_str());
    write_log(L_ERROR, "f.cpp", 1, "fn", "%s", longtext.c_str());
    std::vector<std::string> lines = lines_of(log_text());
    ASSERT_EQ(lines.size(), 2u);
    for (const std::string& line : lines) {
        // "MM/DD/YY HH:MM:SS: " then the line proper, which begins with a blank.
        ASSERT_GT(line.size(), 19u);
        std::string body = line.substr(19);
        EXPECT_EQ(body.size(), 1023u);
        EXPECT_EQ(body[0], ' ');
        EXPECT_EQ(body.back(), 'x');
    }
}

TEST_F(Logger, ConcurrentWritersGiveWholeLines) {
    init(5);
    constexpr int kThreads = 8;
    constexpr int kLines = 200;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([t] {
            std::string pad(300, static_cast<char>('a' + t));
            for (int i = 0; i < kLines; ++i)
                write_log(L_NOTICE, "t.cpp", t, "worker", "thread %d line %d %s end", t, i,
                          pad.c_str());
        });
    }
    for (std::thread& th : threads) th.join();

    std::vector<std::string> lines = lines_of(log_text());
    ASSERT_EQ(lines.size(), static_cast<size_t>(kThreads * kLines));
    std::vector<int> per_thread(kThreads, 0);
    for (const std::string& line : lines) {
        // "<stamp>:  NOTICE[<pid>]: t.cpp:<t> in worker: thread <t> line <i> <pad> end"
        size_t at = line.find(" in worker: thread ");
        ASSERT_NE(at, std::string::npos) << line;
        int t = line[at - 1] - '0';
        ASSERT_TRUE(t >= 0 && t < kThreads) << line;
        std::string pad(300, static_cast<char>('a' + t));
        EXPECT_TRUE(like(kStamp + ":  NOTICE[" + pid_text() + "]: t.cpp:" + std::to_string(t) +
                             " in worker: thread " + std::to_string(t) + " line @ " + pad + " end",
                         line))
            << line;
        ++per_thread[t];
    }
    for (int t = 0; t < kThreads; ++t) EXPECT_EQ(per_thread[t], kLines);
}

}  // namespace
