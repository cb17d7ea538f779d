// The record catalogue, the packet model and the record text codec.
#include <gtest/gtest.h>

#include <fstream>
#include <string>

#include "fias/codec.h"
#include "fias/packet.h"
#include "support.h"

namespace {

// "TT code desc: NAME:type NAME:type ..." of a catalogue row.
std::string describe(const fias_catalogue_row& row) {
    std::string s =
        std::string(row.packet) + " " + std::to_string(row.packet_code) + " " + row.desc + ":";
    for (int i = 0; i < row.num_fields; i++) {
        s += std::string(" ") + row.fields[i].name + ":" + std::to_string(row.fields[i].type);
    }
    return s;
}

fias_value_t text_value(const std::string& s) {
    fias_value_t v;
    v.str = s;
    return v;
}

std::string text_of(fias_packet_t* p, const char* name) {
    fias_field_t* f = fias_get_field(p, name);
    if (!f) return "<absent>";
    return f->value->str ? *f->value->str : "<no text>";
}

TEST(FiasCatalogue, RowsInFixedOrderWithTheirFields) {
    const char* expected[] = {
        "LS 1 Link start: DA:2 TI:3",
        "LA 2 Link active: DA:2 TI:3",
        "LD 3 Link description: DA:2 TI:3 V#:0 IF:0",
        "LR 4 Link record: RI:0 FL:0",
        "DR 5 Description record: DA:2 TI:3",
        "GI 6 Guest checkin: RN:0 GN:0 GL:0 GS:4",
        "GO 7 Guest checkout: RN:0 GN:0 GL:0 GS:4",
        "RE 8 Room equipment: RN:0 RS:0 CS:1 DN:4",
        "WC 9 Wakeup clear: RN:0 DA:2 TI:3",
        "WR 10 Wakeup record: RN:0 DA:2 TI:3",
        "WA 11 Wakeup answer: RN:0 DA:2 TI:3 AS:0",
        "PA 13 Post answer: AS:0 RN:0 P#:0 DA:2 TI:3",
        "PS 12 Post simple: P#:0 RN:0 PT:0 TA:1 DA:2 TI:3 DU:3 DD:0 PC:0 CT:0",
    };
    int i = 0;
    for (; fias_packets[i].num_fields != 0; i++) {
        ASSERT_LT(i, 13);
        EXPECT_EQ(expected[i], describe(fias_packets[i]));
    }
    EXPECT_EQ(13, i);
    EXPECT_EQ(0, fias_packets[i].packet_code);
}

TEST(FiasPacket, CreateCopiesTheRowWithoutValues) {
    for (int code = 1; code <= 13; code++) {
        fias_packet_ptr p = fias_create_packet(code);
        ASSERT_TRUE(p) << code;
        EXPECT_EQ(code, p->packet_code);
        for (int i = 0; i < FIAS_MAX_FIELDS; i++) {
            EXPECT_FALSE(p->fields[i].value);
            EXPECT_EQ(i >= p->num_fields, p->fields[i].name[0] == '\0') << code << " " << i;
        }
    }
    fias_packet_ptr ps = fias_create_packet(FIAS_PS);
    EXPECT_STREQ("PS", ps->packet);
    EXPECT_STREQ("Post simple", ps->desc);
    EXPECT_EQ(10, ps->num_fields);
    EXPECT_STREQ("CT", ps->fields[9].name);
    for (int code : {0, 14, -1, 1000}) EXPECT_FALSE(fias_create_packet(code)) << code;
}

TEST(FiasPacket, SetIgnoresCaseGetDoesNot) {
    fias_packet_ptr p = fias_create_packet(FIAS_GI);
    fias_value_t v = text_value("101");
    fias_set_packet_field(p.get(), "rn", &v);
    EXPECT_EQ(nullptr, fias_get_field(p.get(), "rn"));
    EXPECT_EQ("101", text_of(p.get(), "RN"));
    EXPECT_EQ("<absent>", text_of(p.get(), "GN"));  // listed but without value

    v.str = "102";
    fias_set_packet_field(p.get(), "RN", &v);
    EXPECT_EQ("102", text_of(p.get(), "RN"));

    fias_set_packet_field(p.get(), "XX", &v);  // no such slot: ignored
    fias_set_packet_field(nullptr, "RN", &v);
    EXPECT_EQ(nullptr, fias_get_field(nullptr, "RN"));
    EXPECT_EQ(nullptr, fias_get_field(p.get(), nullptr));
}

TEST(FiasPacket, TextValueCarriesOnlyText) {
    fias_packet_ptr p = fias_create_packet(FIAS_PS);
    fias_value_t v = text_value("7");
    v.ival = 5;
    v.bval = 1;
    v.date = {9, 12, 31, 0};
    fias_set_packet_field(p.get(), "TA", &v);
    const fias_value_t& got = *fias_get_field(p.get(), "TA")->value;
    EXPECT_EQ("7", *got.str);
    EXPECT_EQ(0u, got.ival);
    EXPECT_EQ(0, got.bval);
    EXPECT_EQ(0, got.date.day);

    fias_value_t n;
    n.ival = 42;
    n.time = {7, 30, 0, 0};
    fias_set_packet_field(p.get(), "DU", &n);
    const fias_value_t& du = *fias_get_field(p.get(), "DU")->value;
    EXPECT_FALSE(du.str);
    EXPECT_EQ(42u, du.ival);
    EXPECT_EQ(30, du.time.min);
}

TEST(FiasParse, DatesTimesNumbersAndFlags) {
    fias_packet_ptr wr = fias_parse_packet("WR|RN12|DA091231|TI070000|", 26);
    ASSERT_TRUE(wr);
    EXPECT_EQ(FIAS_WR, wr->packet_code);
    EXPECT_EQ("12", text_of(wr.get(), "RN"));
    const fias_date_t& d = fias_get_field(wr.get(), "DA")->value->date;
    EXPECT_EQ(0, d.year);  // "09" is read as an octal pair
    EXPECT_EQ(12, d.month);
    EXPECT_EQ(31, d.day);
    const fias_time_t& t = fias_get_field(wr.get(), "TI")->value->time;
    EXPECT_EQ(7, t.hour);
    EXPECT_EQ(0, t.min);

    fias_packet_ptr oct = fias_parse_packet("WC|RN1|DA080807|TI080910|", 0);
    const fias_date_t& od = fias_get_field(oct.get(), "DA")->value->date;
    EXPECT_EQ(0, od.year);
    EXPECT_EQ(0, od.month);
    EXPECT_EQ(7, od.day);
    EXPECT_EQ(10, fias_get_field(oct.get(), "TI")->value->time.sec);

    fias_packet_ptr shortdate = fias_parse_packet("WR|RN12|DA0912|", 0);
    ASSERT_TRUE(shortdate);
    fias_field_t* da = fias_get_field(shortdate.get(), "DA");
    ASSERT_TRUE(da);  // present, but all zero
    EXPECT_EQ(0, da->value->date.month);
    EXPECT_EQ(nullptr, fias_get_field(shortdate.get(), "TI"));

    fias_packet_ptr re = fias_parse_packet("RE|RN5|CS0x10|DNY|", 0);
    EXPECT_EQ(16u, fias_get_field(re.get(), "CS")->value->ival);
    EXPECT_EQ(1, fias_get_field(re.get(), "DN")->value->bval);
    re = fias_parse_packet("RE|RN5|CS010|DNy|", 0);
    EXPECT_EQ(8u, fias_get_field(re.get(), "CS")->value->ival);
    EXPECT_EQ(0, fias_get_field(re.get(), "DN")->value->bval);
}

TEST(FiasParse, TextFieldsAndRecordShape) {
    fias_packet_ptr gi = fias_parse_packet("GI|GN|RN7|RN8|GLEN|\x03", 0);
    ASSERT_TRUE(gi);
    EXPECT_EQ("", text_of(gi.get(), "GN"));   // empty, not absent
    EXPECT_EQ("7", text_of(gi.get(), "RN"));  // first occurrence counts
    EXPECT_EQ("EN", text_of(gi.get(), "GL"));
    EXPECT_EQ("<absent>", text_of(gi.get(), "GS"));

    fias_packet_ptr bare = fias_parse_packet("GI", 2);
    ASSERT_TRUE(bare);
    for (const fias_field_t& f : bare->fields) EXPECT_FALSE(f.value);
    ASSERT_TRUE(fias_parse_packet("GI|", 3));

    EXPECT_FALSE(fias_parse_packet("XX|RN1|", 7));
    EXPECT_FALSE(fias_parse_packet("gi|RN1|", 7));
    EXPECT_FALSE(fias_parse_packet("", 0));
    EXPECT_FALSE(fias_parse_packet(nullptr, 0));
    EXPECT_FALSE(fias_parse_packet("GI|RN101|GNSmith", 0));  // GN never closed
    EXPECT_FALSE(fias_parse_packet("GI|RN101|GN", 0));
}

TEST(FiasParse, UnusedSlotsTakeTheFirstFieldValue) {
    fias_packet_ptr gi = fias_parse_packet("GI|RN101|GNSmith|", 0);
    ASSERT_TRUE(gi);
    for (int i = gi->num_fields; i < FIAS_MAX_FIELDS; i++) {
        ASSERT_TRUE(gi->fields[i].value);
        EXPECT_EQ("101", *gi->fields[i].value->str);
    }
    // The first value not closed, or beginning past the end: no value there.
    for (const char* line : {"GI|R", "GI|XYZ", "GI|||"}) {
        fias_packet_ptr p = fias_parse_packet(line, 0);
        ASSERT_TRUE(p) << line;
        EXPECT_FALSE(p->fields[9].value) << line;
    }
}

TEST(FiasSerialise, NumbersGoOutAsTheirDigitCount) {
    fias_packet_ptr ps = fias_create_packet(FIAS_PS);
    fias_value_t v = text_value("17");
    fias_set_packet_field(ps.get(), "P#", &v);
    fias_value_t ta;
    ta.ival = 1234;
    fias_set_packet_field(ps.get(), "TA", &ta);
    fias_value_t date;
    date.date = {25, 1, 9, 0};
    fias_set_packet_field(ps.get(), "DA", &date);
    fias_value_t du;
    du.time = {0, 3, 25, 0};
    fias_set_packet_field(ps.get(), "DU", &du);
    fias_value_t no_text;  // a text slot set without text is left out
    fias_set_packet_field(ps.get(), "PT", &no_text);
    EXPECT_EQ("PS|P#17|TA4|DA250109|DU000325|", fias_packet_to_str(ps.get()));

    for (auto [n, digits] : {std::pair{0u, "1"}, {498u, "3"}, {25u, "2"}, {4294967295u, "2"}}) {
        fias_packet_ptr p = fias_create_packet(FIAS_RE);
        fias_value_t cs;
        cs.ival = n;
        fias_set_packet_field(p.get(), "CS", &cs);
        EXPECT_EQ(std::string("RE|CS") + digits + "|", fias_packet_to_str(p.get())) << n;
    }

    fias_packet_ptr gi = fias_create_packet(FIAS_GI);
    fias_value_t yes;
    yes.bval = 2;
    fias_set_packet_field(gi.get(), "GS", &yes);
    EXPECT_EQ("GI|GSY|", fias_packet_to_str(gi.get()));
    EXPECT_EQ("LA|", fias_packet_to_str(fias_create_packet(FIAS_LA).get()));
    EXPECT_EQ("", fias_packet_to_str(nullptr));
}

// tests/data/fias_records.txt: pairs of lines "< record" and "> text of the
// parsed record written back"; "< record" followed by "> null" must not parse.
TEST(FiasGolden, SampleRecordsParseAndPrintBack) {
    std::ifstream in(source_dir() + "/tests/data/fias_records.txt");
    ASSERT_TRUE(in) << "sample records missing";
    std::string line, record;
    int checked = 0;
    while (std::getline(in, line)) {
        if (line.rfind("< ", 0) == 0) {
            record = line.substr(2);
        } else if (line.rfind("> ", 0) == 0) {
            fias_packet_ptr p = fias_parse_packet(record.c_str(), static_cast<int>(record.size()));
            std::string got = p ? fias_packet_to_str(p.get()) : "null";
            EXPECT_EQ(line.substr(2), got) << record;
            if (p) {
                // What was written parses again to the same text.
                fias_packet_ptr again = fias_parse_packet(got.c_str(), 0);
                ASSERT_TRUE(again) << got;
            }
            checked++;
        }
    }
    EXPECT_GE(checked, 10);
}

}  // namespace
