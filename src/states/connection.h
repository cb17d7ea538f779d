// One connection to the states file: the driver record that is its handle
// and its lock. The stores of the states file (states.h) run their
// statements on one of the two connections states_file owns.
//
// Contract:
//  - `path` is set once by states_file::open() before any other thread runs;
//    it is only read afterwards.
//  - connect() and every statement run under `drv`'s lock (db_lock).
#pragma once

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
    bool connect() REQUIRES(drv);
    // Runs `statements` (which make a store's tables when missing) unless
    // `made` says they ran; `made` is set only outside a transaction, as a
    // rollback takes away what a transaction made. False when one fails.
    bool make_tables(bool& made, std::initializer_list<const char*> statements) REQUIRES(drv);

    dbdriver_t drv;
    std::string path;

  private:
    bool tuned_ GUARDED_BY(drv) = false;
};

// A transaction on a connection, under its lock: BEGIN when it starts (when
// none is open), ROLLBACK when it ends without commit(). The stores'
// operations that take a transaction run inside it, so that changes to
// several tables of that connection are made together or not at all.
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
};
