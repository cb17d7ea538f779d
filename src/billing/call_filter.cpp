#include "billing/call_filter.h"

#include <strings.h>

#include <algorithm>

namespace {

bool all_digits(std::string_view s) {
    return !s.empty() &&
           std::all_of(s.begin(), s.end(), [](char c) { return c >= '0' && c <= '9'; });
}

std::optional<free_number> parse_one(const std::string& text) {
    if (text.empty()) return std::nullopt;
    // A pattern holds no blank and no character that a dialled number never has.
    for (char c : text)
        if (static_cast<unsigned char>(c) <= ' ' || c == ',' || c == '|') return std::nullopt;
    if (strcasecmp(text.c_str(), "rooms") == 0) return free_number{free_number::rooms, "", ""};
    if (text.back() == '*') {
        std::string prefix = text.substr(0, text.size() - 1);
        if (prefix.empty()) return std::nullopt;
        return free_number{free_number::prefix, std::move(prefix), ""};
    }
    const size_t dash = text.find('-');
    if (dash != std::string::npos) {
        std::string low = text.substr(0, dash), high = text.substr(dash + 1);
        if (!all_digits(low) || !all_digits(high) || low.size() != high.size() || low > high)
            return std::nullopt;
        return free_number{free_number::range, std::move(low), std::move(high)};
    }
    return free_number{free_number::exact, text, ""};
}

bool is_answered(std::string_view disposition) {
    return disposition.size() == 8 && strncasecmp(disposition.data(), "ANSWERED", 8) == 0;
}

}  // namespace

std::vector<free_number> parse_free_numbers(const std::vector<std::string>& patterns,
                                            std::vector<std::string>* bad) {
    std::vector<free_number> out;
    for (const std::string& text : patterns) {
        if (std::optional<free_number> p = parse_one(text))
            out.push_back(std::move(*p));
        else if (bad)
            bad->push_back(text);
    }
    return out;
}

bool matches_free_number(const free_number& p, std::string_view number) {
    switch (p.kind) {
        case free_number::exact:
            return number == p.low;
        case free_number::prefix:
            return number.starts_with(p.low);
        case free_number::range:
            // Same length and digits only: text order is number order.
            return number.size() == p.low.size() && all_digits(number) && number >= p.low &&
                   number <= p.high;
        case free_number::rooms:
            return false;
    }
    return false;
}

call_filter::call_filter(const config& cfg, const std::vector<std::string>& rooms)
    : post_unanswered_(cfg.posting.post_unanswered),
      min_billsec_(cfg.posting.min_billsec),
      patterns_(parse_free_numbers(cfg.posting.free_numbers)) {
    for (const free_number& p : patterns_)
        rooms_pattern_ = rooms_pattern_ || p.kind == free_number::rooms;
    if (rooms_pattern_) {
        room_numbers_.insert(rooms.begin(), rooms.end());
        for (const auto& [room, list] : cfg.extensions) {
            room_numbers_.insert(room);
            room_numbers_.insert(list.begin(), list.end());
        }
    }
    active_ = !post_unanswered_ || min_billsec_ > 0 || !patterns_.empty();
}

const char* call_filter::reason(const filtered_call& call) const {
    if (!active_) return nullptr;
    for (const free_number& p : patterns_)
        if (matches_free_number(p, call.dst)) return "free number";
    if (rooms_pattern_ && (call.dst == call.room || room_numbers_.count(call.dst) > 0))
        return "free number";
    if (!post_unanswered_) {
        if (call.billsec <= 0 || (call.disposition && !is_answered(*call.disposition)))
            return "unanswered";
    }
    if (call.billsec < min_billsec_) return "shorter than min_billsec";
    return nullptr;
}
