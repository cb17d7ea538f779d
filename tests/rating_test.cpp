// Call rating: the price rule, the tariff file's loader and lookup, and the
// daemon posting priced calls from the Manager cache to the PMS simulator.
#include <gtest/gtest.h>

#include "billing/pricing.h"
#include "rating/tariff.h"
#include "states/states.h"
#include "support_daemon.h"

using namespace std::chrono_literals;
using texts = std::vector<std::string>;

namespace {

const char* const sample_tariff =
    "prefix,description,call_type,rate,first,next,connect,free,valid_from\n"
    "00,International,I,1.00,60,60,0,0,\n"
    "0049,Germany,I,0.12,60,60,0.05,0,\n"
    "004930,Berlin,N,0.10,30,6,0,0,\n"
    "0800,Freephone,L,0,60,60,0,0,\n"
    "0039,Italy,I,0.50,1,1,0,10,\n";

tariff_ptr parse(const std::string& text, texts* reasons = nullptr) {
    texts own;
    return tariff::parse(text, "tariffs.csv", reasons ? *reasons : own);
}

TEST(Price, IncrementsFreeSecondsConnectionFeeMarkupAndOneRounding) {
    struct row {
        price_terms t;
        price_rule r;
        int64_t billable, billed, amount;
    };
    const int64_t unit = 1000000;
    const row rows[] = {
        // 60/60, 30/6 and 1/1; a call shorter than `first`
        {{unit, 60, 60, 0, 0}, {2, 0}, 61, 120, 200},
        {{unit, 60, 60, 0, 0}, {2, 0}, 59, 60, 100},
        {{unit / 10, 30, 6, 0, 0}, {2, 0}, 125, 126, 21},
        {{unit / 10, 30, 6, 0, 0}, {2, 0}, 12, 30, 5},
        {{unit / 2, 1, 1, 0, 0}, {2, 0}, 37, 37, 31},
        // free seconds: at most `free` costs nothing, more is billed whole
        {{unit / 2, 1, 1, unit, 10}, {2, 0}, 10, 0, 0},
        {{unit / 2, 1, 1, 0, 10}, {2, 0}, 11, 11, 9},
        // the connection fee, alone and with the minutes
        {{0, 60, 60, unit / 20, 0}, {2, 0}, 1, 60, 5},
        {{unit * 12 / 100, 60, 60, unit / 20, 0}, {2, 0}, 61, 120, 29},
        // markup and decimals 0, 2, 3
        {{unit * 12 / 100, 60, 60, unit / 20, 0}, {3, 1000}, 61, 120, 319},
        {{unit * 12 / 100, 60, 60, unit / 20, 0}, {0, 1000}, 61, 120, 0},
        {{unit * 12, 60, 60, 0, 0}, {0, 1050}, 60, 60, 13},  // 13.26 -> 13
        // rounded once, half up: 3 x 0.005 is 0.015 -> 0.02, never 3 x 0.01
        {{unit / 200, 1, 1, 0, 0}, {2, 0}, 180, 180, 2},
        {{unit / 200, 60, 60, 0, 0}, {2, 0}, 60, 60, 1},   // 0.005 -> 0.01
        {{unit / 1000, 60, 60, 0, 0}, {2, 0}, 60, 60, 0},  // 0.001 -> 0.00
        // a long call at the highest rate stays exact
        {{unit * 1000000, 1, 1, 0, 0},
         {4, 100000},
         2000000000,
         2000000000,
         int64_t{3666666666666666667}},
    };
    for (const row& c : rows) {
        SCOPED_TRACE(std::to_string(c.billable) + " s at " + std::to_string(c.t.rate_micro));
        EXPECT_EQ(c.billed, billed_seconds(c.t, c.billable));
        EXPECT_EQ(c.amount, price_minor(c.t, c.r, c.billable));
    }
    EXPECT_EQ(std::optional<int64_t>(120000), parse_scaled("0.12", 6, 1000000000));
    EXPECT_EQ(std::optional<int64_t>(1050), parse_scaled("10.5", 2, 100000));
    for (const char* bad : {"", ".5", "1.", "-1", "1e3", "0.1234567", "1,5", " 1"})
        EXPECT_FALSE(parse_scaled(bad, 6, 1000000000)) << bad;
    EXPECT_EQ("0.29", amount_text(29, 2));
    EXPECT_EQ("0.319", amount_text(319, 3));
    EXPECT_EQ("29", amount_text(29, 0));
}

TEST(Tariff, LongestPrefixAmongTheLinesValidAtTheCallsStart) {
    tariff_ptr t = parse(std::string(sample_tariff) +
                         "# Berlin gets dearer, Spain is not priced before June\n\n"
                         "004930,Berlin new,N,0.20,30,6,0,0,2024-05-01\n"
                         "004930,\"Berlin, \"\"newest\"\"\",N,0.30,30,6,0,0,2025-01-01\r\n"
                         "0034,Spain,I,0.40,60,60,0,0,2024-06-01\n");
    ASSERT_TRUE(t);
    auto found = [&](const char* number, int32_t date) -> std::string {
        const tariff_line* l = t->find(number, date);
        return l ? std::string(t->description(*l)) + "@" + std::to_string(l->line) : "none";
    };
    EXPECT_EQ("Berlin@4", found("004930123456", 20240430));
    EXPECT_EQ("Berlin new@9", found("004930123456", 20240501));
    EXPECT_EQ("Berlin, \"newest\"@10", found("004930123456", 20250101));
    EXPECT_EQ("Germany@3", found("0049891234", 20250101));
    EXPECT_EQ("International@2", found("0034911234", 20240531));  // Spain not valid yet
    EXPECT_EQ("Spain@11", found("0034911234", 20240601));
    EXPECT_EQ("International@2", found("00", 20240601));
    EXPECT_EQ("none", found("0", 20240601));
    EXPECT_EQ("none", found("12345", 20240601));
    EXPECT_EQ("none", found("", 20240601));

    // The settings and the table make the posting's values.
    config cfg;
    // Dialled text matches as "DD" carries it: with fixes:numbers digits
    // only, "+" as pms:plus_prefix.
    EXPECT_EQ("0049 30-1234", dialled_digits(cfg, "0049 30-1234"));
    cfg.fixes.numbers = true;
    EXPECT_EQ("0049301234", dialled_digits(cfg, "+49 30-1234"));
    cfg.fixes.numbers = false;
    cfg.rating.tariffs = "tariffs.csv";
    cfg.tariff = t;
    call_price p = price_call(cfg, "0049891234", 61, 20250101);
    EXPECT_EQ(call_price::priced, p.outcome);
    EXPECT_EQ("tariffs.csv:3", p.line);
    EXPECT_EQ('I', p.call_type);
    EXPECT_EQ(120, p.billed);
    EXPECT_EQ(29, p.amount);
    EXPECT_EQ(call_price::unrated, price_call(cfg, "12345", 61, 20250101).outcome);
    cfg.tariff = nullptr;  // refused at start
    EXPECT_EQ(call_price::unrated, price_call(cfg, "0049891234", 61, 20250101).outcome);
    cfg.rating.tariffs.reset();
    EXPECT_EQ(call_price::not_rated, price_call(cfg, "0049891234", 61, 20250101).outcome);

    // "CT": 20 characters, in the PMS's character set when it has one.
    EXPECT_EQ("Zürich Flughafen Klo", clear_text(cfg, "Zürich Flughafen Kloten"));
    cfg.pmsencoding = "cp1252";
    EXPECT_EQ(
        "Z\xFCrich \x80 ?\xF3"
        "d?",
        clear_text(cfg, "Zürich € Łódź"));
}

TEST(Tariff, BrokenLinesRefuseTheFileEachNamedWithItsReason) {
    texts reasons;
    const std::string text =
        "# a comment before the header\n"
        "prefix,description,call_type,rate,first,next,connect,free,valid_from\n"
        "00,ok,I,1,60,60,0,0,\n"
        "0x1,a,I,1,60,60,0,0,\n"
        "01,a,ii,1,60,60,0,0,\n"
        "02,a,I,abc,60,60,0,0,\n"
        "03,a,I,1,0,60,0,0,\n"
        "04,a,I,1,60,60,0,0,2024-02-30\n"
        "05,a,I,1,60,60\n"
        "00,dup,I,2,60,60,0,0,\n"
        "06,a,I,1.0000001,60,60,0,0,\n"
        "07,\"a,I,1,60,60,0,0,\n"
        "08,a,I,1,60,60,0,100000,\n"
        "09,a,I,1,60,60,0,0,2024-1-01\n";
    EXPECT_FALSE(parse(text, &reasons));
    const texts expected = {
        "tariffs.csv:4: prefix \"0x1\" is not digits",
        "tariffs.csv:5: call_type \"ii\" is not one letter A-Z",
        "tariffs.csv:6: rate \"abc\" is not an amount",
        "tariffs.csv:7: first \"0\" is not a number of seconds 1-86400",
        "tariffs.csv:8: valid_from \"2024-02-30\" is not a date YYYY-MM-DD",
        "tariffs.csv:9: 6 fields instead of 9",
        "tariffs.csv:11: rate \"1.0000001\" is not an amount",
        "tariffs.csv:12: a quote is not closed",
        "tariffs.csv:13: free \"100000\" is not a number of seconds 0-86400",
        "tariffs.csv:14: valid_from \"2024-1-01\" is not a date",
        "tariffs.csv:10: the same prefix and valid_from as line 3",
    };
    ASSERT_EQ(expected.size(), reasons.size());
    for (size_t i = 0; i < expected.size(); i++)
        EXPECT_EQ(0u, reasons[i].find(expected[i])) << reasons[i];

    reasons.clear();
    EXPECT_FALSE(parse("prefix,description\n00,a,I,1,60,60,0,0,\n", &reasons));
    EXPECT_EQ(
        (texts{"tariffs.csv:1: the first line is not \"" + std::string(tariff_header) + "\""}),
        reasons);
}

TEST(Rating, TheStatesFileKeepsTheAuditAlsoInTheOutboxOfAnOlderFile) {
    temp_dir dir;
    const std::string path = dir.file("states.db");
    ASSERT_TRUE(sqlite_exec(path,
                            "create table outbox (id integer primary key autoincrement, kind "
                            "text, seq text, room text, extension text, number text, date text, "
                            "time text, record text, waiting integer default 1, mark text default "
                            "'', mark_key text default '', sends integer default 0, link integer "
                            "default 0)"));
    states_file states;
    ASSERT_EQ(0, states.open(path));
    states_file::outbox_entry e;
    e.kind = "PS";
    e.seq = "0001";
    e.room = "101";
    e.rating_line = "tariffs.csv:3";
    e.billed = 120;
    e.amount = 29;
    ASSERT_GT(states.outbox().put(e), 0);
    EXPECT_EQ((sql_rows{{"tariffs.csv:3", "120", "29"}}),
              sqlite_rows(path, "select rating_line, billed, amount from outbox"));
    // A room "number" is a value, whatever it holds; the same key is rated once.
    const std::string room = "1','x');drop table outbox;--";
    for (long long amount : {28, 29})
        ASSERT_EQ(0, states.ratings().put({room, "0001", "2024-05-01", "10:00:00", "0049891234",
                                           "tariffs.csv:3", "0049", 120, amount}));
    ASSERT_EQ(0, states.ratings().prune(1));
    std::vector<states_file::rating_record> kept;
    ASSERT_EQ(0, states.ratings().all(kept));
    ASSERT_EQ(1u, kept.size());
    EXPECT_EQ(room, kept[0].room);
    EXPECT_EQ(29, kept[0].amount);
    EXPECT_EQ((sql_rows{{"1"}}), sqlite_rows(path, "select count(*) from outbox"));
}

// A daemon caching calls from the Manager for room 101, with [rating].
struct rated_daemon {
    daemon_run run;
    explicit rated_daemon(const std::string& tariff_text) {
        write_file(run.dir().file("tariffs.csv"), tariff_text);
        run.use_manager();
        run.set("rooms", "room1", "101").set("rating", "tariffs", "tariffs.csv");
    }
    void call(const std::string& dst, int billsec, int n) {
        mgr_cdr_event ev = mgr_cdr_event::make("101", dst, "2024-05-01 10:00:00", billsec);
        ASSERT_EQ(1, run.mgr.send_cdr(ev.set("UniqueID", "1714557600." + std::to_string(n))));
    }
};

TEST(Rating, TheTablesCallsArePostedPricedAndAnUnmatchedNumberAsToday) {
    rated_daemon d(sample_tariff);
    ASSERT_TRUE(d.run.start()) << d.run.log();
    const struct {
        const char* dd;
        int seconds;
        const char* fields;  // TA, PC and CT as posted
    } calls[] = {
        {"004930123456", 125, "|TA21|DA240501|TI100000|DU000205|DD004930123456|PCN|CTBerlin|"},
        {"08001234", 300, "|TA0|DA240501|TI100000|DU000500|DD08001234|PCL|CTFreephone|"},
        {"0039061235", 37, "|TA31|DA240501|TI100000|DU000037|DD0039061235|PCI|CTItaly|"},
        {"555123", 40, "|PTT|DA240501|TI100000|DU000040|DD555123|"},
    };
    int n = 0;
    for (const auto& c : calls) d.call(c.dd, c.seconds, ++n);
    ASSERT_TRUE(d.run.pms.wait_for_count("PS|", std::size(calls), 15s)) << d.run.log();
    const texts ps = d.run.pms.frames("PS|");
    for (const auto& c : calls) {
        const auto it = std::find_if(ps.begin(), ps.end(), [&](const std::string& f) {
            return f.find(std::string("|DD") + c.dd + "|") != std::string::npos;
        });
        ASSERT_NE(ps.end(), it) << c.dd;
        EXPECT_NE(std::string::npos, it->find(c.fields)) << *it;
        EXPECT_EQ(c.fields[1] != 'P', it->find("|PTC|") != std::string::npos) << *it;
    }
    // Logged once the posting went out.
    EXPECT_TRUE(d.run.wait_log("No line of the tariff file prices the call to 555123"));
    EXPECT_EQ(1u, d.run.count_log("No line of the tariff file prices the call to 555123"));
    // The audit: the line, the billed seconds and the amount of each priced call.
    EXPECT_TRUE(wait_until([&] {
        const sql_rows rows = d.run.states("select count(*) from ratings");
        return !rows.empty() && rows[0][0] == "3";
    })) << d.run.log();
    const std::string csv = d.run.dir().file("tariffs.csv");
    EXPECT_EQ((sql_rows{{"101", "2024-05-01", "10:00:00", csv + ":4", "004930", "126", "21"}}),
              d.run.states("select room, date, time, line, prefix, billed, amount from ratings "
                           "where number='004930123456'"));
}

}  // namespace
