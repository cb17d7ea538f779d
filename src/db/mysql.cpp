#include "db/mysql.h"

#include <mysql.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "logger.h"

namespace {

// What every MySQL record starts with.
struct driver_template {
    const char* name;
    const char* dateformat;
    const char* timeformat;
    int port;
};
const driver_template mysqldrv = {"mysql", "%Y-%m-%d", "%H:%M:%S", 3306};

// Option group read from the client library's option files.
const char* const option_group = "orlanbeck";
// Bounds a connect to a host that does not answer at all (an option file may
// change it).
const unsigned int connect_timeout_s = 10;
const unsigned int io_timeout_s = 30;

struct connection_closer {
    void operator()(MYSQL* m) const { mysql_close(m); }
};
struct result_freer {
    void operator()(MYSQL_RES* r) const { mysql_free_result(r); }
};

bool is_numeric_type(enum_field_types type) {
    return (type >= MYSQL_TYPE_DECIMAL && type <= MYSQL_TYPE_INT24) || type == MYSQL_TYPE_YEAR ||
           type == MYSQL_TYPE_NEWDECIMAL;
}

// Whether a call that began at `start` and failed ran into a limit of
// `seconds` (0: none set).
bool timed_out(std::chrono::steady_clock::time_point start, int seconds) {
    using namespace std::chrono;
    return seconds > 0 && steady_clock::now() - start >= seconds * 1000ms - 200ms;
}

class mysql_handler_t final : public db_handle {
  public:
    mysql_handler_t(bool full, std::string section, mysql_deadlines limits)
        : full_(full), section_(std::move(section)), limits_(limits) {}
    mysql_handler_t(const mysql_handler_t&) = delete;
    mysql_handler_t& operator=(const mysql_handler_t&) = delete;
    ~mysql_handler_t() override { my_close(); }

    int connect(const char* host, uint16_t port, const char* user, const char* password,
                const char* database) override {
        return m_connect(host, port, user, password, database);
    }
    int query(const char* statement) override { return my_query(statement); }
    int fetch_row() override { return my_fetch_row(); }
    int fetch_int_field(int num, int* val) override { return my_fetch_int_field(num, val); }
    int fetch_char_field(int num, char* val, int len) override {
        return my_fetch_char_field(num, val, len);
    }
    int fetch_float_field(int num, float* val) override { return my_fetch_float_field(num, val); }
    int fetch_text_field(int num, std::string& out) override {
        const char* text;
        if (int rc = field_text(num, &text)) return rc;
        const unsigned long* lengths = res_ ? mysql_fetch_lengths(res_.get()) : nullptr;
        out.assign(text, lengths && row_[num] ? lengths[num] : strlen(text));
        return 0;
    }
    int numrets() override { return my_numrets(); }
    void free_result() override { my_free_result(); }
    void close() override { my_close(); }
    int is_connected() override { return my_is_connected(); }

    std::string escape(std::string_view text) override {
        std::string out(text.size() * 2 + 1, '\0');
        unsigned long n =
            mysql_ ? mysql_real_escape_string(mysql_.get(), out.data(), text.data(), text.size())
                   : mysql_escape_string(out.data(), text.data(), text.size());
        out.resize(n);
        return out;
    }

  private:
    int m_connect(const char* host, uint16_t port, const char* user, const char* password,
                  const char* database) {
        // Every connect starts from a new client object; the old connection
        // (and a result still open on it) is released first.
        my_close();
        mysql_.reset(mysql_init(nullptr));
        if (!mysql_) {
            LOG(L_ERROR, "Failed to initialize mysql");
            return -1;
        }
        mysql_options(mysql_.get(), MYSQL_READ_DEFAULT_GROUP, option_group);
        const unsigned int connect_s =
            limits_.connect > 0 ? static_cast<unsigned int>(limits_.connect) : connect_timeout_s;
        mysql_options(mysql_.get(), MYSQL_OPT_CONNECT_TIMEOUT, &connect_s);
        if (full_) {
            // A server that stops answering cannot hold a thread for long,
            // and names arrive in any language.
            mysql_options(mysql_.get(), MYSQL_OPT_READ_TIMEOUT, &io_timeout_s);
            mysql_options(mysql_.get(), MYSQL_OPT_WRITE_TIMEOUT, &io_timeout_s);
            mysql_options(mysql_.get(), MYSQL_SET_CHARSET_NAME, "utf8mb4");
        }
        if (limits_.read > 0) {
            const unsigned int read_s = static_cast<unsigned int>(limits_.read);
            mysql_options(mysql_.get(), MYSQL_OPT_READ_TIMEOUT, &read_s);
        }
        if (limits_.write > 0) {
            const unsigned int write_s = static_cast<unsigned int>(limits_.write);
            mysql_options(mysql_.get(), MYSQL_OPT_WRITE_TIMEOUT, &write_s);
        }
        server_ = std::string(host ? host : "localhost") + ":" +
                  std::to_string(port ? port : mysqldrv.port);
        const auto start = std::chrono::steady_clock::now();
        if (!mysql_real_connect(mysql_.get(), host, user, password, database, port, nullptr, 0)) {
            if (timed_out(start, limits_.connect))
                LOG(L_ERROR, "MySQL section [%s] at %s: connect timed out after %d s",
                    section_.c_str(), server_.c_str(), limits_.connect);
            LOG(L_ERROR, "Failed to connect to database: Error: %s", mysql_error(mysql_.get()));
            return -2;
        }
        return 0;
    }

    int my_query(const char* statement) {
        // Callers free their result first; one they forgot would block the
        // connection ("commands out of sync") and is dropped here.
        my_free_result();
        if (!mysql_) {
            LOG(L_ERROR, "Query error: %s", "not connected");
            return -1;
        }
        const auto start = std::chrono::steady_clock::now();
        if (mysql_query(mysql_.get(), statement ? statement : "") != 0) {
            const int limit = std::min(limits_.read > 0 ? limits_.read : limits_.write,
                                       limits_.write > 0 ? limits_.write : limits_.read);
            if (timed_out(start, limit))
                LOG(L_ERROR, "MySQL section [%s] at %s: statement timed out after %d s",
                    section_.c_str(), server_.c_str(), limit);
            LOG(L_ERROR, "Query error: %s", masked_name_pieces(mysql_error(mysql_.get())).c_str());
            return -1;
        }
        return 0;
    }

    int my_fetch_row() {
        if (!res_) {
            if (!mysql_) return -1;
            res_.reset(mysql_use_result(mysql_.get()));
            if (!res_) return -1;
        }
        row_ = mysql_fetch_row(res_.get());
        return row_ ? 0 : -2;
    }

    // The checks the three readers share; on success *text is the field's
    // text ("" for NULL).
    int field_text(int num, const char** text) const {
        if (!row_) return -1;
        if (num < 0 || static_cast<unsigned int>(num) >= mysql_num_fields(res_.get())) return -2;
        const MYSQL_FIELD* field = mysql_fetch_field_direct(res_.get(), num);
        if (!field) return -2;
        if (!full_ && !is_numeric_type(field->type)) return -3;
        *text = row_[num] ? row_[num] : "";
        return 0;
    }

    int my_fetch_int_field(int num, int* val) {
        const char* text;
        if (int rc = field_text(num, &text)) return rc;
        *val = static_cast<int>(strtol(text, nullptr, 0));
        return 0;
    }

    int my_fetch_char_field(int num, char* val, int len) {
        if (!val) return -1;
        const char* text;
        if (int rc = field_text(num, &text)) return rc;
        if (len <= 0) return 0;
        size_t n = strlen(text);
        if (n >= static_cast<size_t>(len)) n = static_cast<size_t>(len) - 1;
        memcpy(val, text, n);
        return 0;
    }

    int my_fetch_float_field(int num, float* val) {
        const char* text;
        if (int rc = field_text(num, &text)) return rc;
        *val = strtof(text, nullptr);
        return 0;
    }

    int my_numrets() { return res_ ? static_cast<int>(mysql_num_rows(res_.get())) : 0; }

    void my_free_result() {
        row_ = nullptr;
        res_.reset();
    }

    void my_close() {
        my_free_result();
        mysql_.reset();
    }

    int my_is_connected() { return !mysql_ || mysql_ping(mysql_.get()) != 0 ? 1 : 0; }

    // Declared before the result: a result is always released before its
    // connection.
    const bool full_;  // [fixes] mysql: text columns, time limits, utf8mb4
    const std::string section_;
    const mysql_deadlines limits_;
    std::string server_;  // "host:port" of the last connect, for log lines
    std::unique_ptr<MYSQL, connection_closer> mysql_;
    std::unique_ptr<MYSQL_RES, result_freer> res_;
    MYSQL_ROW row_ = nullptr;
};

}  // namespace

dbdriver_ptr mysql_create_drv(const char* name, bool full, mysql_deadlines limits) {
    auto drv = std::make_shared<dbdriver_t>();
    drv->dbhandle = std::make_unique<mysql_handler_t>(full, name ? name : mysqldrv.name, limits);
    dbdriver_t::set_text16(drv->name, name ? name : mysqldrv.name);
    dbdriver_t::set_text16(drv->dateformat, mysqldrv.dateformat);
    dbdriver_t::set_text16(drv->timeformat, mysqldrv.timeformat);
    drv->port = mysqldrv.port;
    return drv;
}
