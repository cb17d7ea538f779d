// The record catalogue, the packet model and the record text codec; the parser
// cases live in tests/data/fias_records.txt.
#include <gtest/gtest.h>

#include <fstream>
#include <string>
#include <vector>

#include "fias/codec.h"
#include "fias/packet.h"
#include "support.h"

namespace {

// "TT code desc: NAME:type ..." of a catalogue row or of a packet.
std::string describe(const auto& row) {
    std::string s =
        std::string(row.packet) + " " + std::to_string(row.packet_code) + " " + row.desc + ":";
    for (int i = 0; i < row.num_fields; i++)
        s += std::string(" ") + row.fields[i].name + ":" + std::to_string(row.fields[i].type);
    return s;
}

TEST(FiasCatalogue, RowsInFixedOrderAndPacketsMadeFromThem) {
    const std::vector<std::string> expected = {
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
    std::vector<std::string> rows, made;
    for (const fias_catalogue_row* row = fias_packets; row->num_fields != 0; row++) {
        rows.push_back(describe(*row));
        fias_packet_ptr p = fias_create_packet(row->packet_code);
        ASSERT_TRUE(p) << row->packet;
        made.push_back(describe(*p));
        for (int i = 0; i < FIAS_MAX_FIELDS; i++) {
            EXPECT_FALSE(p->fields[i].value) << row->packet << i;
            if (i >= p->num_fields) {
                EXPECT_STREQ("", p->fields[i].name) << row->packet << i;
            }
        }
    }
    EXPECT_EQ(expected, rows);
    EXPECT_EQ(expected, made);
    for (int code : {0, 14, -1}) EXPECT_FALSE(fias_create_packet(code)) << code;
}

TEST(FiasPacket, SetIgnoresCaseAndFillsTheLastSlotGetIsExact) {
    fias_packet_ptr p = fias_create_packet(FIAS_GI);
    fias_value_t v;
    v.str = "101";
    fias_set_packet_field(p.get(), "rn", &v);
    EXPECT_EQ(nullptr, fias_get_field(p.get(), "rn"));
    ASSERT_TRUE(fias_get_field(p.get(), "RN"));
    EXPECT_EQ("101", *fias_get_field(p.get(), "RN")->value->str);
    EXPECT_EQ(nullptr, fias_get_field(p.get(), "GN"));  // a slot without value
    // The six unused slots are all named "": the last one takes the value.
    fias_set_packet_field(p.get(), "", &v);
    EXPECT_EQ(&p->fields[9], fias_get_field(p.get(), ""));
    fias_set_packet_field(p.get(), "XX", &v);  // no such slot: ignored
    EXPECT_EQ("GI|RN101|101|", fias_packet_to_str(p.get()));
}

TEST(FiasPacket, TextValueCarriesOnlyTextAndNumbersGoOutAsDigitCounts) {
    fias_packet_ptr p = fias_create_packet(FIAS_PS);
    fias_value_t v;
    v.str = "7";
    v.ival = 5;
    v.bval = 1;
    v.date = {9, 12, 31, 0};
    v.time = {7, 30, 0, 0};
    fias_set_packet_field(p.get(), "P#", &v);
    const fias_value_t& got = *fias_get_field(p.get(), "P#")->value;
    EXPECT_EQ("7", *got.str);
    EXPECT_EQ(0u, got.ival);
    EXPECT_EQ(0, got.bval);
    EXPECT_EQ(0, got.date.day);
    EXPECT_EQ(0, got.time.hour);

    fias_value_t ta, no_text;
    ta.ival = 1234;
    fias_set_packet_field(p.get(), "TA", &ta);
    fias_set_packet_field(p.get(), "PT", &no_text);  // a text slot without text is left out
    EXPECT_EQ("PS|P#7|TA4|", fias_packet_to_str(p.get()));
}

TEST(FiasCodec, SampleRecordsParseAndPrintBack) {
    std::ifstream in(source_dir() + "/tests/data/fias_records.txt");
    ASSERT_TRUE(in) << "sample records missing";
    int checked = 0;
    for (std::string line; std::getline(in, line);) {
        size_t arrow = line.find(" => ");
        if (line.empty() || line[0] == '#' || arrow == std::string::npos) continue;
        std::string record = line.substr(0, arrow);
        fias_packet_ptr p = fias_parse_packet(record.c_str(), static_cast<int>(record.size()));
        EXPECT_EQ(line.substr(arrow + 4), p ? fias_packet_to_str(p.get()) : "null") << record;
        checked++;
    }
    EXPECT_GE(checked, 25);
}

}  // namespace
