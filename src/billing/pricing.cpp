#include "billing/pricing.h"

#include <ctime>

#include "fias/charset.h"
#include "fias/codec.h"

std::string dialled_digits(const config& cfg, std::string_view number) {
    return fias_dialled(std::string(number), {cfg.fixes.numbers, 0, cfg.plus_prefix});
}

int32_t call_start_date(const char* date, const char* format) {
    struct tm t {};
    if (!date || !format || !strptime(date, format, &t) || t.tm_mday == 0) {
        const time_t now = time(nullptr);
        localtime_r(&now, &t);
    }
    return (t.tm_year + 1900) * 10000 + (t.tm_mon + 1) * 100 + t.tm_mday;
}

call_price price_call(const config& cfg, std::string_view number, int64_t billable, int32_t date) {
    call_price p;
    if (!cfg.rating.tariffs) return p;
    p.outcome = call_price::unrated;
    const tariff* table = cfg.tariff.get();
    if (!table) return p;
    const tariff_line* line = table->find(dialled_digits(cfg, number), date);
    if (!line) return p;
    p.outcome = call_price::priced;
    p.line = table->name() + ":" + std::to_string(line->line);
    p.prefix = table->prefix(*line);
    p.description = table->description(*line);
    p.call_type = line->call_type;
    p.billed = billed_seconds(line->terms, billable < 0 ? 0 : billable);
    p.amount = price_minor(line->terms, cfg.rating.rule, billable < 0 ? 0 : billable);
    return p;
}

std::string clear_text(const config& cfg, std::string_view description) {
    // 20 characters of UTF-8: a continuation byte belongs to the one before.
    size_t end = 0;
    for (int chars = 0; end < description.size(); end++)
        if ((static_cast<unsigned char>(description[end]) & 0xC0) != 0x80 && ++chars > 20) break;
    std::string_view cut = description.substr(0, end);
    if (cfg.pmsencoding && !cfg.pmsencoding->empty()) return from_utf8(cut, *cfg.pmsencoding);
    return std::string(cut);
}

std::string amount_text(int64_t minor, int decimals) {
    std::string digits = std::to_string(minor);
    if (decimals <= 0) return digits;
    if (digits.size() <= static_cast<size_t>(decimals))
        digits.insert(0, static_cast<size_t>(decimals) + 1 - digits.size(), '0');
    digits.insert(digits.size() - static_cast<size_t>(decimals), ".");
    return digits;
}
