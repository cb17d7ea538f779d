#include "rating/price.h"

int64_t billed_seconds(const price_terms& t, int64_t billable) {
    if (billable <= static_cast<int64_t>(t.free)) return 0;
    const int64_t first = t.first ? t.first : 1;
    const int64_t next = t.next ? t.next : 1;
    if (billable <= first) return first;
    return first + (billable - first + next - 1) / next * next;
}

int64_t price_minor(const price_terms& t, const price_rule& r, int64_t billable) {
    const int64_t billed = billed_seconds(t, billable);
    if (billed == 0) return 0;
    __int128 scale = 1;
    for (int i = 0; i < r.decimals; i++) scale *= 10;
    // micro-units per minute x seconds, hundredths of a percent
    const __int128 num = (static_cast<__int128>(t.connect_micro) * 60 +
                          static_cast<__int128>(t.rate_micro) * billed) *
                         (10000 + r.markup_hundredths) * scale;
    const __int128 den = static_cast<__int128>(60) * 10000 * 1000000;
    return static_cast<int64_t>((num + den / 2) / den);
}

std::optional<int64_t> parse_scaled(std::string_view text, int max_decimals, int64_t max_scaled) {
    if (text.empty()) return std::nullopt;
    int64_t whole = 0;
    size_t i = 0;
    for (; i < text.size() && text[i] >= '0' && text[i] <= '9'; i++) {
        whole = whole * 10 + (text[i] - '0');
        if (whole > max_scaled) return std::nullopt;
    }
    if (i == 0) return std::nullopt;
    int64_t fraction = 0;
    int decimals = 0;
    if (i < text.size()) {
        if (text[i] != '.' || i + 1 == text.size()) return std::nullopt;
        for (i++; i < text.size(); i++) {
            if (text[i] < '0' || text[i] > '9' || ++decimals > max_decimals) return std::nullopt;
            fraction = fraction * 10 + (text[i] - '0');
        }
    }
    for (; decimals < max_decimals; decimals++) fraction *= 10;
    __int128 scale = 1;
    for (int d = 0; d < max_decimals; d++) scale *= 10;
    const __int128 value = static_cast<__int128>(whole) * scale + fraction;
    if (value > max_scaled) return std::nullopt;
    return static_cast<int64_t>(value);
}
