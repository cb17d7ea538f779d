#include "states/connection.h"

#include <cstdlib>
#include <thread>

#include "db/sqlite.h"

states_connection::states_connection(const char* name) {
    sqlite_init_record(drv, name);
}

bool states_connection::connect() {
    if (!in_savepoint_) flush_group();
    return connect_keeping_group();
}

bool states_connection::connect_keeping_group() {
    if (drv.connect(nullptr, 0, nullptr, nullptr, path.c_str()) != 0) return false;
    // The checkpoint bound is the connection's own: a commit past it writes
    // the log into the file and syncs it, which would stall the committing
    // thread (and every writer behind it) in the middle of a burst. The page
    // cache holds a hotel's calls and postings (16 MB at most, taken as
    // used): with SQLite's 2 MB, every answer read its call's pages from the
    // file again.
    if (!tuned_)
        tuned_ = drv.query("PRAGMA synchronous=NORMAL") == 0 &&
                 drv.query("PRAGMA wal_autocheckpoint=10000") == 0 &&
                 drv.query("PRAGMA cache_size=-16384") == 0;
    return true;
}

bool states_connection::join_group() {
    if (!connect_keeping_group()) return false;
    if (grouped_) return true;
    if (sqlite_begin(drv, true) != 0) return false;
    grouped_ = true;
    ++groups_;
    group_since_ = std::chrono::steady_clock::now();
    return true;
}

int states_connection::flush_group(bool due_only) {
    if (!grouped_) return 0;
    if (due_only && std::chrono::steady_clock::now() - group_since_ < group_period) return 0;
    grouped_ = false;
    return sqlite_commit(drv);
}

void states_connection::give_way() const {
    using clock = std::chrono::steady_clock;
    const auto until = clock::now() + std::chrono::milliseconds(1);
    while (drv.waiting() > 0 && clock::now() < until)
        std::this_thread::sleep_for(std::chrono::microseconds(50));
}

bool states_connection::make_tables(bool& made, std::initializer_list<const char*> statements) {
    if (made) return true;
    for (const char* statement : statements)
        if (drv.query(statement) != 0) return false;
    made = !sqlite_in_transaction(drv);
    return true;
}

// The lock is taken and given back on `c_`, the connection of the
// annotation: the analysis cannot follow the reference.
states_transaction::states_transaction(states_connection& c) : c_(c) {
    c_.drv.lock();
    if (c_.grouped_ && c_.connect_keeping_group()) {
        began_ = c_.drv.query("SAVEPOINT states_transaction") == 0;
        in_group_ = c_.in_savepoint_ = began_;
        return;
    }
    began_ = c_.connect() && sqlite_begin(c_.drv, true) == 0;
}

states_transaction::~states_transaction() {
    c_.in_savepoint_ = false;
    if (began_ && !done_) {
        if (!in_group_)
            c_.drv.query("rollback");
        else if (c_.drv.query("ROLLBACK TO states_transaction") == 0)
            c_.drv.query("RELEASE states_transaction");
    }
    c_.drv.unlock();
}

int states_transaction::commit() NO_THREAD_SAFETY_ANALYSIS {
    if (!began_ || done_) return -1;
    done_ = true;
    if (!in_group_) return sqlite_commit(c_.drv);
    c_.in_savepoint_ = false;
    if (c_.drv.query("RELEASE states_transaction") != 0) {
        if (c_.drv.query("ROLLBACK TO states_transaction") == 0)
            c_.drv.query("RELEASE states_transaction");
        return -1;
    }
    return c_.flush_group(false);
}

void states_transaction::holds(const states_connection& c) const NO_THREAD_SAFETY_ANALYSIS {
    if (&c != &c_) abort();
}
