// One connection to the states file: the driver record that is its handle
// and its lock. The stores of the states file (states.h) run their
// statements on one of the two connections states_file owns.
//
// Contract:
//  - `path` is set once by states_file::open() before any other thread runs;
//    it is only read afterwards.
//  - connect() and every statement run under `drv`'s lock (db_lock).
#pragma once

#include <chrono>
#include <initializer_list>
#include <string>

#include "db/driver.h"

class states_connection {
  public:
    explicit states_connection(const char* name);
    states_connection(const states_connection&) = delete;
    states_connection& operator=(const states_connection&) = delete;

    // Opens the file unless the handle is open (or was closed for good, see
    // sqlite.h); the first time, commits are made to wait for the operating
    // system only (synchronous=NORMAL). False when the file cannot be opened.
    // Commits the open group first (see join_group()).
    bool connect() REQUIRES(drv);
    // A group of changes committed together, at most group_period after its
    // first: the posting sender's busy changes (a posting written, an answer
    // settled) join it instead of costing a commit each. Every other
    // operation on the connection commits the group first (connect()), so
    // nothing else waits in it. Reads that may see the group's changes use
    // connect_keeping_group(). False when the file cannot be opened or no
    // transaction began.
    static constexpr std::chrono::milliseconds group_period{10};
    bool join_group() REQUIRES(drv);
    bool connect_keeping_group() REQUIRES(drv);
    // Commits the group if one is open (`due_only`: only once its period has
    // passed). 0, or -1 when the commit failed (logged).
    int flush_group(bool due_only = false) REQUIRES(drv);
    // The open group's number (each group has its own), or 0 when none is
    // open; flush_group_of() commits the group only while it is that one,
    // so that a writer commits its own changes and never another's group
    // that opened since.
    unsigned long open_group() const REQUIRES(drv) { return grouped_ ? groups_ : 0; }
    int flush_group_of(unsigned long group) REQUIRES(drv) {
        return group != 0 && open_group() == group ? flush_group(false) : 0;
    }
    // Lets the threads that wait for the lock have it first, waiting for
    // them at most 1 ms: a pass that takes the lock once per room calls it
    // between two rooms, without the lock, so that a call that waits to be
    // posted, or an answer, does not wait for the whole pass.
    void give_way() const;
    // Runs `statements` (which make a store's tables when missing) unless
    // `made` says they ran; `made` is set only outside a transaction, as a
    // rollback takes away what a transaction made. False when one fails.
    bool make_tables(bool& made, std::initializer_list<const char*> statements) REQUIRES(drv);

    dbdriver_t drv;
    std::string path;

  private:
    friend class states_transaction;
    bool tuned_ GUARDED_BY(drv) = false;
    bool grouped_ GUARDED_BY(drv) = false;      // a group is open
    unsigned long groups_ GUARDED_BY(drv) = 0;  // groups opened
    // A states_transaction runs as a savepoint inside the group: connect()
    // leaves the group open under it.
    bool in_savepoint_ GUARDED_BY(drv) = false;
    std::chrono::steady_clock::time_point group_since_ GUARDED_BY(drv);
};

// A transaction on a connection, under its lock: BEGIN when it starts (when
// none is open), ROLLBACK when it ends without commit(). The stores'
// operations that take a transaction run inside it, so that changes to
// several tables of that connection are made together or not at all. When
// the connection's group is open, the transaction is a savepoint inside it
// and commit() commits the group with it (one commit, not two); without
// commit() only the savepoint's changes are undone.
class SCOPED_CAPABILITY states_transaction {
  public:
    explicit states_transaction(states_connection& c) ACQUIRE(c.drv) NO_THREAD_SAFETY_ANALYSIS;
    ~states_transaction() RELEASE() NO_THREAD_SAFETY_ANALYSIS;
    states_transaction(const states_transaction&) = delete;
    states_transaction& operator=(const states_transaction&) = delete;

    // False when the file could not be opened or no transaction began: the
    // operations inside then fail.
    bool ok() const { return began_; }
    // 0, or -1 when the commit failed (rolled back, logged).
    int commit();
    // Tells the analysis that this transaction holds `c`'s lock; `c` must be
    // the connection it was made on (checked).
    void holds(const states_connection& c) const THREAD_ANNOTATION(assert_capability(c.drv));

  private:
    states_connection& c_;
    bool began_ = false;
    bool done_ = false;
    bool in_group_ = false;  // a savepoint inside the connection's group
};
