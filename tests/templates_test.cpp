// Statement templates: the placeholders of the three routines, their values,
// the echo on standard output and unknown placeholders.
#include "templates/templates.h"

#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <memory>
#include <sstream>
#include <tuple>

#include "logger.h"
#include "support.h"

namespace {

// A field whose value has `text` (none: no text), `flag`, `date` and `time`.
fias_field_t field(std::optional<std::string> text, int32_t flag = 0, fias_date_t date = {},
                   fias_time_t time = {}) {
    fias_field_t f;
    f.value = std::make_unique<fias_value_t>();
    f.value->str = std::move(text);
    f.value->bval = flag;
    f.value->date = date;
    f.value->time = time;
    return f;
}

// The fields of prepare_query, absent unless given.
struct fields {
    const fias_field_t *rn = nullptr, *name = nullptr, *lang = nullptr, *share = nullptr,
                       *date = nullptr, *time = nullptr, *seq = nullptr;
};

class Templates : public ::testing::Test {
  protected:
    void SetUp() override { logger_init(dir_.file("test.log").c_str(), 5, 0, 0); }
    void TearDown() override { logger_init(nullptr, 1, 0, 0); }

    std::string q1(const char* q, const fields& f) {
        return prepare_query(&drv_, q, f.rn, f.name, f.lang, f.share, f.date, f.time, f.seq);
    }
    std::string q2(const char* q, const char* rn, const char* da, const char* ti, const char* seq) {
        return prepare_query2(&drv_, q, rn, da, ti, seq);
    }

    temp_dir dir_;
    dbdriver_t drv_;  // formats "%Y-%m-%d" and "%H:%M:%S"; no database is touched
};

TEST_F(Templates, FieldRoutineFillsEveryPlaceholder) {
    fias_field_t rn = field("101"), name = field("Smith"), lang = field("EA"), seq = field("0042"),
                 date = field({}, 0, {9, 5, 14, 0}), tim = field({}, 0, {}, {7, 8, 9, 0}),
                 share = field({}, -3), empty;
    // The month goes in as the zero-based month.
    EXPECT_EQ(q1("%exten%|%name%|%lang%|%share%|%date%|%time%|%seqno%",
                 {&rn, &name, &lang, &share, &date, &tim, &seq}),
              "101|Smith|EA|-3|2009-06-14|07:08:09|0042");
    EXPECT_EQ(q1("%exten%%exten%", {.rn = &rn}), "101101");
    // Absent fields: empty texts, a share of 0, no date, and no time without a date.
    EXPECT_EQ(q1("a='%exten%' b='%name%' c='%lang%' s=%share% d='%date%' t='%time%' q='%seqno%'",
                 {.lang = &empty, .time = &tim}),
              "a='' b='' c='' s=0 d='' t='' q=''");
    EXPECT_EQ(q1("%share%", {.share = &empty}), "0");
    dbdriver_t::set_text16(drv_.dateformat, "%d.%m.%y");
    dbdriver_t::set_text16(drv_.timeformat, "%H%M");
    fias_field_t december = field({}, 0, {10, 11, 31, 0});
    EXPECT_EQ(q1("d='%date%' t='%time%'", {.date = &december, .time = &tim}),
              "d='31.12.10' t='0708'");
}

TEST_F(Templates, LongValuesAreKeptWholeAndStatementsAreEchoed) {
    const std::string huge = std::string(5000, 'v') + "end";
    fias_field_t rn = field(huge);
    testing::internal::CaptureStdout();
    std::vector<std::string> got = {
        q1("%exten%", {.rn = &rn}), q2("'%exten%'", huge.c_str(), nullptr, nullptr, nullptr),
        prepare_query3(&drv_, "%param%", huge.c_str(), nullptr, nullptr, nullptr, nullptr)};
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "query: " + huge + "\n1query: '" + huge + "'\n1query: " + huge + "\n");
    EXPECT_EQ(got, (std::vector<std::string>{huge, "'" + huge + "'", huge}));
    EXPECT_EQ(read_file(dir_.file("test.log")), "");
}

TEST_F(Templates, UnknownPlaceholdersAreFoundPerRoutine) {
    const std::tuple<template_kind, const char*, int> cases[] = {
        {TEMPLATE_STRINGS, "like '10%'", 8},
        {TEMPLATE_STRINGS, "%exten%%", 7},
        {TEMPLATE_FIELDS, "%param%", 0},
        {TEMPLATE_PARAM, "%param%", -1},
        {TEMPLATE_FIELDS, "%name%%lang%%share%", -1},
        {TEMPLATE_STRINGS, "%exten%%date%%current_date%%time%%current_time%%seqno%", -1}};
    for (auto [kind, q, at] : cases) EXPECT_EQ(template_unknown_placeholder(kind, q), at) << q;
}

// "%room%" of a handler's step: in actions always; in statements with the
// fix (or [extensions]), its quotes doubled; a "%" of the room never starts a
// placeholder where "%%" writes one "%".
TEST_F(Templates, RoomOfAStepIsFilledInStatementsOnlyWithTheFix) {
    const std::string sql = "pbx:insert into log values('%room%')",
                      action = "ami:DBPut|Key=%room%|Val=%name%";
    config cfg;
    EXPECT_EQ(fill_room(cfg, sql, "O'1"), sql);
    EXPECT_EQ(fill_room(cfg, action, "1%name%"), "ami:DBPut|Key=1%%name%%|Val=%name%");
    cfg.fixes.percent = true;
    EXPECT_EQ(fill_room(cfg, sql, "O'1%"), "pbx:insert into log values('O''1%%')");
    fill_options percent;
    percent.percent = true;
    percent.echo = false;
    fias_field_t name = field("Smith");
    EXPECT_EQ(
        prepare_query(&drv_, split_service(fill_room(cfg, action, "1%name%")).statement.c_str(),
                      nullptr, &name, nullptr, nullptr, nullptr, nullptr, nullptr, percent),
        "DBPut|Key=1%name%|Val=Smith");
    cfg.fixes.percent = false;
    cfg.extensions["101"] = {"2101"};
    EXPECT_EQ(fill_room(cfg, sql, "101"), "pbx:insert into log values('101')");
}

// A template with an unknown placeholder stops its thread for good: it logs
// one ERROR naming the template and sleeps. The thread is left asleep, so
// what it uses lives for the whole process.
TEST_F(Templates, UnknownPlaceholderStopsTheThreadWithoutUsingTheCpu) {
    static const dbdriver_t drv;
    static const char* const text = "update x set d='%DATE%' where u='%param%' or a like '1%'";
    static std::atomic<int> returned{0};
    static std::atomic<pid_t> tid{0};
    const std::string log_path = dir_.file("test.log");
    std::thread([] {
        tid = static_cast<pid_t>(syscall(SYS_gettid));
        prepare_query3(&drv, text, "p", "101", nullptr, nullptr, nullptr);
        ++returned;
    }).detach();
    ASSERT_TRUE(wait_until([&] { return read_file(log_path).find(text) != std::string::npos; }));
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    EXPECT_EQ(returned, 0);
    EXPECT_EQ(lines_of(read_file(log_path)).size(), 1u) << read_file(log_path);
    EXPECT_NE(read_file(log_path).find(" ERROR["), std::string::npos);
    // It sleeps instead of spinning: state S and almost no CPU time.
    std::istringstream stat(read_file("/proc/self/task/" + std::to_string(tid) + "/stat"));
    std::string skip, state;
    long utime = 0, stime = 0;
    stat >> skip >> skip >> state;  // pid, (comm) without blanks, state
    for (int n = 4; n <= 13; ++n) stat >> skip;
    stat >> utime >> stime;
    EXPECT_EQ(state, "S");
    EXPECT_LT(utime + stime, 10) << "ticks";
}

}  // namespace
