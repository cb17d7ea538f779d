// The tariff file: any text is either refused with reasons or becomes a
// table whose lookups keep their promises. Must never crash or hang.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "rating/tariff.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    std::vector<std::string> reasons;
    tariff_ptr t = tariff::parse(text, "tariffs.csv", reasons);
    if (!t) {
        if (reasons.empty()) __builtin_trap();
        for (const std::string& r : reasons)
            if (r.rfind("tariffs.csv:", 0) != 0) __builtin_trap();
        return 0;
    }
    if (!reasons.empty()) __builtin_trap();
    // Numbers made of the input's digits, looked up on three dates.
    std::string digits;
    for (char c : text)
        if (c >= '0' && c <= '9') digits.push_back(c);
    for (size_t from = 0; from < digits.size() && from < 64; from += 7) {
        const std::string number = digits.substr(from, 24);
        for (int32_t date : {0, 20240601, 99991231}) {
            const tariff_line* l = t->find(number, date);
            if (!l) continue;
            const std::string_view prefix = t->prefix(*l);
            if (prefix.empty() || number.compare(0, prefix.size(), prefix) != 0 ||
                l->valid_from > date)
                __builtin_trap();
            for (char c : t->description(*l))
                if (static_cast<unsigned char>(c) < 0x20 || c == 0x7F || c == '|') __builtin_trap();
            for (int64_t seconds : {int64_t{0}, int64_t{59}, int64_t{86400}})
                if (price_minor(l->terms, {4, 100000}, seconds) < 0) __builtin_trap();
        }
    }
    return 0;
}
