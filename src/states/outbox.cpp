// The outbox of the states file, on the connection that no operation closes:
// the records that must reach the PMS and the last posting number used. Its
// tables are made when first used; at that moment every entry counts as
// written on no link, so that the postings a previous run wrote and nobody
// answered go out once more.
#include <cstring>

#include "db/sqlite.h"
#include "logger.h"
#include "states/literal.h"
#include "states/states.h"

namespace {

const char* const create_outbox =
    "create table if not exists outbox (id integer primary key autoincrement, kind text, seq "
    "text, room text, extension text, number text, date text, time text, record text, waiting "
    "integer default 1, mark text default '', mark_key text default '', sends integer default "
    "0, link integer default 0, rating_line text default '', billed integer default -1, amount "
    "integer default -1)";
// Columns added since the table was first made, for files made before.
const char* const added_columns[][2] = {
    {"rating_line", "alter table outbox add column rating_line text default ''"},
    {"billed", "alter table outbox add column billed integer default -1"},
    {"amount", "alter table outbox add column amount integer default -1"},
};
const char* const create_sequence =
    "create table if not exists sequence (name text primary key, last integer)";
const char* const columns =
    "select id, kind, seq, room, extension, number, date, time, record, mark, mark_key, sends "
    "from outbox ";

// An entry leaves when nothing is left to do for it.
std::string remove_settled(long id) {
    return "delete from outbox where id=" + std::to_string(id) + " and waiting=0 and mark=''";
}

}  // namespace

bool states_file::open_outbox() {
    if (!connect_own()) return false;
    if (outbox_checked_) return true;
    bool ok = occupancy_.query(create_outbox) == 0 && occupancy_.query(create_sequence) == 0;
    for (const auto& [name, alter] : added_columns)
        if (ok && sqlite_count(occupancy_, ("select count(*) from pragma_table_info('outbox') "
                                            "where name='" +
                                            std::string(name) + "'")
                                               .c_str()) == 0)
            ok = occupancy_.query(alter) == 0;
    outbox_checked_ = ok && occupancy_.query("update outbox set link=0") == 0;
    return outbox_checked_;
}

long states_file::outbox_put(const outbox_entry& e, unsigned link) {
    db_lock guard(occupancy_);
    if (!open_outbox() || sqlite_begin(occupancy_) != 0) return -1;
    const bool posting = e.kind == "PS";
    if (posting) {
        const std::string same =
            "from outbox where kind='PS' and waiting=1 and seq=" + quoted(e.seq);
        if (sqlite_count(occupancy_, ("select count(*) " + same).c_str()) > 0) {
            if (outbox_warned_ != link) {
                outbox_warned_ = link;
                LOG(L_WARNING,
                    "Posting P#%s of room %s was never answered and is forgotten: its number is "
                    "used again",
                    e.seq.c_str(), e.room.c_str());
            }
            occupancy_.query(("update outbox set waiting=0 " + same).c_str());
            occupancy_.query("delete from outbox where waiting=0 and mark=''");
        }
    }
    bool ok =
        occupancy_.query(("insert into outbox (kind, seq, room, extension, number, date, "
                          "time, record, mark, mark_key, rating_line, billed, amount) "
                          "values (" +
                          quoted(e.kind) + "," + quoted(e.seq) + "," + quoted(e.room) + "," +
                          quoted(e.extension) + "," + quoted(e.number) + "," + quoted(e.date) +
                          "," + quoted(e.time) + "," + quoted(e.record) + "," + quoted(e.mark) +
                          "," + quoted(e.mark_key) + "," + quoted(e.rating_line) + "," +
                          std::to_string(e.billed) + "," + std::to_string(e.amount) + ")")
                             .c_str()) == 0;
    // Numbers taken by several threads may be written out of order: the
    // last one used is the one furthest round the circle of 10,000.
    if (ok && posting) {
        const long number = atol(e.seq.c_str());
        const long before =
            sqlite_count(occupancy_, "select coalesce(max(last), -1) from sequence");
        if (before < 0 || (number - before + 10000) % 10000 < 5000)
            ok = occupancy_.query(
                     ("replace into sequence values ('posting', " + std::to_string(number) + ")")
                         .c_str()) == 0;
    }
    const long id = ok ? sqlite_count(occupancy_, "select max(id) from outbox") : -1;
    if (!ok) {
        occupancy_.query("rollback");
        return -1;
    }
    return sqlite_commit(occupancy_) == 0 ? id : -1;
}

int states_file::outbox_written(long id, unsigned link) {
    db_lock guard(occupancy_);
    if (!open_outbox()) return -1;
    const std::string n = std::to_string(id);
    if (occupancy_.query(("update outbox set sends=sends+1, link=" + std::to_string(link) +
                          ", waiting=(kind='PS') where id=" + n)
                             .c_str()) != 0)
        return -1;
    return occupancy_.query(remove_settled(id).c_str()) == 0 ? 0 : -1;
}

std::optional<states_file::outbox_entry> states_file::outbox_waiting(const std::string& seq) {
    std::vector<outbox_entry> found;
    if (read_outbox("where kind='PS' and waiting=1 and seq=" + quoted(seq) + " order by id",
                    found) != 0 ||
        found.empty())
        return std::nullopt;
    return found.front();
}

int states_file::outbox_answered(long id) {
    db_lock guard(occupancy_);
    if (!open_outbox() ||
        occupancy_.query(("update outbox set waiting=0 where id=" + std::to_string(id)).c_str()) !=
            0)
        return -1;
    return occupancy_.query(remove_settled(id).c_str()) == 0 ? 0 : -1;
}

int states_file::outbox_marked(long id) {
    db_lock guard(occupancy_);
    if (!open_outbox()) return -1;
    if (occupancy_.query(("update outbox set mark='' where id=" + std::to_string(id)).c_str()) != 0)
        return -1;
    return occupancy_.query(remove_settled(id).c_str()) == 0 ? 0 : -1;
}

int states_file::outbox_to_send(unsigned link, std::vector<outbox_entry>& out) {
    return read_outbox("where waiting=1 and (sends=0 or (sends<" +
                           std::to_string(max_posting_sends) + " and link<>" +
                           std::to_string(link) + ")) order by id",
                       out);
}

int states_file::outbox_marks_due(std::vector<outbox_entry>& out) {
    return read_outbox("where mark<>'' order by id", out);
}

int states_file::read_outbox(const std::string& where, std::vector<outbox_entry>& out) {
    db_lock guard(occupancy_);
    if (!open_outbox() || occupancy_.query((columns + where).c_str()) != 0) {
        occupancy_.free_result();
        return -1;
    }
    while (occupancy_.fetch_row() == 0) {
        outbox_entry e;
        int id = 0;
        occupancy_.fetch_int_field(0, &id);
        e.id = id;
        std::string* texts[] = {&e.kind, &e.seq,  &e.room,   &e.extension, &e.number,
                                &e.date, &e.time, &e.record, &e.mark,      &e.mark_key};
        for (int i = 0; i < 10; i++) {
            char text[4096] = "";
            occupancy_.fetch_char_field(i + 1, text, sizeof text - 1);
            *texts[i] = text;
        }
        occupancy_.fetch_int_field(11, &e.sends);
        out.push_back(std::move(e));
    }
    occupancy_.free_result();
    return 0;
}

long states_file::last_posting_number() {
    db_lock guard(occupancy_);
    if (!open_outbox()) return -1;
    return sqlite_count(occupancy_,
                        "select coalesce(max(last), -1) from sequence where name='posting'");
}

int states_file::postings_unanswered() {
    return count_own("select count(*) from outbox where kind='PS' and waiting=1");
}
