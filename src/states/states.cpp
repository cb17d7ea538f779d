#include "states/states.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <utility>

#include "db/sqlite.h"
#include "logger.h"

namespace {

const char* const create_rooms =
    "create table rooms (room varchar(8), ci_date date, citime time, calls integer, primary "
    "key(room))";

const char* const create_cache =
    "create table if not exists `cdrcache` (       `accountcode` varchar(20) NOT NULL default "
    "'',       `src` varchar(80) NOT NULL default '',       `dst` varchar(80) NOT NULL default "
    "'',       `dcontext` varchar(80) NOT NULL default '',       `clid` varchar(80) NOT NULL "
    "default '',       `channel` varchar(80) NOT NULL default '',       `dstchannel` "
    "varchar(80) NOT NULL default '',       `lastapp` varchar(80) NOT NULL default '',       "
    "`lastdata` varchar(80) NOT NULL default '',       `start` datetime NOT NULL default "
    "'0000-00-00 00:00:00',       `answer` datetime NOT NULL default '0000-00-00 00:00:00',     "
    "  `end` datetime NOT NULL default '0000-00-00 00:00:00',       `duration` int(11) NOT NULL "
    "default '0',       `billsec` int(11) NOT NULL default '0',       `disposition` "
    "varchar(45) NOT NULL default '',       `amaflags` int(11) NOT NULL default '',       "
    "`c_from` varchar(80) NOT NULL default '',       `c_to` varchar(80) NOT NULL default '',    "
    "   `cost` varchar(20) NOT NULL default '',       `callclass` int(11) NOT NULL default "
    "'0',       `faxdata` varchar(255) NOT NULL default '',       `userfield` varchar(255) NOT "
    "NULL default '',       `uniqueid` varchar(32) NOT NULL default '');";

const char* const create_cache_index =
    "CREATE INDEX IF NOT EXISTS `idx_cdrcache_c_from_start` ON `cdrcache` (`c_from`,`start`)";

// The cache's own indexes, made when missing each time the file is opened
// (also on a file made by an older version): a room's calls not yet posted,
// and the calls of one room and start second that a mark or an accepted
// posting looks for. With them a billing cycle's cost follows the rooms and
// the calls still to post, not the calls posted long ago.
const char* const create_unposted_index =
    "CREATE INDEX IF NOT EXISTS `idx_cdrcache_src_userfield` ON `cdrcache` (`src`,`userfield`)";
const char* const create_start_index =
    "CREATE INDEX IF NOT EXISTS `idx_cdrcache_src_start` ON `cdrcache` "
    "(`src`,date(`start`),time(`start`))";

// The file's mode: at most 0640, whatever the process's umask. SQLite gives
// its -wal and -shm the mode of the file when it makes them.
constexpr mode_t file_mode = 0640;

// Creates the file when missing, and takes from it (and from a -wal or
// -shm already there) every permission beyond 0640. Only the creation opens
// a descriptor, and only before any connection is open: closing a
// descriptor of a file drops every lock the process holds on it, and a
// connection that lost its lock on the -shm may see another process
// rebuild the shared memory under it. The others change the mode by name.
void prepare_file(const std::string& path, bool create) {
    if (create) {
        const int fd =
            ::open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, file_mode);
        if (fd >= 0) ::close(fd);
    }
    for (const char* suffix : {"", "-wal", "-shm"}) {
        const std::string name = path + suffix;
        struct stat st {};
        if (lstat(name.c_str(), &st) == 0 && S_ISREG(st.st_mode) &&
            (st.st_mode & 07777 & ~file_mode) != 0)
            chmod(name.c_str(), st.st_mode & file_mode);
    }
}

}  // namespace

states_file::states_file() = default;

states_file::~states_file() = default;

int states_file::open(const std::string& path, bool quiet_checks) {
    main_.path = path;
    own_.path = path;
    prepare_file(path, true);
    db_lock guard(main_.drv);
    if (!main_.connect()) return -1;
    // Durability. With a write-ahead log and synchronous=NORMAL a transaction
    // that has returned is in the log file (the operating system's cache)
    // before the next statement runs, so a crash of the daemon at any instant
    // loses nothing committed; only a crash of the whole machine may lose
    // the transactions since the log was last synced (at a checkpoint: after
    // each cycle's posting pass, at the latest every 10,000 pages).
    // The calls the capture thread reads back to back are committed together
    // as soon as it would wait for more input (at the latest every 256):
    // once cached, a call is never lost by a crash of the daemon. The marks
    // of one room's postings are committed together after its records were
    // sent, so a crash in the middle posts again at most that room's calls,
    // as a crash between a send and its mark always could. No write waits
    // for a disk sync, so a burst of calls or postings keeps its pace.
    main_.drv.query("PRAGMA journal_mode=WAL");
    main_.drv.query("PRAGMA synchronous=NORMAL");
    // The log is written into the file (and synced) after each billing
    // cycle's posting pass, not every 1,000 pages in the middle of it; the
    // bound stays for runs in which the link is down and nothing is posted.
    main_.drv.query("PRAGMA wal_autocheckpoint=10000");
    const bool has_rooms = quiet_checks ? sqlite_has_table(main_.drv, "rooms")
                                        : main_.drv.query("select count(*) from rooms") == 0;
    if (!has_rooms) main_.drv.query(create_rooms);
    const bool has_cache = quiet_checks ? sqlite_has_table(main_.drv, "cdrcache")
                                        : main_.drv.query("select count(*) from cdrcache") == 0;
    if (!has_cache) {
        main_.drv.query(create_cache);
        main_.drv.query(create_cache_index);
    }
    main_.drv.query(create_unposted_index);
    main_.drv.query(create_start_index);
    main_.drv.free_result();
    // The -wal and -shm exist now; one left by an older run may be too open.
    prepare_file(path, false);
    return 0;
}

long states_file::wakeup_finish(long booking, const outbox_entry& result) {
    states_transaction tx(own_);
    if (wakeups_.remove(tx, booking) != 0) return -1;
    const long id = outbox_.put(tx, result);
    if (id < 0 || tx.commit() != 0) return -1;
    return id;
}

int states_file::forget_guest(const std::string& room, const std::vector<std::string>& names) {
    // One transaction: one commit for the guest's rows.
    states_transaction tx(own_);
    if (!tx.ok() || !occupancy_.open(tx) || !actions_.open(tx)) return -1;
    int rc = sqlite_query_bound(own_.drv, "delete from occupancy where room=?", {room});
    // A caller id is '"Name" <number>': the number is kept.
    if (sqlite_query_bound(own_.drv,
                           "update cdrcache set clid = case when instr(clid, '<') > 0 then "
                           "substr(clid, instr(clid, '<')) when clid glob '*[^0-9+*#]*' then '' "
                           "else clid end where src=?",
                           {room}) != 0)
        rc = -1;

    std::vector<std::pair<long long, std::string>> bodies;
    if (sqlite_query_bound(own_.drv, "select id, body from actions where room=?", {room}) == 0) {
        while (own_.drv.fetch_row() == 0) {
            std::string id, body;
            own_.drv.fetch_text_field(0, id);
            own_.drv.fetch_text_field(1, body);
            bodies.emplace_back(atoll(id.c_str()), std::move(body));
        }
    } else {
        rc = -1;
    }
    own_.drv.free_result();
    for (const auto& [id, body] : bodies) {
        std::string shown = body;
        for (const std::string& name : names) shown = masked_name(std::move(shown), name);
        if (shown == body) continue;
        if (sqlite_query_bound(own_.drv, "update actions set body=? where id=?", {shown, id}) != 0)
            rc = -1;
    }
    const int committed = tx.commit();
    return rc == 0 && committed == 0 ? 0 : -1;
}

void states_file::close_idle() {
    for (states_connection* c : {&main_, &own_}) {
        if (!c->drv.try_lock()) continue;
        c->flush_group();
        c->drv.close();
        c->drv.unlock();
    }
}
