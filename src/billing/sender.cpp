#include "billing/sender.h"

#include <deque>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "logger.h"
#include "metrics.h"

namespace {

// Records fetched from the outbox at a time.
constexpr int batch = 256;

}  // namespace

void posting_sender::wake() {
    mutex_lock guard(mutex_);
    woken_ = true;
    changed_.notify_all();
}

void posting_sender::answered(long id) {
    {
        mutex_lock guard(mutex_);
        answered_.insert(id);
        ++progress_;
        progressed_.notify_all();
    }
    // The next posting leaves from here when no turn is under way; the
    // sender's thread sleeps on, as nothing it waits for came sooner.
    if (turn_.try_lock()) {
        take_turn(nullptr);
        turn_.unlock();
        // What the turn changed joined the group, which the sender's thread
        // commits: it is woken if it would sleep past the group's time, or
        // is between turns (its next sleep was reckoned before this one).
        mutex_lock guard(mutex_);
        answer_turn_ = clock_type::now();
        if (sleeps_until_ != clock_type::time_point::min() &&
            sleeps_until_ <= clock_type::now() + states_connection::group_period)
            return;
    }
    wake();
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
    while (progress_ == seen && clock_type::now() < until) progressed_.wait_until(mutex_, until);
}

void posting_sender::run(stop_flag& stop) {
    while (!stop.requested()) {
        clock_type::time_point until;
        {
            // While answers come, the turns taken after them send and commit
            // the group: the thread only watches that they go on, and so
            // never holds a turn that an answer's thread would wait for.
            mutex_lock guard(mutex_);
            until = answer_turn_ + states_connection::group_period;
            if (woken_ || answer_turn_ == clock_type::time_point::min() ||
                until <= clock_type::now())
                until = clock_type::time_point::min();
        }
        if (until == clock_type::time_point::min()) {
            mutex_lock turn(turn_);
            until = take_turn(&stop);
        }
        mutex_lock guard(mutex_);
        sleeps_until_ = until;
        if (!woken_ && !stop.requested()) changed_.wait_until(mutex_, until);
        sleeps_until_ = clock_type::time_point::min();
    }
    mutex_lock turn(turn_);
    states_.outbox().flush_group(false);
}

posting_sender::clock_type::time_point posting_sender::take_turn(const stop_flag* stop) {
    outbox_store& outbox = states_.outbox();
    for (;;) {
        if (stop && stop->requested()) return clock_type::now();
        std::set<long> settled;
        {
            mutex_lock guard(mutex_);
            settled.swap(answered_);
            woken_ = false;
        }
        if (waiting_ && settled.count(waiting_->id)) waiting_.reset();
        for (auto it = due_.begin(); it != due_.end();)
            it = settled.count(it->id) ? due_.erase(it) : it + 1;

        const auto now = clock_type::now();
        const bool open = link_.active() && !audit_.holds_postings();
        if (open && link_.link_number() != link_number_) {
            link_number_ = link_.link_number();
            due_.clear();
            waiting_.reset();
        }
        if (!open) {
            due_.clear();
            waiting_.reset();
            outbox.flush_group(true);
            return now + std::chrono::milliseconds(50);
        }
        if (waiting_) {
            const config_ptr cfg = configs_.current();
            const auto deadline = waiting_->sent + cfg->answer_timeout();
            if (now < deadline) {
                // The group is committed here, once the posting is out, while
                // the PMS works on its answer: never between an answer and
                // the next posting.
                outbox.flush_group(true);
                return std::min(deadline, now + states_connection::group_period);
            }
            if (waiting_->sends >= outbox_store::max_sends) {
                if (given_up_.insert(waiting_->id).second)
                    LOG(L_ERROR,
                        "Posting P#%s of room %s was sent %d times and never answered: it "
                        "stays waiting, its number is not used again, and the next posting goes "
                        "out",
                        waiting_->seq.c_str(), waiting_->room.c_str(), waiting_->sends);
                waiting_.reset();
                continue;
            }
            LOG(L_WARNING,
                "Posting P#%s of room %s has had no answer for %lld s: the link to the PMS is "
                "given up and made again",
                waiting_->seq.c_str(), waiting_->room.c_str(),
                static_cast<long long>(cfg->answer_timeout().count()));
            waiting_.reset();
            due_.clear();
            link_.end();
            continue;
        }
        if (due_.empty()) {
            std::vector<outbox_entry> fetched;
            outbox.sendable(link_number_, batch, fetched);
            due_.assign(fetched.begin(), fetched.end());
        }
        if (due_.empty()) {
            // Nothing more to do: what the group holds is committed now, so
            // that other writers of the file never wait for it.
            outbox.flush_group(false);
            return now + std::chrono::seconds(1);
        }
        outbox_entry e = std::move(due_.front());
        due_.pop_front();
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
            due_.clear();
            outbox.flush_group(true);
            return clock_type::now() + std::chrono::milliseconds(100);
        }
        outbox.written(e.id, link_number_, true);
        if (posting) waiting_ = in_flight{e.id, e.seq, e.room, e.sends + 1, clock_type::now()};
    }
}
