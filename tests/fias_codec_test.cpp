// The record parser and printer on the sample records of
// tests/data/fias_records.txt.
#include <gtest/gtest.h>

#include <fstream>

#include "fias/codec.h"
#include "fias/packet.h"
#include "support.h"

namespace {

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
