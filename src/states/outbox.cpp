#include "states/outbox.h"

#include <cstdlib>

#include "db/sqlite.h"
#include "logger.h"

namespace {

const char* const create_outbox =
    "create table if not exists outbox (id integer primary key autoincrement, kind text, seq "
    "text, room text, extension text, number text, date text, time text, record text, waiting "
    "integer default 1, mark text default '', mark_key text default '', sends integer default "
    "0, link integer default 0, rating_line text default '', billed integer default -1, amount "
    "integer default -1, answer text default '')";
// Columns added since the table was first made, for files made before.
const char* const added_columns[][2] = {
    {"rating_line", "alter table outbox add column rating_line text default ''"},
    {"billed", "alter table outbox add column billed integer default -1"},
    {"amount", "alter table outbox add column amount integer default -1"},
    {"answer", "alter table outbox add column answer text default ''"},
};
// Answers and number checks look postings up by their number.
const char* const create_seq_index =
    "create index if not exists outbox_seq on outbox (kind, waiting, seq)";
const char* const create_sequence =
    "create table if not exists sequence (name text primary key, last integer)";

#define OUTBOX_COLUMNS                                                                    \
    "select id, kind, seq, room, extension, number, date, time, record, mark, mark_key, " \
    "answer, sends from outbox "

const char* const waiting_statement =
    OUTBOX_COLUMNS "where kind='PS' and waiting=1 and seq=? order by id";
// A record due on a link: never written, or unanswered, written on an
// earlier link and fewer than max_sends times (bound: max_sends, the link).
#define DUE_ON_LINK "waiting=1 and (sends=0 or (sends<? and link<>?))"
const char* const to_send_statement = OUTBOX_COLUMNS "where " DUE_ON_LINK " order by id";
const char* const sendable_statement =
    OUTBOX_COLUMNS "where " DUE_ON_LINK " and mark='' order by id limit ?";
const char* const marks_due_statement = OUTBOX_COLUMNS "where mark<>'' order by id";

// An entry leaves when nothing is left to do for it.
const char* const remove_settled = "delete from outbox where id=? and waiting=0 and mark=''";

}  // namespace

bool outbox_store::open() {
    if (!own_.connect()) return false;
    if (!checked_) {
        bool made = false;
        if (!own_.make_tables(made, {create_outbox, create_sequence})) return false;
        for (const auto& [name, alter] : added_columns)
            if (sqlite_count_bound(own_.drv,
                                   "select count(*) from pragma_table_info('outbox') where name=?",
                                   {name}) == 0 &&
                own_.drv.query(alter) != 0)
                return false;
        if (own_.drv.query(create_seq_index) != 0) return false;
        checked_ = made;
    }
    if (!links_reset_) links_reset_ = own_.drv.query("update outbox set link=0") == 0;
    return links_reset_;
}

long outbox_store::put(const outbox_entry& e) {
    db_lock guard(own_.drv);
    if (!open() || sqlite_begin(own_.drv, true) != 0) return -1;
    const long id = put_locked(e);
    if (id < 0) {
        own_.drv.query("rollback");
        return -1;
    }
    return sqlite_commit(own_.drv) == 0 ? id : -1;
}

long outbox_store::put(states_transaction& tx, const outbox_entry& e) {
    tx.holds(own_);
    if (!tx.ok() || !open()) return -1;
    return put_locked(e);
}

long outbox_store::put_locked(const outbox_entry& e) {
    const bool posting = e.kind == "PS";
    if (sqlite_query_bound(own_.drv,
                           "insert into outbox (kind, seq, room, extension, number, date, time, "
                           "record, mark, mark_key, rating_line, billed, amount) values "
                           "(?,?,?,?,?,?,?,?,?,?,?,?,?)",
                           {e.kind, e.seq, e.room, e.extension, e.number, e.date, e.time, e.record,
                            e.mark, e.mark_key, e.rating_line, e.billed, e.amount}) != 0)
        return -1;
    const long id =
        static_cast<long>(sqlite_count_bound(own_.drv, "select last_insert_rowid()", {}));
    // Numbers taken by several threads may be written out of order: the
    // last one used is the one furthest round the circle of 10,000.
    if (posting) {
        const long number = atol(e.seq.c_str());
        const long long before =
            sqlite_count_bound(own_.drv, "select coalesce(max(last), -1) from sequence", {});
        if ((before < 0 || (number - before + 10000) % 10000 < 5000) &&
            sqlite_query_bound(own_.drv, "replace into sequence values ('posting', ?)", {number}) !=
                0)
            return -1;
    }
    return id;
}

// Runs `change` (its "?" bound to `value` when given, then to `id`) and lets
// the entry go when nothing is left to do for it.
int outbox_store::settle(const char* change, long id, std::optional<long> value) {
    const int rc = value ? sqlite_query_bound(own_.drv, change, {*value, id})
                         : sqlite_query_bound(own_.drv, change, {id});
    if (rc != 0) return -1;
    return sqlite_query_bound(own_.drv, remove_settled, {id}) == 0 ? 0 : -1;
}

bool outbox_store::open_keeping_group() {
    if (!checked_ || !links_reset_) return open();
    return own_.connect_keeping_group();
}

int outbox_store::written(long id, unsigned link, bool grouped) {
    db_lock guard(own_.drv);
    if (grouped ? !(open_keeping_group() && own_.join_group()) : !open()) return -1;
    return settle(
        "update outbox set sends=sends+1, link=?, waiting=(kind='PS' and waiting=1) where id=?", id,
        static_cast<long>(link));
}

int outbox_store::marked(long id) {
    db_lock guard(own_.drv);
    if (!open()) return -1;
    return settle("update outbox set mark='', answer='' where id=?", id, std::nullopt);
}

int outbox_store::marked(const std::vector<long>& ids) {
    if (ids.empty()) return 0;
    db_lock guard(own_.drv);
    if (!open() || sqlite_begin(own_.drv, true) != 0) return -1;
    int rc = 0;
    for (long id : ids)
        if (settle("update outbox set mark='', answer='' where id=?", id, std::nullopt) != 0)
            rc = -1;
    return sqlite_commit(own_.drv) == 0 ? rc : -1;
}

bool outbox_store::number_waiting(const std::string& seq) {
    db_lock guard(own_.drv);
    if (!open_keeping_group()) return false;
    return sqlite_count_bound(own_.drv,
                              "select count(*) from outbox where kind='PS' and waiting=1 and seq=?",
                              {seq}) > 0;
}

int outbox_store::numbers_waiting(const std::string& low, const std::string& high,
                                  std::set<std::string>& out) {
    db_lock guard(own_.drv);
    if (!open_keeping_group() ||
        sqlite_query_bound(
            own_.drv,
            "select seq from outbox where kind='PS' and waiting=1 and seq between ? and ?",
            {low, high}) != 0) {
        own_.drv.free_result();
        return -1;
    }
    while (own_.drv.fetch_row() == 0) {
        std::string seq;
        if (own_.drv.fetch_text_field(0, seq) >= 0) out.insert(std::move(seq));
    }
    own_.drv.free_result();
    return 0;
}

std::optional<outbox_entry> outbox_store::settle_answer(const std::string& seq,
                                                        const std::string& billok,
                                                        const std::string& answer, bool grouped) {
    db_lock guard(own_.drv);
    if (grouped ? !(open_keeping_group() && own_.join_group()) : !open()) return std::nullopt;
    std::vector<outbox_entry> found;
    if (sqlite_query_bound(own_.drv, waiting_statement, {seq}) != 0) {
        own_.drv.free_result();
        return std::nullopt;
    }
    read_rows(found);
    if (found.empty()) return std::nullopt;
    const outbox_entry& e = found.front();
    const int rc =
        billok.empty() || e.mark_key == minibar_outbox_key
            ? settle("update outbox set waiting=0 where id=?", e.id, std::nullopt)
            : sqlite_query_bound(own_.drv,
                                 "update outbox set waiting=0, mark=?, mark_key='billok', "
                                 "answer=? where id=?",
                                 {billok, answer, e.id});
    if (rc != 0) return std::nullopt;
    return found.front();
}

int outbox_store::sendable(unsigned link, int limit, std::vector<outbox_entry>& out) {
    db_lock guard(own_.drv);
    if (!open_keeping_group() ||
        sqlite_query_bound(own_.drv, sendable_statement,
                           {static_cast<long long>(max_sends), static_cast<long long>(link),
                            static_cast<long long>(limit)}) != 0) {
        own_.drv.free_result();
        return -1;
    }
    read_rows(out);
    return 0;
}

int outbox_store::flush_group(bool due_only) {
    db_lock guard(own_.drv);
    return own_.flush_group(due_only);
}

int outbox_store::to_send(unsigned link, std::vector<outbox_entry>& out) {
    return read(to_send_statement, {max_sends, link}, nullptr, out);
}

bool outbox_store::due(long id, unsigned link) {
    db_lock guard(own_.drv);
    return open() && sqlite_count_bound(
                         own_.drv, "select count(*) from outbox where id=? and " DUE_ON_LINK,
                         {static_cast<long long>(id), max_sends, static_cast<long long>(link)}) > 0;
}

int outbox_store::marks_due(std::vector<outbox_entry>& out) {
    return read(marks_due_statement, {}, nullptr, out);
}

int outbox_store::read(const char* statement, std::initializer_list<long long> numbers,
                       const std::string* text, std::vector<outbox_entry>& out) {
    db_lock guard(own_.drv);
    int rc = -1;
    if (open()) {
        if (text)
            rc = sqlite_query_bound(own_.drv, statement, {*text});
        else if (numbers.size() == 2)
            rc = sqlite_query_bound(own_.drv, statement, {numbers.begin()[0], numbers.begin()[1]});
        else
            rc = sqlite_query_bound(own_.drv, statement, {});
    }
    if (rc != 0) {
        own_.drv.free_result();
        return -1;
    }
    read_rows(out);
    return 0;
}

void outbox_store::read_rows(std::vector<outbox_entry>& out) {
    while (own_.drv.fetch_row() == 0) {
        outbox_entry e;
        std::string id;
        own_.drv.fetch_text_field(0, id);
        e.id = atol(id.c_str());
        std::string* texts[] = {&e.kind, &e.seq,    &e.room, &e.extension, &e.number, &e.date,
                                &e.time, &e.record, &e.mark, &e.mark_key,  &e.answer};
        for (int i = 0; i < 11; i++) own_.drv.fetch_text_field(i + 1, *texts[i]);
        own_.drv.fetch_int_field(12, &e.sends);
        out.push_back(std::move(e));
    }
    own_.drv.free_result();
}

long outbox_store::last_posting_number() {
    db_lock guard(own_.drv);
    if (!open()) return -1;
    return static_cast<long>(sqlite_count_bound(
        own_.drv, "select coalesce(max(last), -1) from sequence where name='posting'", {}));
}

int outbox_store::unanswered() {
    db_lock guard(own_.drv);
    if (!own_.connect_keeping_group()) return -1;
    return static_cast<int>(sqlite_count_bound(
        own_.drv, "select count(*) from outbox where kind='PS' and waiting=1", {}));
}

int outbox_store::unsent() {
    db_lock guard(own_.drv);
    if (!own_.connect_keeping_group()) return -1;
    return static_cast<int>(sqlite_count_bound(
        own_.drv, "select count(*) from outbox where kind='PS' and waiting=1 and sends=0", {}));
}
