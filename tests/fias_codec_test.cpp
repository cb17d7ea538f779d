// The record parser and printer on the sample records of
// tests/data/fias_records.txt, and what the printer makes of values that no
// field may carry.
#include <gtest/gtest.h>

#include <fstream>
#include <optional>

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

// One value in a text field ("CT") and in the dialled digits ("DD") of a
// posting, without and with [fixes] numbers. What is written parses back as
// the same fields: nothing can end a field or the record.
TEST(FiasCodec, NoWrittenFieldCarriesASeparatorOrAControlByte) {
    using opt = std::optional<std::string>;
    const std::string digits(5000, '7'), letters(5000, 'x');
    const struct {
        std::string value;
        std::string ct;
        opt dd, dd_numbers;  // nullopt: left out
        bool dropped, dropped_numbers;
    } cases[] = {
        {"555|RN102|TA1", "555 RN102 TA1", "555RN102TA1", "5551021", true, true},
        {"12\x02"
         "34\x03",
         "12 34 ", "1234", "1234", true, true},
        {std::string("5\0"
                     "6",
                     3),
         "5 6", "56", "56", true, true},
        {"55\r\nGI|RN1", "55  GI RN1", "55GIRN1", "551", true, true},
        {"\x7f", " ", std::nullopt, std::nullopt, true, true},
        {"M\xfcller \xff", "M\xfcller \xff", "M\xfcller \xff", std::nullopt, false, true},
        {"", "", std::nullopt, std::nullopt, false, false},
        {"+49 30 1234", "+49 30 1234", "+49 30 1234", "01149301234", false, true},
        {"+4930123456789012345678", "+4930123456789012345678", "+4930123456789012345678",
         "01149301234567890123", false, false},
        {letters, letters, letters, std::nullopt, false, true},
        {digits, digits, digits, digits.substr(0, 20), false, false},
    };
    for (const auto& c : cases) {
        for (const bool numbers : {false, true}) {
            SCOPED_TRACE(c.value.substr(0, 40) + (numbers ? " (numbers)" : ""));
            fias_packet_ptr p = fias_create_packet(FIAS_PS);
            for (const char* field : {"CT", "DD"}) {
                fias_value_t v;
                v.str = c.value;
                fias_set_packet_field(p.get(), field, &v);
            }
            const fias_codec_options opts{numbers, 0, "011"};
            const std::string unchecked = fias_packet_to_str(p.get(), opts);
            EXPECT_EQ(numbers ? c.dropped_numbers : c.dropped,
                      fias_check_values(p.get(), opts).dialled_dropped);
            const std::string text = fias_packet_to_str(p.get(), opts);
            EXPECT_EQ(unchecked, text);
            for (char ch : text) EXPECT_FALSE(static_cast<unsigned char>(ch) < 0x20 || ch == 0x7f);
            fias_packet_ptr back = fias_parse_packet(text.c_str(), static_cast<int>(text.size()));
            ASSERT_TRUE(back);
            const fias_field_t* ct = fias_get_field(back.get(), "CT");
            ASSERT_TRUE(ct);
            EXPECT_EQ(c.ct, *ct->value->str);
            const fias_field_t* dd = fias_get_field(back.get(), "DD");
            const opt want = numbers ? c.dd_numbers : c.dd;
            EXPECT_EQ(want, dd ? opt(*dd->value->str) : std::nullopt);
            EXPECT_EQ(std::string::npos, text.find("|RN")) << "no field but those set";
        }
    }
}

// A number field that is not a number is left out; dates and times given as
// text (a wake-up result echoes its request's) go out as that text.
TEST(FiasCodec, NumberFieldsThatAreNoNumbersAreLeftOut) {
    fias_packet_ptr p = fias_create_packet(FIAS_PS);
    auto set = [&](const char* field, const char* text) {
        fias_value_t v;
        v.str = text;
        fias_set_packet_field(p.get(), field, &v);
    };
    set("P#", "00a1");
    set("RN", "101");
    set("DA", "261125");
    set("TI", "0630");
    set("DU", "1|2");
    EXPECT_EQ("PS|RN101|DA261125|TI0630|", fias_packet_to_str(p.get()));
    set("P#", "-12");
    EXPECT_EQ("PS|P#-12|RN101|DA261125|TI0630|", fias_packet_to_str(p.get()));
}

}  // namespace
