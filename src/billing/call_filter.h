// The posting filter ([posting]; its patterns are read by config.h): which calls a guest pays for.
// A call kept out is never sent to the PMS; the posting passes take it out of their source (the
// cache deletes it, services:billcalls rows get their billmark with "FREE") and log it at NOTICE.
//
// Contract: pure; a call_filter is made per pass from one configuration and
// the room list of that pass, and used by one thread.
#pragma once

#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "config.h"

// A call as the filter sees it. `disposition` is absent for rows of
// services:billcalls, which carry none.
struct filtered_call {
    std::string_view room;
    std::string_view dst;
    int billsec = 0;
    std::optional<std::string_view> disposition;
};

class call_filter {
  public:
    // `rooms`: the rooms of the pass; with the extensions of `cfg` they are
    // what the pattern "rooms" stands for.
    call_filter(const config& cfg, const std::vector<std::string>& rooms);
    // Whether the filter can keep any call out.
    bool active() const { return active_; }
    // Why `call` is not posted ("free number", "unanswered", "shorter than
    // min_billsec"), or null when it is posted.
    const char* reason(const filtered_call& call) const;

  private:
    bool post_unanswered_;
    int min_billsec_;
    std::vector<free_number> patterns_;
    bool rooms_pattern_ = false;
    std::set<std::string, std::less<>> room_numbers_;  // rooms and their extensions
    bool active_;
};
