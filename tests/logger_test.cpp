// The logger: threshold, line format, destinations, bogus levels, the line
// length and concurrent writers.
#include "logger.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <thread>

#include "support.h"

namespace {

class Logger : public ::testing::Test {
  protected:
    void TearDown() override { logger_init(nullptr, 1, 0, 0); }

    std::string path() const { return dir_.file("test.log"); }
    std::string log() const { return read_file(path()); }
    static std::string stderr_of(const std::function<void()>& writes) {
        testing::internal::CaptureStderr();
        writes();
        return testing::internal::GetCapturedStderr();
    }

    temp_dir dir_;
    const std::string pid_ = std::to_string(getpid());
};

TEST_F(Logger, ThresholdBogusLevelsAndDisabling) {
    // The levels written at `threshold`, set at start or (when `set`) later.
    auto written = [&](int threshold, bool set) {
        write_file(path(), "");
        logger_init(path().c_str(), set ? 5 : threshold, 0, 0);
        if (set) set_log_level(threshold);
        std::string levels;
        for (int level = 0; level <= 5; ++level) write_log(level, "f.cpp", 1, "fn", "L%d.", level);
        for (int level = 0; level <= 5; ++level)
            if (log().find("L" + std::to_string(level) + ".") != std::string::npos)
                levels += std::to_string(level);
        return levels;
    };
    EXPECT_EQ(written(1, false), "45");
    EXPECT_EQ(written(2, true), "345");

    logger_init(path().c_str(), 1, 0, 0);  // a high level passes any threshold
    EXPECT_EQ(stderr_of([] {
                  write_log(7, "f.cpp", 1, "fn", "seven");
                  write_log(-1, "f.cpp", 1, "fn", "minus one");
              }),
              "log called with bogus level: 7\n");
    write_file(path(), "");
    logger_init(path().c_str(), 5, 0, 1);
    EXPECT_EQ(stderr_of([] {
                  for (int level = -1; level <= 7; ++level) write_log(level, "f.cpp", 1, "fn", "x");
              }),
              "");
    EXPECT_EQ(log(), "");
}

TEST_F(Logger, LineFormatOfEveryLevelAlsoFromASignalHandler) {
    logger_init(path().c_str(), 5, 0, 0);
    for (int level = L_DEBUG; level <= L_VERBOSE; ++level) {
        write_log(level, "room.cpp", 42, "do_checkin", "Room %s, %d calls", "101", level);
        std::string text = "Room 101, " + std::to_string(level) + " calls";
        write_log_async_safe(level, "room.cpp", 42, "do_checkin", text.c_str());
    }
    const char* const names[] = {"DEBUG", "EVENT", "NOTICE", "WARNING", "ERROR"};
    std::vector<std::string> lines = lines_of(log());
    ASSERT_EQ(lines.size(), 12u) << log();
    for (int level = L_DEBUG; level <= L_VERBOSE; ++level) {
        std::string where = level == L_VERBOSE ? "" : "room.cpp:42 in do_checkin: ";
        EXPECT_TRUE(like(kStamp + ":  " + (level == L_VERBOSE ? "VERBOSE" : names[level]) + "[" +
                             pid_ + "]: " + where + "Room 101, " + std::to_string(level) + " calls",
                         lines[2 * level]))
            << lines[2 * level];
        // The signal-safe line is the same after its time stamp.
        EXPECT_TRUE(like(kStamp, lines[2 * level + 1].substr(0, kStamp.size())));
        EXPECT_EQ(lines[2 * level].substr(17), lines[2 * level + 1].substr(17));
    }
}

TEST_F(Logger, ConsoleFallbackAndLinesCutAt1023Characters) {
    const std::string bad = dir_.file("no/such/dir/x.log");
    for (const char* target : {"", static_cast<const char*>(nullptr), bad.c_str()}) {
        logger_init(target, 5, 0, 0);
        EXPECT_TRUE(like(kStamp + ":  ERROR[" + pid_ + "]: f.cpp:9 in fn: to the console\n",
                         stderr_of([] { write_log(L_ERROR, "f.cpp", 9, "fn", "to the console"); })))
            << (target ? target : "(null)");
    }

    logger_init(path().c_str(), 5, 0, 0);
    const std::string longtext(3000, 'x');
    write_log(L_VERBOSE, "f.cpp", 1, "fn", "%s", longtext.c_str());
    write_log(L_ERROR, "f.cpp", 1, "fn", "%s", longtext.c_str());
    std::vector<std::string> lines = lines_of(log());
    ASSERT_EQ(lines.size(), 2u);
    for (const std::string& line : lines) {
        // "MM/DD/YY HH:MM:SS: " then the line proper, cut to 1023 characters.
        EXPECT_EQ(line.size(), 19u + 1023u);
        EXPECT_EQ(line.back(), 'x');
    }
}

// Control bytes of a value are shown (as \n, \r, \033), so that no value
// can end its line or forge the next; the format's own tab and closing
// newlines stay.
TEST_F(Logger, AValueCannotBreakOrForgeALine) {
    logger_init(path().c_str(), 5, 0, 0);
    write_log(L_NOTICE, "f.cpp", 1, "fn", "\tRoom %s\n",
              "101\n01/01/26 00:00:00:  ERROR[1]: forged\r\x1b[31m\t\x7f\n");
    EXPECT_EQ(":  NOTICE[" + pid_ +
                  "]: f.cpp:1 in fn: \tRoom 101\\n01/01/26 00:00:00:  ERROR[1]: "
                  "forged\\r\\033[31m\t\\177\\n\n\n",
              log().substr(17));
}

TEST_F(Logger, AFileMovedAwayIsLeftAfterAReopenOrASecondAndEveryNewFileIs0640) {
    const mode_t old_mask = umask(0);
    logger_init(path().c_str(), 5, 0, 0);
    write_log(L_NOTICE, "f.cpp", 1, "fn", "first");
    ASSERT_EQ(0, rename(path().c_str(), (path() + ".1").c_str()));
    logger_reopen();
    write_log(L_NOTICE, "f.cpp", 1, "fn", "second");
    ASSERT_EQ(0, unlink(path().c_str()));
    std::this_thread::sleep_for(std::chrono::milliseconds(1100));  // looked at once a second
    write_log(L_NOTICE, "f.cpp", 1, "fn", "third");
    EXPECT_EQ(1u, lines_of(read_file(path() + ".1")).size());  // "first" alone
    EXPECT_EQ(1u, lines_of(log()).size()) << log();
    EXPECT_NE(std::string::npos, log().find("third"));
    umask(old_mask);
    struct stat st {};
    for (const std::string& file : {path(), path() + ".1"}) {
        ASSERT_EQ(0, stat(file.c_str(), &st));
        EXPECT_EQ(0640u, st.st_mode & 07777) << file;
    }
}

// A batch keeps its thread's lines until it ends, in their order; a WARNING
// goes out at once with the lines before it; other threads are not held.
TEST_F(Logger, ABatchWritesItsLinesTogetherAndAProblemAtOnce) {
    logger_init(path().c_str(), 5, 0, 0);
    {
        log_batch batch;
        write_log(L_NOTICE, "f.cpp", 1, "fn", "one");
        std::thread([] { write_log(L_NOTICE, "f.cpp", 1, "fn", "other thread"); }).join();
        EXPECT_EQ(std::string::npos, log().find("one"));
        EXPECT_NE(std::string::npos, log().find("other thread"));
        write_log(L_WARNING, "f.cpp", 1, "fn", "two");
        EXPECT_LT(log().find("one"), log().find("two"));
        write_log(L_NOTICE, "f.cpp", 1, "fn", "three");
        {
            log_batch inner;
            write_log(L_NOTICE, "f.cpp", 1, "fn", "four");
        }
        EXPECT_EQ(std::string::npos, log().find("three"));
        batch.write();
        EXPECT_LT(log().find("three"), log().find("four"));
        write_log(L_NOTICE, "f.cpp", 1, "fn", "five");
    }
    EXPECT_NE(std::string::npos, log().find("five"));
}

TEST_F(Logger, ConcurrentWritersGiveWholeLines) {
    logger_init(path().c_str(), 5, 0, 0);
    const std::string pad(300, 'p');
    std::vector<std::thread> threads;
    for (int t = 0; t < 6; ++t)
        threads.emplace_back([&] {
            for (int i = 0; i < 150; ++i)
                write_log(L_NOTICE, "t.cpp", i, "worker", "%s.", pad.c_str());
        });
    for (std::thread& th : threads) th.join();
    std::vector<std::string> lines = lines_of(log());
    EXPECT_EQ(lines.size(), 6u * 150u);
    for (const std::string& line : lines)
        ASSERT_TRUE(like(kStamp + ":  NOTICE[" + pid_ + "]: t.cpp:@ in worker: " + pad + ".", line))
            << line;
}

}  // namespace
