// Statement templates: the placeholders of the three routines, their values,
// the echo on standard output, unknown placeholders and service strings.
#include "billing/templates.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <ctime>
#include <functional>
#include <memory>
#include <sstream>
#include <string>
#include <thread>

#include "logger.h"
#include "support.h"

namespace {

fias_field_t text_field(const char* name, const std::string& text) {
    fias_field_t f;
    snprintf(f.name, sizeof f.name, "%s", name);
    f.value = std::make_unique<fias_value_t>();
    f.value->str = text;
    return f;
}

fias_field_t flag_field(int32_t flag) {
    fias_field_t f;
    snprintf(f.name, sizeof f.name, "SF");
    f.type = FIAS_TYPE_BOOL;
    f.value = std::make_unique<fias_value_t>();
    f.value->bval = flag;
    return f;
}

fias_field_t date_field(uint8_t year, uint8_t month, uint8_t day) {
    fias_field_t f;
    snprintf(f.name, sizeof f.name, "DA");
    f.type = FIAS_TYPE_DATE;
    f.value = std::make_unique<fias_value_t>();
    f.value->date.year = year;
    f.value->date.month = month;
    f.value->date.day = day;
    return f;
}

fias_field_t time_field(uint8_t hour, uint8_t min, uint8_t sec) {
    fias_field_t f;
    snprintf(f.name, sizeof f.name, "TI");
    f.type = FIAS_TYPE_TIME;
    f.value = std::make_unique<fias_value_t>();
    f.value->time.hour = hour;
    f.value->time.min = min;
    f.value->time.sec = sec;
    return f;
}

std::string now_as(const char* format) {
    time_t now = time(nullptr);
    struct tm tmv;
    localtime_r(&now, &tmv);
    char buf[64];
    strftime(buf, sizeof buf, format, &tmv);
    return buf;
}


class Templates : public ::testing::Test {
  protected:
    void SetUp() override { logger_init(dir_.file("test.log").c_str(), 5, 0, 0); }
    void TearDown() override { logger_init(nullptr, 1, 0, 0); }

    std::string log_text() const { return read_file(dir_.file("test.log")); }

    temp_dir dir_;
    dbdriver_t drv_;  // formats "%Y-%m-%d" and "%H:%M:%S"; no database is touched
};

TEST_F(Templates, FieldRoutineFillsEveryPlaceholder) {
    fias_field_t rn = text_field("RN", "101"), name = text_field("GN", "Smith");
    fias_field_t lang = text_field("GL", "EA"), shared = flag_field(1);
    fias_field_t date = date_field(9, 5, 14), tim = time_field(7, 8, 9);
    fias_field_t seq = text_field("P#", "0042");
    EXPECT_EQ(prepare_query(&drv_, "%exten%|%name%|%lang%|%share%|%date%|%time%|%seqno%", &rn,
                            &name, &lang, &shared, &date, &tim, &seq),
              "101|Smith|EA|1|2009-06-14|07:08:09|0042");

    // The driver's own formats; the month goes in as the zero-based month.
    snprintf(drv_.dateformat, sizeof drv_.dateformat, "%s", "%d.%m.%y");
    snprintf(drv_.timeformat, sizeof drv_.timeformat, "%s", "%H%M");
    fias_field_t december = date_field(10, 11, 31);
    EXPECT_EQ(prepare_query(&drv_, "d='%date%' t='%time%'", nullptr, nullptr, nullptr, nullptr,
                            &december, &tim, nullptr),
              "d='31.12.10' t='0708'");
}

TEST_F(Templates, AbsentFieldsGiveEmptyTextsZeroShareAndNoDateOrTime) {
    EXPECT_EQ(prepare_query(&drv_,
                            "a='%exten%' b='%name%' c='%lang%' s=%share% d='%date%' "
                            "t='%time%' q='%seqno%'",
                            nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr),
              "a='' b='' c='' s=0 d='' t='' q=''");
    // %time% is filled only when a date is given too.
    fias_field_t tim = time_field(23, 59, 58);
    EXPECT_EQ(prepare_query(&drv_, "t='%time%'", nullptr, nullptr, nullptr, nullptr, nullptr, &tim,
                            nullptr),
              "t=''");
    fias_field_t date = date_field(9, 0, 1);
    EXPECT_EQ(prepare_query(&drv_, "t='%time%'", nullptr, nullptr, nullptr, nullptr, &date, &tim,
                            nullptr),
              "t='23:59:58'");
    fias_field_t off = flag_field(0), odd = flag_field(-3);
    EXPECT_EQ(prepare_query(&drv_, "%share%,", nullptr, nullptr, nullptr, &off, nullptr, nullptr,
                            nullptr),
              "0,");
    EXPECT_EQ(prepare_query(&drv_, "%share%,", nullptr, nullptr, nullptr, &odd, nullptr, nullptr,
                            nullptr),
              "-3,");
    // A field without a value counts as absent.
    fias_field_t empty;
    EXPECT_EQ(prepare_query(&drv_, "'%exten%'%share%'%date%'", &empty, nullptr, nullptr, &empty,
                            &empty, nullptr, nullptr),
              "''0''");
}

TEST_F(Templates, CurrentDateAndTimeUseTheDriverFormats) {
    snprintf(drv_.dateformat, sizeof drv_.dateformat, "%s", "%Y/%j");
    snprintf(drv_.timeformat, sizeof drv_.timeformat, "%s", "%H-%M");
    for (int attempt = 0; attempt < 3; ++attempt) {
        std::string before = now_as("%Y/%j %H-%M");
        std::string fields = prepare_query(&drv_, "%current_date% %current_time%", nullptr, nullptr,
                                           nullptr, nullptr, nullptr, nullptr, nullptr);
        std::string strings = prepare_query2(&drv_, "%current_date% %current_time%", nullptr,
                                             nullptr, nullptr, nullptr);
        std::string param = prepare_query3(&drv_, "%current_date% %current_time%", nullptr, nullptr,
                                           nullptr, nullptr, nullptr);
        if (before != now_as("%Y/%j %H-%M")) continue;  // the minute turned meanwhile
        EXPECT_EQ(fields, before);
        EXPECT_EQ(strings, before);
        EXPECT_EQ(param, before);
        return;
    }
    FAIL() << "the clock kept turning";
}

TEST_F(Templates, StringRoutinesPutValuesInAsTheyAre) {
    EXPECT_EQ(prepare_query2(&drv_, "update x set a='%exten%' where d='%date%'", "101",
                             "2009-05-14", nullptr, nullptr),
              "update x set a='101' where d='2009-05-14'");
    EXPECT_EQ(prepare_query2(&drv_, "%exten%%seqno% and the rest", "101", nullptr, nullptr, "0007"),
              "1010007 and the rest");
    EXPECT_EQ(prepare_query2(&drv_, "a='%exten%' d='%date%' t='%time%' s='%seqno%'", nullptr,
                             nullptr, nullptr, nullptr),
              "a='' d='' t='' s=''");
    EXPECT_EQ(prepare_query2(&drv_, "t='%time%' q='it''s'", nullptr, nullptr, "12:30:00", nullptr),
              "t='12:30:00' q='it''s'");
    EXPECT_EQ(prepare_query3(&drv_,
                             "update cdrcache set userfield='%param%' where src='%exten%' and "
                             "date(start)='%date%' and time(start)='%time%' -- %seqno%",
                             "PS|RN101|", "101", "2009-05-14", "10:11:12", "0003"),
              "update cdrcache set userfield='PS|RN101|' where src='101' and "
              "date(start)='2009-05-14' and time(start)='10:11:12' -- 0003");
    EXPECT_EQ(prepare_query3(&drv_, "'%param%'", nullptr, "1", "2", "3", "4"), "''");
    // Text between and around placeholders, and a template without any.
    EXPECT_EQ(prepare_query2(&drv_, "x%exten%y%exten%z", "5", nullptr, nullptr, nullptr), "x5y5z");
    EXPECT_EQ(prepare_query2(&drv_, "select 1", "5", nullptr, nullptr, nullptr), "select 1");
    EXPECT_EQ(prepare_query2(&drv_, "", "5", nullptr, nullptr, nullptr), "");
}

TEST_F(Templates, ValuesLongerThanTheTemplateAreKeptWhole) {
    fd_capture quiet(1, dir_.file("stdout"));
    std::string huge(5000, 'v');
    huge += "end";
    fias_field_t rn = text_field("RN", huge);
    EXPECT_EQ(
        prepare_query(&drv_, "%exten%", &rn, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr),
        huge);
    EXPECT_EQ(
        prepare_query2(&drv_, "'%exten%','%seqno%'", huge.c_str(), nullptr, nullptr, huge.c_str()),
        "'" + huge + "','" + huge + "'");
    EXPECT_EQ(prepare_query3(&drv_, "%param%", huge.c_str(), nullptr, nullptr, nullptr, nullptr),
              huge);
}

TEST_F(Templates, FinishedStatementsAreEchoedOnStandardOutput) {
    fd_capture cap(1, dir_.file("stdout"));
    fias_field_t rn = text_field("RN", "101");
    prepare_query(&drv_, "delete from x where a='%exten%'", &rn, nullptr, nullptr, nullptr, nullptr,
                  nullptr, nullptr);
    prepare_query2(&drv_, "select %exten%", "7", nullptr, nullptr, nullptr);
    prepare_query3(&drv_, "plain", nullptr, nullptr, nullptr, nullptr, nullptr);
    EXPECT_EQ(cap.finish(),
              "query: delete from x where a='101'\n"
              "1query: select 7\n"
              "1query: plain\n");
    EXPECT_EQ(log_text(), "");
}

TEST_F(Templates, UnknownPlaceholdersAreFoundPerRoutine) {
    EXPECT_EQ(template_unknown_placeholder(TEMPLATE_STRINGS, "d='%DATE%'"), 3);
    EXPECT_EQ(template_unknown_placeholder(TEMPLATE_FIELDS, "d='%DATE%'"), 3);
    EXPECT_EQ(template_unknown_placeholder(TEMPLATE_PARAM, "%param%"), -1);
    EXPECT_EQ(template_unknown_placeholder(TEMPLATE_STRINGS, "a %param%"), 2);
    EXPECT_EQ(template_unknown_placeholder(TEMPLATE_FIELDS, "%param%"), 0);
    EXPECT_EQ(template_unknown_placeholder(TEMPLATE_FIELDS, "%name% %lang% %share%"), -1);
    EXPECT_EQ(template_unknown_placeholder(TEMPLATE_STRINGS, "%exten% %name%"), 8);
    EXPECT_EQ(template_unknown_placeholder(TEMPLATE_PARAM, "%lang%"), 0);
    EXPECT_EQ(template_unknown_placeholder(TEMPLATE_STRINGS, "like '10%'"), 8);
    EXPECT_EQ(template_unknown_placeholder(TEMPLATE_STRINGS, "%"), 0);
    EXPECT_EQ(template_unknown_placeholder(TEMPLATE_STRINGS, "%exten%%"), 7);
    EXPECT_EQ(template_unknown_placeholder(TEMPLATE_STRINGS, "%exten"), 0);
    EXPECT_EQ(template_unknown_placeholder(TEMPLATE_STRINGS, "select 1"), -1);
    EXPECT_EQ(template_unknown_placeholder(
                  TEMPLATE_STRINGS, "%exten%%date%%current_date%%time%%current_time%%seqno%"),
              -1);
}

TEST_F(Templates, ServiceStringsSplitAtTheFirstColon) {
    service_string s = split_service("pbx:select a from t where b='10:00'");
    EXPECT_TRUE(s.has_statement);
    EXPECT_EQ(s.driver, "pbx");
    EXPECT_EQ(s.statement, "select a from t where b='10:00'");
    s = split_service("no statement");
    EXPECT_FALSE(s.has_statement);
    EXPECT_EQ(s.driver, "sqlite");
    s = split_service(":x");
    EXPECT_TRUE(s.has_statement);
    EXPECT_EQ(s.driver, "");
    EXPECT_EQ(s.statement, "x");
}

// A template with an unknown placeholder stops its thread for good. Each case
// runs in a detached thread that is left asleep; the texts it sees live for
// the whole process.
struct hang_probe {
    std::atomic<bool> returned{false};
    std::atomic<pid_t> tid{0};
};

void expect_hangs(hang_probe& probe, const std::function<void()>& call, const std::string& log_path,
                  const std::string& template_text) {
    std::thread([&probe, call] {
        probe.tid = static_cast<pid_t>(syscall(SYS_gettid));
        call();
        probe.returned = true;
    }).detach();
    ASSERT_TRUE(wait_until([&] { return probe.tid != 0; }));
    ASSERT_TRUE(wait_until([&] {
        return read_file(log_path).find(template_text) != std::string::npos;
    })) << read_file(log_path);
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    EXPECT_FALSE(probe.returned);

    // It sleeps instead of spinning: state S and almost no CPU time.
    std::string stat = read_file("/proc/self/task/" + std::to_string(probe.tid) + "/stat");
    size_t p = stat.rfind(')');
    ASSERT_NE(p, std::string::npos) << stat;
    std::istringstream rest(stat.substr(p + 2));
    std::string state;
    rest >> state;
    std::string skip;
    for (int i = 0; i < 10; ++i) rest >> skip;  // fields 4-13
    long utime = 0, stime = 0;
    rest >> utime >> stime;
    EXPECT_EQ(state, "S");
    EXPECT_LT(utime + stime, 10) << "ticks";

    std::string log = read_file(log_path);
    size_t errors = 0;
    for (size_t pos = log.find(" ERROR["); pos != std::string::npos;
         pos = log.find(" ERROR[", pos + 1))
        ++errors;
    EXPECT_EQ(errors, 1u) << log;
}

TEST_F(Templates, UnknownPlaceholderStopsTheThreadWithoutUsingTheCpu) {
    static const dbdriver_t drv;
    static hang_probe strings_probe, fields_probe, param_probe;

    static const char* const q2 = "update x set n='%name%' where e='%exten%'";
    expect_hangs(
        strings_probe, [] { prepare_query2(&drv, q2, "101", nullptr, nullptr, nullptr); },
        dir_.file("test.log"), q2);

    write_file(dir_.file("test.log"), "");
    static const char* const q1 = "update x set p='%param%'";
    expect_hangs(
        fields_probe,
        [] {
            prepare_query(&drv, q1, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr);
        },
        dir_.file("test.log"), q1);

    write_file(dir_.file("test.log"), "");
    static const char* const q3 = "update x set d='%DATE%' where u='%param%' or a like '1%'";
    expect_hangs(
        param_probe, [] { prepare_query3(&drv, q3, "p", "101", nullptr, nullptr, nullptr); },
        dir_.file("test.log"), q3);
}

TEST_F(Templates, ConcurrentCallersGetTheirOwnStatements) {
    std::vector<std::thread> threads;
    std::atomic<int> wrong{0};
    fd_capture cap(1, dir_.file("stdout"));
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < 200; ++i) {
                std::string rn = std::to_string(t * 1000 + i);
                fias_field_t f = text_field("RN", rn);
                fias_field_t date = date_field(static_cast<uint8_t>(t), 0, 1);
                std::string q = prepare_query(&drv_, "r=%exten% d=%date% n=%current_date%", &f,
                                              nullptr, nullptr, nullptr, &date, nullptr, nullptr);
                if (q.rfind("r=" + rn + " d=200" + std::to_string(t) + "-01-01 n=", 0) != 0)
                    ++wrong;
                if (prepare_query2(&drv_, "%exten%", rn.c_str(), nullptr, nullptr, nullptr) != rn)
                    ++wrong;
            }
        });
    }
    for (std::thread& th : threads) th.join();
    cap.finish();
    EXPECT_EQ(wrong, 0);
}

}  // namespace
