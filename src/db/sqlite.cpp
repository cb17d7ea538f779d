#include "db/sqlite.h"

#include <sqlite3.h>
#include <strings.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <list>
#include <string>
#include <utility>
#include <vector>

#include "logger.h"

namespace {

struct row_t {
    std::vector<std::string> vals;
    int colcount = 0;
};

struct sqlite_closer {
    void operator()(sqlite3* db) const { sqlite3_close(db); }
};

// One SQLite connection and the rows of its last statement. The two kinds of
// record (file database, internal database) differ only in their record.
class sqlite_handler_t final : public db_handle {
  public:
    ~sqlite_handler_t() override { finalize_all(); }

    int connect(const char*, uint16_t, const char*, const char*, const char* database) override {
        if (initialized_) return 0;
        reset();
        initialized_ = 1;
        sqlite3* db = nullptr;
        int rc = sqlite3_open_v2(database ? database : "", &db,
                                 SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr);
        sqlite_.reset(db);
        if (rc == SQLITE_OK) {
            // Another reader of the file (an operator's sqlite3, a backup)
            // makes writes wait a while instead of failing at once.
            sqlite3_busy_timeout(db, 5000);
            if (sync_normal_) use_sync_normal(database ? database : "");
            return 0;
        }
        write_log(L_ERROR, __FILE_NAME__, __LINE__, "sq_connect",
                  "Error connecting to %s sqlite db", database ? database : "");
        sqlite_.reset();
        initialized_ = 0;
        return -2;
    }

    int query(const char* statement) override {
        free_result();
        if (!sqlite_) {
            // Closed for good (see close()): the statement fails as SQLite
            // would fail it on a missing connection.
            write_log(L_ERROR, __FILE_NAME__, __LINE__, "sq_query",
                      "Sqlite query error: %s, ext.errcode %d", sqlite3_errstr(SQLITE_MISUSE),
                      SQLITE_MISUSE);
            return -1;
        }
        char* err = nullptr;
        int rc = sqlite3_exec(sqlite_.get(), statement, &sqlite_handler_t::sq_callback, this, &err);
        if (rc != SQLITE_OK) {
            query_error(err ? err : sqlite3_errstr(rc));
            sqlite3_free(err);
            return -1;
        }
        sqlite3_free(err);
        return 0;
    }

    // Binds `params` to the "?" of `st`, in order; texts are not copied.
    static void bind_all(sqlite3_stmt* st, std::initializer_list<sqlite_value> params) {
        int i = 0;
        for (const sqlite_value& p : params) {
            if (p.is_number)
                sqlite3_bind_int64(st, ++i, p.number);
            else
                sqlite3_bind_text64(st, ++i, p.text.data(), p.text.size(), SQLITE_STATIC,
                                    SQLITE_UTF8);
        }
    }

    // query() of `sql` with its "?" bound to `params`, as a statement
    // prepared once per connection and kept until the connection closes.
    int query_bound(const char* sql, std::initializer_list<sqlite_value> params) {
        free_result();
        if (!sqlite_) return query(sql);  // fails and logs as query() does
        sqlite3_stmt* st = prepared(sql);
        if (!st) {
            query_error(sqlite3_errmsg(sqlite_.get()));
            return -1;
        }
        bind_all(st, params);
        int rc;
        while ((rc = sqlite3_step(st)) == SQLITE_ROW) {
            const int n = sqlite3_column_count(st);
            if (!rows_) rows_ = std::make_unique<std::list<row_t>>();
            row_t& row = rows_->emplace_back();
            row.colcount = n;
            row.vals.reserve(static_cast<size_t>(n));
            for (int c = 0; c < n; ++c) {
                const auto* v = reinterpret_cast<const char*>(sqlite3_column_text(st, c));
                row.vals.emplace_back(v ? v : "", static_cast<size_t>(sqlite3_column_bytes(st, c)));
            }
        }
        if (rc != SQLITE_DONE) query_error(sqlite3_errmsg(sqlite_.get()));
        sqlite3_reset(st);
        sqlite3_clear_bindings(st);
        return rc == SQLITE_DONE ? 0 : -1;
    }

    // The first column of the first row of `sql` with `params` bound, as a
    // number, quietly (kept as query_bound() keeps its statements).
    long long count_bound(const char* sql, std::initializer_list<sqlite_value> params) {
        if (!sqlite_) return -1;
        sqlite3_stmt* st = prepared(sql);
        if (!st) return -1;
        bind_all(st, params);
        const long long n = sqlite3_step(st) == SQLITE_ROW ? sqlite3_column_int64(st, 0) : -1;
        sqlite3_reset(st);
        sqlite3_clear_bindings(st);
        return n;
    }

    // Whether the file holds the table `name`, quietly; false when it cannot
    // be read.
    bool has_table(std::string_view name) {
        return count_bound("select count(*) from sqlite_master where type='table' and name=?",
                           {name}) > 0;
    }

    // A transaction on an open connection that has none: 0, else -1 (nothing
    // logged: the statements inside report their own failures).
    int begin(bool immediate) {
        if (!sqlite_ || !sqlite3_get_autocommit(sqlite_.get())) return -1;
        return sqlite3_exec(sqlite_.get(), immediate ? "BEGIN IMMEDIATE" : "BEGIN", nullptr,
                            nullptr, nullptr) == SQLITE_OK
                   ? 0
                   : -1;
    }

    bool in_transaction() { return sqlite_ && !sqlite3_get_autocommit(sqlite_.get()); }

    // Commits the open transaction; one that cannot be committed is rolled
    // back and logged.
    int commit() {
        if (!sqlite_ || sqlite3_get_autocommit(sqlite_.get())) return 0;
        char* err = nullptr;
        if (sqlite3_exec(sqlite_.get(), "COMMIT", nullptr, nullptr, &err) == SQLITE_OK) return 0;
        query_error(err ? err : sqlite3_errmsg(sqlite_.get()));
        sqlite3_free(err);
        sqlite3_exec(sqlite_.get(), "ROLLBACK", nullptr, nullptr, nullptr);
        return -1;
    }

    // Writes the write-ahead log into the file as far as no reader holds it
    // back, without waiting for anybody; true when it wrote all of it.
    bool checkpoint() {
        int frames = 0;
        int written = 0;
        return sqlite_ &&
               sqlite3_wal_checkpoint_v2(sqlite_.get(), nullptr, SQLITE_CHECKPOINT_PASSIVE, &frames,
                                         &written) == SQLITE_OK &&
               frames > 0 && written == frames;
    }

    // A write of the user version as it is (see sqlite_restart_log()).
    int restart_log() {
        if (!sqlite_ || begin(true) != 0) return 0;
        sqlite3_stmt* st = prepared("PRAGMA user_version");
        long long version = -1;
        if (st) {
            if (sqlite3_step(st) == SQLITE_ROW) version = sqlite3_column_int64(st, 0);
            sqlite3_reset(st);
        }
        if (version < 0 || query(("PRAGMA user_version=" + std::to_string(version)).c_str()) != 0) {
            sqlite3_exec(sqlite_.get(), "ROLLBACK", nullptr, nullptr, nullptr);
            return -1;
        }
        return commit();
    }

    int fetch_row() override {
        if (!rows_) {
            cur_row_ = nullptr;
            return -1;
        }
        if (!walking_) {
            walking_ = true;
            next_ = rows_->begin();
        }
        if (next_ == rows_->end()) {
            // End reported: the walk starts again at the first row next time.
            walking_ = false;
            cur_row_ = nullptr;
            return -1;
        }
        cur_row_ = &*next_;
        ++next_;
        return 0;
    }

    int fetch_int_field(int num, int* val) override {
        const std::string* v;
        if (int rc = field(num, &v)) return rc;
        *val = static_cast<int>(strtol(v->c_str(), nullptr, 0));
        return 0;
    }

    int fetch_char_field(int num, char* val, int len) override {
        const std::string* v;
        if (int rc = field(num, &v)) return rc;
        if (len <= 0) return 0;
        memset(val, 0, len);
        memcpy(val, v->data(), std::min(v->size(), static_cast<size_t>(len)));
        return 0;
    }

    int fetch_text_field(int num, std::string& out) override {
        const std::string* v;
        if (int rc = field(num, &v)) return rc;
        out = *v;
        return 0;
    }

    int fetch_float_field(int num, float* val) override {
        const std::string* v;
        if (int rc = field(num, &v)) return rc;
        *val = strtof(v->c_str(), nullptr);
        return 0;
    }

    int numrets() override { return rows_ ? static_cast<int>(rows_->size()) : -1; }

    void free_result() override {
        rows_.reset();
        cur_row_ = nullptr;
        walking_ = false;
    }

    void close() override {
        finalize_all();
        sqlite_.reset();
    }

    int is_connected() override { return initialized_ ? 0 : 1; }

    bool sync_normal_ = false;

  private:
    void use_sync_normal(const char* database) {
        sqlite3_stmt* st = nullptr;
        std::string mode = "?";
        if (sqlite3_prepare_v2(sqlite_.get(), "PRAGMA journal_mode", -1, &st, nullptr) ==
                SQLITE_OK &&
            sqlite3_step(st) == SQLITE_ROW)
            if (const unsigned char* text = sqlite3_column_text(st, 0))
                mode = reinterpret_cast<const char*>(text);
        sqlite3_finalize(st);
        if (strcasecmp(mode.c_str(), "wal") == 0) {
            sqlite3_exec(sqlite_.get(), "PRAGMA synchronous=NORMAL", nullptr, nullptr, nullptr);
            return;
        }
        LOG(L_WARNING,
            "%s is not in WAL mode (journal_mode %s): synchronous = normal is not used, "
            "every commit waits for the disk",
            database, mode.c_str());
    }

    static int sq_callback(void* arg, int colcount, char** values, char** /*names*/) {
        auto* h = static_cast<sqlite_handler_t*>(arg);
        if (!h->rows_) h->rows_ = std::make_unique<std::list<row_t>>();
        row_t& row = h->rows_->emplace_back();
        row.colcount = colcount;
        row.vals.reserve(static_cast<size_t>(colcount));
        for (int i = 0; i < colcount; ++i) row.vals.emplace_back(values[i] ? values[i] : "");
        return 0;
    }

    // The value of field `num` of the current row: -1 no row, -2 no such field.
    int field(int num, const std::string** v) const {
        if (!cur_row_) return -1;
        if (num < 0 || num >= cur_row_->colcount) return -2;
        *v = &cur_row_->vals[num];
        return 0;
    }

    void query_error(const char* text) {
        write_log(L_ERROR, __FILE_NAME__, __LINE__, "sq_query",
                  "Sqlite query error: %s, ext.errcode %d", masked_name_pieces(text).c_str(),
                  sqlite3_extended_errcode(sqlite_.get()));
    }

    // The kept statement of `sql`, prepared now when it is new; null when it
    // cannot be prepared.
    // Statements are found by their text's address first (a statement of
    // this program is one constant), then by the text.
    sqlite3_stmt* prepared(const char* sql) {
        for (const kept_statement& k : statements_)
            if (k.address == sql) return k.statement;
        for (const kept_statement& k : statements_)
            if (k.text == sql) return k.statement;
        sqlite3_stmt* st = nullptr;
        if (sqlite3_prepare_v3(sqlite_.get(), sql, -1, SQLITE_PREPARE_PERSISTENT, &st, nullptr) !=
            SQLITE_OK) {
            sqlite3_finalize(st);
            return nullptr;
        }
        statements_.push_back({sql, sql, st});
        return st;
    }

    // Statements must go before their connection, or it could not close.
    void finalize_all() {
        for (const kept_statement& k : statements_) sqlite3_finalize(k.statement);
        statements_.clear();
    }

    void reset() {
        finalize_all();
        sqlite_.reset();
        free_result();
        initialized_ = 0;
    }

    std::unique_ptr<sqlite3, sqlite_closer> sqlite_;
    struct kept_statement {
        const char* address;  // of the text it was prepared from
        std::string text;
        sqlite3_stmt* statement;
    };
    std::vector<kept_statement> statements_;
    std::unique_ptr<std::list<row_t>> rows_;
    std::list<row_t>::iterator next_;
    bool walking_ = false;
    const row_t* cur_row_ = nullptr;
    int initialized_ = 0;
};

// The SQLite handler of `drv`; null when `drv` is of another kind.
sqlite_handler_t* handler_of(dbdriver_t& drv) {
    return dynamic_cast<sqlite_handler_t*>(drv.dbhandle.get());
}

}  // namespace

void sqlite_init_record(dbdriver_t& drv, const char* name) {
    drv.dbhandle = std::make_unique<sqlite_handler_t>();
    dbdriver_t::set_text16(drv.name, name);
}

int sqlite_begin(dbdriver_t& drv, bool immediate) {
    auto* h = handler_of(drv);
    return h ? h->begin(immediate) : -1;
}

bool sqlite_in_transaction(dbdriver_t& drv) {
    auto* h = handler_of(drv);
    return h && h->in_transaction();
}

int sqlite_commit(dbdriver_t& drv) {
    auto* h = handler_of(drv);
    return h ? h->commit() : -1;
}

bool sqlite_checkpoint(dbdriver_t& drv) {
    auto* h = handler_of(drv);
    return h && h->checkpoint();
}

int sqlite_restart_log(dbdriver_t& drv) {
    auto* h = handler_of(drv);
    return h ? h->restart_log() : -1;
}

int sqlite_query_bound(dbdriver_t& drv, const char* sql,
                       std::initializer_list<sqlite_value> params) {
    auto* h = handler_of(drv);
    if (!h) return -1;
    if (!drv.stats) drv.stats = metrics::statements_of(drv.name);
    const auto started = std::chrono::steady_clock::now();
    const int rc = h->query_bound(sql, params);
    metrics::statement(
        drv.stats, rc == 0,
        std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count());
    return rc;
}

long long sqlite_count_bound(dbdriver_t& drv, const char* sql,
                             std::initializer_list<sqlite_value> params) {
    auto* h = handler_of(drv);
    return h ? h->count_bound(sql, params) : -1;
}

bool sqlite_has_table(dbdriver_t& drv, std::string_view name) {
    auto* h = handler_of(drv);
    return h && h->has_table(name);
}

void sqlite_set_sync_normal(dbdriver_t& drv, bool normal) {
    if (auto* h = handler_of(drv)) h->sync_normal_ = normal;
}

dbdriver_ptr sqlite_create_drv(const char* name) {
    auto drv = std::make_shared<dbdriver_t>();
    sqlite_init_record(*drv, name);
    return drv;
}
