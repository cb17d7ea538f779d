// The outbox of the states file: the records that must reach the PMS, each
// written here before it goes on the wire, and the last posting number used
// (tables `outbox` and `sequence`; states.h). A posting waits here for its
// answer, a report ("WA", "RE") until it was written whole; an entry whose
// mark is still due stays until the mark ran. The tables are made when first
// used; at that moment every entry counts as written on no link, so that the
// postings a previous run wrote and nobody answered go out once more.
//
// On the connection of the wake-up bookings: put() can run inside a
// states_transaction with their changes.
#pragma once

#include <optional>
#include <set>
#include <string>
#include <vector>

#include "states/connection.h"

// The mark_key of a minibar posting (dialcodes/dialcodes.h): its answer
// settles it and runs no services:billok and no cache change.
inline constexpr const char* minibar_outbox_key = "minibar";

struct outbox_entry {
    long id = 0;
    std::string kind;  // "PS", "WA" or "RE"
    std::string seq;   // the "P#" of a posting
    std::string room;
    std::string extension;  // that made the call, with [extensions]; else ""
    std::string number;     // the number called ("DD")
    std::string date;       // of the call or report, as its database gave it
    std::string time;
    std::string record;    // the text that goes on the wire
    std::string mark;      // the mark still due: "", "cache", or a database's name
    std::string mark_key;  // the service key of a database's mark ("billok": see answer)
    std::string answer;    // the answer's record text, while its services:billok is due
    int sends = 0;         // how often it was written whole
    // A call priced from the tariff file: the line used ("<file>:<n>"), the
    // seconds billed and the amount ("TA"); else "", -1, -1.
    std::string rating_line;
    long long billed = -1;
    long long amount = -1;
};

class outbox_store {
  public:
    explicit outbox_store(states_connection& own) : own_(own) {}

    // Any thread may call; -1 when the file cannot be written.
    // Writes `e` (a posting also as the last number used). Its id, or -1.
    long put(const outbox_entry& e);
    // The same inside `tx` (made on this store's connection): nothing is
    // committed or rolled back here.
    long put(states_transaction& tx, const outbox_entry& e);
    // `id` was written whole on the link numbered `link`. `grouped`: the
    // change joins the connection's group (states_connection::join_group).
    int written(long id, unsigned link, bool grouped = false);
    // Whether a posting numbered `seq` waits (for its answer, or to be sent):
    // its number is not to be used again until then.
    bool number_waiting(const std::string& seq);
    // The same for the numbers from `low` to `high` (four digits each):
    // those under which a posting waits go to `out`. -1 when they cannot be
    // read.
    int numbers_waiting(const std::string& low, const std::string& high,
                        std::set<std::string>& out);
    // Settles the oldest posting `seq` that waits for its answer, in one
    // step, and returns it; nothing when none waits (answered already, or
    // never sent). With `billok` (a database name) its services:billok is
    // left due in the entry (not for a minibar posting), with `answer` (the answer's record text)
    // to run it from. `grouped`: the change joins the connection's group.
    std::optional<outbox_entry> settle_answer(const std::string& seq, const std::string& billok,
                                              const std::string& answer, bool grouped);
    // The mark of `id` ran (of each of `ids`, in one transaction).
    int marked(long id);
    int marked(const std::vector<long>& ids);
    // What is to be written on the link numbered `link`: what was never
    // written whole, and the unanswered postings last written on another link
    // (or before a restart), each once per link and at most max_sends times
    // in all. In order.
    static constexpr int max_sends = 5;
    int to_send(unsigned link, std::vector<outbox_entry>& out);
    // The same for the posting sender, at most `limit` entries, leaving out
    // those whose mark is still due (they go once it ran).
    int sendable(unsigned link, int limit, std::vector<outbox_entry>& out);
    // Whether `id` is among what to_send() would give for `link`.
    bool due(long id, unsigned link);
    // The entries whose mark is still due, in order.
    int marks_due(std::vector<outbox_entry>& out);
    // The last posting number used, or -1 when none is known.
    long last_posting_number();
    // The postings waiting for their answers; -1 when the file cannot be
    // read (nothing logged).
    int unanswered();
    // Postings not yet written on any link.
    int unsent();
    // Commits the connection's group once its period has passed (`due_only`)
    // or now.
    int flush_group(bool due_only);

  private:
    bool open() REQUIRES(own_.drv);
    long put_locked(const outbox_entry& e) REQUIRES(own_.drv);
    bool open_keeping_group() REQUIRES(own_.drv);
    int settle(const char* change, long id, std::optional<long> value) REQUIRES(own_.drv);
    int read(const char* statement, std::initializer_list<long long> numbers,
             const std::string* text, std::vector<outbox_entry>& out);
    void read_rows(std::vector<outbox_entry>& out) REQUIRES(own_.drv);

    states_connection& own_;
    bool checked_ GUARDED_BY(own_.drv) = false;
    bool links_reset_ GUARDED_BY(own_.drv) = false;  // entries of earlier runs: on no link
};
