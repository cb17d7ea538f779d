#include "billing/sender.h"

#include <deque>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "logger.h"
#include "metrics.h"

namespace {

using clock_type = std::chrono::steady_clock;

// Records fetched from the outbox at a time.
constexpr int batch = 256;

// The posting on the wire that waits for its answer.
struct in_flight {
    long id = 0;
    std::string seq;
    std::string room;
    int sends = 0;  // with this one
    clock_type::time_point sent;
};

}  // namespace

void posting_sender::wake() {
    mutex_lock guard(mutex_);
    woken_ = true;
    changed_.notify_all();
}

void posting_sender::answered(long id) {
    mutex_lock guard(mutex_);
    answered_.insert(id);
    ++progress_;
    woken_ = true;
    changed_.notify_all();
}

bool posting_sender::claim(const std::string& room) {
    mutex_lock guard(mutex_);
    return claimed_.insert(room).second;
}

void posting_sender::release(const std::vector<std::string>& rooms) {
    mutex_lock guard(mutex_);
    for (const std::string& room : rooms) claimed_.erase(room);
}

void posting_sender::leave(const std::vector<std::string>& rooms) {
    mutex_lock guard(mutex_);
    left_.insert(left_.end(), rooms.begin(), rooms.end());
}

std::vector<std::string> posting_sender::take_left() {
    mutex_lock guard(mutex_);
    return std::exchange(left_, {});
}

unsigned long posting_sender::progress() {
    mutex_lock guard(mutex_);
    return progress_;
}

void posting_sender::wait_progress(unsigned long seen, std::chrono::milliseconds timeout) {
    const auto until = clock_type::now() + timeout;
    mutex_lock guard(mutex_);
    while (progress_ == seen && clock_type::now() < until) changed_.wait_until(mutex_, until);
}

void posting_sender::run(stop_flag& stop) {
    unsigned link = 0;  // the number of the link the batch is for
    std::deque<outbox_entry> due;
    std::optional<in_flight> waiting;
    std::set<long> given_up;  // logged at ERROR already
    outbox_store& outbox = states_.outbox();
    while (!stop.requested()) {
        outbox.flush_group(true);
        std::set<long> settled;
        {
            mutex_lock guard(mutex_);
            settled.swap(answered_);
            woken_ = false;
        }
        if (waiting && settled.count(waiting->id)) waiting.reset();
        for (auto it = due.begin(); it != due.end();)
            it = settled.count(it->id) ? due.erase(it) : it + 1;

        // How long to sleep unless woken: until the group is due, the
        // answer's time-out, or a second.
        auto until = clock_type::now() + std::chrono::seconds(1);
        const auto rest = [&] {
            mutex_lock guard(mutex_);
            if (!woken_ && !stop.requested()) changed_.wait_until(mutex_, until);
        };
        const bool open = link_.active() && !audit_.holds_postings();
        if (open && link_.link_number() != link) {
            link = link_.link_number();
            due.clear();
            waiting.reset();
        }
        if (!open) {
            due.clear();
            waiting.reset();
            until = clock_type::now() + std::chrono::milliseconds(50);
            rest();
            continue;
        }
        if (waiting) {
            const config_ptr cfg = configs_.current();
            const auto deadline = waiting->sent + cfg->answer_timeout();
            if (clock_type::now() < deadline) {
                until = std::min(deadline, clock_type::now() + states_connection::group_period);
                rest();
                continue;
            }
            if (waiting->sends >= outbox_store::max_sends) {
                if (given_up.insert(waiting->id).second)
                    LOG(L_ERROR,
                        "Posting P#%s of room %s was sent %d times and never answered: it "
                        "stays waiting, its number is not used again, and the next posting goes "
                        "out",
                        waiting->seq.c_str(), waiting->room.c_str(), waiting->sends);
                waiting.reset();
                continue;
            }
            LOG(L_WARNING,
                "Posting P#%s of room %s has had no answer for %lld s: the link to the PMS is "
                "given up and made again",
                waiting->seq.c_str(), waiting->room.c_str(),
                static_cast<long long>(cfg->answer_timeout().count()));
            waiting.reset();
            due.clear();
            link_.end();
            continue;
        }
        if (due.empty()) {
            std::vector<outbox_entry> fetched;
            outbox.sendable(link, batch, fetched);
            due.assign(fetched.begin(), fetched.end());
        }
        if (due.empty()) {
            // Nothing more to do: what the group holds is committed now, so
            // that other writers of the file never wait for it.
            outbox.flush_group(false);
            rest();
            continue;
        }
        outbox_entry e = std::move(due.front());
        due.pop_front();
        const bool posting = e.kind == "PS";
        if (posting && e.sends > 0) {
            metrics::posting_resent();
            LOG(L_WARNING,
                "Posting P#%s of room %s (%s) sent again: its answer was lost with the link",
                e.seq.c_str(), e.room.c_str(), e.number.c_str());
        }
        if (link_.send_raw(e.record.c_str()) < 0) {
            LOG(L_ERROR, "Unable to send the %s record of room %s from the outbox", e.kind.c_str(),
                e.room.c_str());
            // The link is lost: its reader notices, and the record goes out
            // on the next one.
            due.clear();
            until = clock_type::now() + std::chrono::milliseconds(100);
            rest();
            continue;
        }
        outbox.written(e.id, link, true);
        if (posting) waiting = in_flight{e.id, e.seq, e.room, e.sends + 1, clock_type::now()};
    }
    outbox.flush_group(false);
}
