// Database records: one named database with its formats, connection settings
// and operations.
//
// Contract:
//  - A dbdriver_t owns its handle (the driver kind's connection state). The
//    operations keep the result codes of the drivers: 0 success, negative
//    failure; is_connected() answers non-zero when connect() must be called.
//  - Every use of a record is made under its lock, from the connection test to
//    the end of its result (the operations require it, and a clang build
//    checks that they get it):
//        db_lock guard(*drv);
//        if (drv->is_connected()) drv->reconnect();
//        drv->query(...); while (drv->fetch_row() == 0) ...; drv->free_result();
//    No thread holds two record locks at once, except that the states file's
//    connection that no operation closes (states/states.h) may be taken
//    while another is held: its lock is always the last one taken.
//  - Records made by a configuration load belong to that configuration
//    snapshot and live as long as somebody holds it. The
//    internal database record `sqliteint` (states/states.h) lives for the
//    whole process.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <string_view>

#include "metrics.h"
#include "text.h"
#include "thread_annotations.h"

// The connection state of one driver kind (SQLite file, internal SQLite,
// MySQL). Implementations take no lock themselves: callers hold the record's.
class db_handle {
  public:
    virtual ~db_handle() = default;
    virtual int connect(const char* host, uint16_t port, const char* user, const char* password,
                        const char* database) = 0;
    virtual int query(const char* statement) = 0;
    virtual int fetch_row() = 0;
    virtual int fetch_int_field(int num, int* val) = 0;
    virtual int fetch_char_field(int num, char* val, int len) = 0;
    virtual int fetch_float_field(int num, float* val) = 0;
    // The whole text of field `num` (no length bound); the codes of
    // fetch_char_field.
    virtual int fetch_text_field(int num, std::string& out) = 0;
    virtual int numrets() = 0;
    virtual void free_result() = 0;
    virtual void close() = 0;
    virtual int is_connected() = 0;
    // `text` escaped for a quoted literal of this database; by default the
    // standard SQL rule: every "'" doubled.
    virtual std::string escape(std::string_view text) { return sql_quoted(text); }
};

struct CAPABILITY("database record") dbdriver_t {
    std::unique_ptr<db_handle> dbhandle;
    char name[16] = "";
    char dateformat[16] = "%Y-%m-%d";
    char timeformat[16] = "%H:%M:%S";
    std::string host;
    std::string user;
    std::string password;
    std::string database;
    int port = 0;
    metrics::statement_stats* stats GUARDED_BY(this) = nullptr;  // found at the first statement

    dbdriver_t() = default;
    dbdriver_t(const dbdriver_t&) = delete;
    dbdriver_t& operator=(const dbdriver_t&) = delete;

    // The operations, forwarded to the handle, under the record's lock.
    int connect(const char* h, uint16_t p, const char* u, const char* pw, const char* db)
        REQUIRES(this) {
        return dbhandle->connect(h, p, u, pw, db);
    }
    // Counted and timed by section (metrics.h).
    int query(const char* statement) REQUIRES(this) {
        if (!stats) stats = metrics::statements_of(name);
        const auto started = std::chrono::steady_clock::now();
        const int rc = dbhandle->query(statement);
        metrics::statement(
            stats, rc == 0,
            std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count());
        return rc;
    }
    int fetch_row() REQUIRES(this) { return dbhandle->fetch_row(); }
    int fetch_int_field(int num, int* val) REQUIRES(this) {
        return dbhandle->fetch_int_field(num, val);
    }
    int fetch_char_field(int num, char* val, int len) REQUIRES(this) {
        return dbhandle->fetch_char_field(num, val, len);
    }
    int fetch_float_field(int num, float* val) REQUIRES(this) {
        return dbhandle->fetch_float_field(num, val);
    }
    int fetch_text_field(int num, std::string& out) REQUIRES(this) {
        return dbhandle->fetch_text_field(num, out);
    }
    int numrets() REQUIRES(this) { return dbhandle->numrets(); }
    void free_result() REQUIRES(this) { dbhandle->free_result(); }
    void close() REQUIRES(this) { dbhandle->close(); }
    int is_connected() REQUIRES(this) { return dbhandle->is_connected(); }
    // A thread that finds the lock taken counts as waiting until it has it
    // (waiting()), so that a long pass of small steps can give way to it
    // between two steps: the lock goes to whichever thread asks first, and
    // the pass would ask again before a waiting thread is awake.
    void lock() ACQUIRE() {
        if (mutex_.try_lock()) return;
        waiting_.fetch_add(1, std::memory_order_relaxed);
        mutex_.lock();
        waiting_.fetch_sub(1, std::memory_order_relaxed);
    }
    void unlock() RELEASE() { mutex_.unlock(); }
    bool try_lock() TRY_ACQUIRE(true) { return mutex_.try_lock(); }
    // The threads waiting for the lock now.
    int waiting() const { return waiting_.load(std::memory_order_relaxed); }

    // connect() with the record's own settings (the connection test's order to
    // reconnect). The port is handed over as a 16-bit number.
    int reconnect() REQUIRES(this) {
        return connect(host.empty() ? nullptr : host.c_str(), static_cast<uint16_t>(port),
                       user.empty() ? nullptr : user.c_str(),
                       password.empty() ? nullptr : password.c_str(),
                       database.empty() ? nullptr : database.c_str());
    }

    // Copies a name or format into one of the 16-byte fields, cut to 15 characters.
    static void set_text16(char (&field)[16], const char* text) {
        snprintf(field, sizeof field, "%s", text ? text : "");
    }

  private:
    annotated_mutex mutex_;
    std::atomic<int> waiting_{0};
};

using dbdriver_ptr = std::shared_ptr<dbdriver_t>;
using db_lock = scoped_lock<dbdriver_t>;
