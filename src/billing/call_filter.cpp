#include "billing/call_filter.h"

#include <strings.h>

#include <algorithm>

namespace {

bool is_answered(std::string_view disposition) {
    return disposition.size() == 8 && strncasecmp(disposition.data(), "ANSWERED", 8) == 0;
}

}  // namespace

call_filter::call_filter(const config& cfg, const std::vector<std::string>& rooms)
    : post_unanswered_(cfg.posting.post_unanswered),
      min_billsec_(cfg.posting.min_billsec),
      patterns_(cfg.posting.free_numbers) {
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
