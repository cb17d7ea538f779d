// The packet model and the record text codec; the parser cases live in
// tests/data/fias_records.txt.
#include <gtest/gtest.h>

#include <fstream>

#include "fias/codec.h"
#include "fias/packet.h"
#include "support.h"

namespace {

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
