// The posting sender ([fixes] posting, fixed at start): the one place where
// records of the outbox reach the PMS. The billing cycle, immediate posting,
// the dial codes and the wake-up dialer only put records into the outbox
// and wake the sender.
//
// It takes the outbox's records in order, writes one and, for a posting
// ("PS"), waits for its answer ("PA") before it writes the next; reports
// ("WA", "RE", "WR", "WC") get no answer and never wait. A posting not
// answered within the answer time-out counts as a broken link: the link is
// ended, and on the next one the same posting goes out first, with its
// "P#". After its fifth send a posting no longer holds the sender: it stays
// waiting, its number reserved, logged once at ERROR.
//
// The sender's own changes to the outbox (a record written, an answer
// settled by the record worker) join the states file's group of changes,
// committed about every 10 ms by the sender (states_connection::join_group):
// the next posting leaves once the answer is settled, without waiting for a
// commit. A crash loses at most that group: the postings in it go out again
// under their own "P#".
//
// Its work is done in turns, one at a time: mostly on its own thread, and
// right after an answer on the thread that settled it, so that the next
// posting leaves without a hand-over between threads.
//
// Contract: main makes one sender when [fixes] posting is on at start and
// runs run() on a thread of its own; any thread may call the other methods.
// No lock of the states file is held while the sender writes to the PMS.
#pragma once

#include <chrono>
#include <condition_variable>
#include <deque>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "billing/night_audit.h"
#include "config.h"
#include "fias/link.h"
#include "states/states.h"
#include "stop_flag.h"
#include "thread_annotations.h"

class posting_sender {
  public:
    posting_sender(const config_loader& configs, pms_link& link, states_file& states,
                   audit_window& audit)
        : configs_(configs), link_(link), states_(states), audit_(audit) {}
    posting_sender(const posting_sender&) = delete;
    posting_sender& operator=(const posting_sender&) = delete;

    // The thread body: returns once `stop` is requested, with the group
    // committed.
    void run(stop_flag& stop);
    // Something is new: records in the outbox, a link that became active,
    // the end of a night audit.
    void wake();
    // The answer to posting `id` was settled (billing/answer.h).
    void answered(long id);
    // Waits until the sender has settled an answer since `seen` (a value of
    // progress()) or `timeout` has passed.
    unsigned long progress();
    void wait_progress(unsigned long seen, std::chrono::milliseconds timeout);

    // The passes that put a room's cached calls into the outbox (the cycle
    // and immediate posting) claim the room first, so that a call is put
    // once: claim() is false while another pass holds the room, and
    // release() gives rooms back once their postings are stored. A pass that
    // finds a room claimed may leave it to the cycle (leave), which takes the
    // rooms left (take_left) before it ends.
    bool claim(const std::string& room);
    void release(const std::vector<std::string>& rooms);
    void leave(const std::vector<std::string>& rooms);
    std::vector<std::string> take_left();

  private:
    using clock_type = std::chrono::steady_clock;
    // The posting on the wire that waits for its answer.
    struct in_flight {
        long id = 0;
        std::string seq;
        std::string room;
        int sends = 0;  // with this one
        clock_type::time_point sent;
    };

    // One turn: settles the answers come in, writes what may go out, and
    // returns when the sender next has something to do unless woken.
    clock_type::time_point take_turn(const stop_flag* stop) REQUIRES(turn_);

    const config_loader& configs_;
    pms_link& link_;
    states_file& states_;
    audit_window& audit_;

    // Held for a turn; taken before mutex_ when both are.
    annotated_mutex turn_;
    unsigned link_number_ GUARDED_BY(turn_) = 0;  // the link `due_` is for
    std::deque<states_file::outbox_entry> due_ GUARDED_BY(turn_);
    std::optional<in_flight> waiting_ GUARDED_BY(turn_);
    std::set<long> given_up_ GUARDED_BY(turn_);  // logged at ERROR already

    annotated_mutex mutex_;
    std::condition_variable_any changed_;     // for the sender's thread
    std::condition_variable_any progressed_;  // for wait_progress()
    bool woken_ GUARDED_BY(mutex_) = false;
    // While the sender's thread sleeps: until when, unless woken.
    clock_type::time_point sleeps_until_ GUARDED_BY(mutex_) = clock_type::time_point::min();
    // When the last turn after an answer was taken (answered()).
    clock_type::time_point answer_turn_ GUARDED_BY(mutex_) = clock_type::time_point::min();
    std::set<long> answered_ GUARDED_BY(mutex_);  // since the sender last looked
    unsigned long progress_ GUARDED_BY(mutex_) = 0;
    std::vector<std::string> left_ GUARDED_BY(mutex_);
    std::set<std::string> claimed_ GUARDED_BY(mutex_);
};
