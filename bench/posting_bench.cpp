// The posting path of the daemon's binary, black-box, with [fixes] all, in
// cache mode, against the PMS and Manager simulators: the billing benchmark's
// hotel (2,000 rooms, a states file made by the daemon's own code holding
// 100,000 posted and 20,000 waiting cached calls), at the shipped log level 4
// and the real 10-second billing cycle.
//  - burst: from the daemon's first "PS" to the simulator's "PA" for the
//    20,000th, with the PMS answering each "PS" 50 us after it came, against
//    the protocol's floor measured in the same run (a plain client sending
//    20,000 "PS" one at a time to such a simulator, waiting for each "PA");
//    and the burst again with answers at once (a second daemon run);
//  - idle: once every answer is settled (the outbox empty), the CPU time of
//    the daemon (utime + stime of /proc/<pid>/stat) per 10-second cycle;
//  - latency: [posting] immediate, from a Cdr event written by the Manager
//    simulator to its "PS" at the PMS simulator, for calls 20 ms apart; and
//    its floor in the same run: a plain relay process that does, for each
//    call, the one commit a posting needs before it goes out (the call in the
//    cache, its posting in the outbox, the call marked, the posting number)
//    on another copy of the states file, then writes the "PS".
// Each figure is printed with its target. A plain program: no arguments (the
// relay is the program run again as "posting_bench relay IN OUT FILE").
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <signal.h>
#include <sqlite3.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "bench_util.h"
#include "netutil.h"
#include "sim_mgr.h"
#include "sim_pms.h"
#include "states/states.h"

namespace {

using clock_type = std::chrono::steady_clock;
using namespace std::chrono_literals;

constexpr int kRooms = 2000;
constexpr int kPostedPerRoom = 50;
constexpr int kNewPerRoom = 10;
constexpr int kBurst = kRooms * kNewPerRoom;
constexpr int kLatencyCalls = 500;
constexpr auto kCycle = 10s;                    // the daemon's billing period
const std::string kLatencyPrefix = "00493012";  // the destinations of the latency calls

double seconds_since(clock_type::time_point from, clock_type::time_point to = clock_type::now()) {
    return std::chrono::duration<double>(to - from).count();
}

std::string room_name(int r) {
    return std::to_string(1000 + r);
}

std::string field(const std::string& text, const char* name) {
    const size_t at = text.find(std::string("|") + name);
    if (at == std::string::npos) return "";
    return text.substr(at + 3, text.find('|', at + 3) - at - 3);
}

// The states file as the daemon makes it, filled like billing_bench's.
bool make_states(const std::string& path) {
    {
        // With the outbox's tables, which the latency floor's relay writes
        // to (marking no posting makes them).
        states_file states;
        if (states.open(path) != 0 || states.outbox().marked(0) < 0) return false;
    }
    sqlite3* db = nullptr;
    sqlite3_stmt* st = nullptr;
    bool ok = sqlite3_open(path.c_str(), &db) == SQLITE_OK &&
              sqlite3_exec(db, "begin", nullptr, nullptr, nullptr) == SQLITE_OK &&
              sqlite3_prepare_v2(db,
                                 "insert into cdrcache (src, dst, start, billsec, c_from, "
                                 "userfield) values (?1, '5551234', ?2, 125, ?1, ?3)",
                                 -1, &st, nullptr) == SQLITE_OK;
    for (int r = 0; ok && r < kRooms; ++r) {
        for (int i = 0; ok && i < kPostedPerRoom + kNewPerRoom; ++i) {
            const bool posted = i < kPostedPerRoom;
            char start[32];
            snprintf(start, sizeof start, "2009-05-%s 10:%02d:%02d", posted ? "13" : "14", i / 60,
                     i % 60);
            const std::string room = room_name(r);
            const std::string mark = posted ? "PS|P#0001|RN" + room + "|PTT|DA090513|TI10000" +
                                                  std::to_string(i % 10) + "|DU000205|DD5551234|"
                                            : "";
            sqlite3_bind_text(st, 1, room.c_str(), -1, SQLITE_TRANSIENT);
            sqlite3_bind_text(st, 2, start, -1, SQLITE_TRANSIENT);
            sqlite3_bind_text(st, 3, mark.c_str(), -1, SQLITE_TRANSIENT);
            ok = sqlite3_step(st) == SQLITE_DONE && sqlite3_reset(st) == SQLITE_OK;
        }
    }
    sqlite3_finalize(st);
    ok = ok && sqlite3_exec(db, "commit", nullptr, nullptr, nullptr) == SQLITE_OK;
    sqlite3_close(db);
    return ok;
}

// The first column of `sql` on the file `path` as a number, or -1.
long long count_of(const std::string& path, const char* sql) {
    sqlite3* db = nullptr;
    sqlite3_stmt* st = nullptr;
    long long n = -1;
    if (sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READONLY, nullptr) == SQLITE_OK &&
        sqlite3_prepare_v2(db, sql, -1, &st, nullptr) == SQLITE_OK &&
        sqlite3_step(st) == SQLITE_ROW)
        n = sqlite3_column_int64(st, 0);
    sqlite3_finalize(st);
    sqlite3_close(db);
    return n;
}

// utime + stime of process `pid`, in seconds.
double cpu_seconds(pid_t pid) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
    std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    const size_t end = text.rfind(')');
    if (end == std::string::npos) return -1;
    std::vector<std::string> fields;  // from field 3 (state) on
    std::string word;
    for (std::istringstream words(text.substr(end + 2)); words >> word;) fields.push_back(word);
    if (fields.size() < 13) return -1;
    return (std::stod(fields[11]) + std::stod(fields[12])) / sysconf(_SC_CLK_TCK);
}

// What the PMS simulator saw, kept by its frame callback.
struct pms_watch {
    std::atomic<int> ps{0}, pa{0};
    clock_type::time_point first_ps, last_pa;  // last_pa: the kBurst-th "PA"
    std::mutex mutex;
    std::map<std::string, clock_type::time_point> ps_by_dst;  // latency phase

    void on_frame(const pms_sim::frame& f) {
        const auto now = clock_type::now();
        if (f.incoming && f.text.starts_with("PS|")) {
            if (ps++ == 0) first_ps = now;
            const std::string dst = field(f.text, "DD");
            std::lock_guard<std::mutex> g(mutex);
            if (dst.starts_with(kLatencyPrefix)) ps_by_dst.emplace(dst, now);
        } else if (!f.incoming && f.text.starts_with("PA|")) {
            // Only the simulator's thread counts: the time is there before
            // the count that others wait for.
            const int n = pa + 1;
            if (n == kBurst) last_pa = now;
            pa = n;
        }
    }
};

template <typename Pred>
bool wait_for(Pred pred, std::chrono::seconds limit, std::chrono::milliseconds step = 5ms) {
    for (const auto until = clock_type::now() + limit; !pred();) {
        if (clock_type::now() > until) return false;
        std::this_thread::sleep_for(step);
    }
    return true;
}

void print(const char* what, double figure, const char* unit, const char* target) {
    printf("%-62s %10.3f %-4s (target %s)\n", what, figure, unit, target);
    fflush(stdout);
}

// The floor: a plain client sends kBurst "PS" one at a time to a simulator
// answering after `delay`, waiting for each "PA". Seconds, or -1.
double floor_seconds(std::chrono::microseconds delay) {
    pms_sim::options opts;
    opts.answer_delay = delay;
    pms_sim sim(opts);
    const int fd = sim.start() ? connect_loopback(sim.port()) : -1;
    if (fd < 0) return -1;
    const auto from = clock_type::now();
    char buf[512];
    for (int i = 0; i < kBurst; ++i) {
        char ps[128];
        snprintf(ps, sizeof ps, "\x02PS|RN%s|DD5551234|P#%04d|DU000205|DA090514|TI100000|PTT|\x03",
                 room_name(i % kRooms).c_str(), i % 9999 + 1);
        if (!write_all(fd, ps)) return -1;
        for (ssize_t n = 0; n <= 0 || buf[n - 1] != '\x03';)
            if ((n = read(fd, buf, sizeof buf)) <= 0) return -1;
    }
    const double took = seconds_since(from);
    close(fd);
    return took;
}

struct socket_fd {
    int fd;
    ~socket_fd() {
        if (fd >= 0) close(fd);
    }
};

// The latency floor's relay (its own process): reads calls as lines "room
// destination start" from port `in`, and for each runs the statements of a
// posting's one commit on `db`, with the daemon's settings for the states
// file, then writes its "PS" to port `out`. Returns when `in` closes.
int relay_main(int in, int out, const char* db_path) {
    using db_ptr = std::unique_ptr<sqlite3, decltype(&sqlite3_close)>;
    using statement_ptr = std::unique_ptr<sqlite3_stmt, decltype(&sqlite3_finalize)>;
    sqlite3* opened = nullptr;
    const bool open = sqlite3_open(db_path, &opened) == SQLITE_OK;
    const db_ptr db(opened, sqlite3_close);
    if (!open || sqlite3_exec(db.get(),
                              "PRAGMA journal_mode=WAL; PRAGMA synchronous=NORMAL; "
                              "PRAGMA cache_size=-16384; PRAGMA wal_autocheckpoint=100000",
                              nullptr, nullptr, nullptr) != SQLITE_OK)
        return 1;
    const char* const statements[] = {
        "insert into cdrcache (src, dst, start, billsec, c_from, uniqueid) values "
        "(?1, ?2, ?3, 60, ?1, ?4)",
        "insert into outbox (kind, seq, room, number, date, time, record) values "
        "('PS', ?4, ?1, ?2, '240501', '100000', ?5)",
        "update cdrcache set userfield = ?5 where rowid = ?6",
        "replace into sequence values ('posting', ?4)"};
    std::vector<statement_ptr> st;
    for (const char* sql : statements) {
        sqlite3_stmt* s = nullptr;
        const bool ok = sqlite3_prepare_v2(db.get(), sql, -1, &s, nullptr) == SQLITE_OK;
        st.emplace_back(s, sqlite3_finalize);
        if (!ok) return 1;
    }
    const socket_fd to{connect_loopback(out)}, from{connect_loopback(in)};
    if (to.fd < 0 || from.fd < 0) return 1;
    const int one = 1;
    setsockopt(to.fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    std::string pending;
    char buf[4096];
    for (int number = 1;;) {
        const ssize_t n = read(from.fd, buf, sizeof buf);
        if (n <= 0) return 0;
        pending.append(buf, static_cast<size_t>(n));
        for (size_t end; (end = pending.find('\n')) != std::string::npos;
             pending.erase(0, end + 1), number = number % 9999 + 1) {
            std::istringstream line(pending.substr(0, end));
            std::string room, dst, date, time;
            line >> room >> dst >> date >> time;
            char seq[16];
            snprintf(seq, sizeof seq, "%04d", number);
            const std::string ps =
                "PS|RN" + room + "|DD" + dst + "|P#" + seq + "|DU000060|DA240501|TI100000|PTT|";
            const std::string start = date + " " + time;
            sqlite3_exec(db.get(), "BEGIN IMMEDIATE", nullptr, nullptr, nullptr);
            sqlite3_int64 call = 0;  // the cache's row of the call
            for (const statement_ptr& s : st) {
                // Each statement takes the parameters it names.
                sqlite3_bind_text(s.get(), 1, room.c_str(), -1, SQLITE_TRANSIENT);
                sqlite3_bind_text(s.get(), 2, dst.c_str(), -1, SQLITE_TRANSIENT);
                sqlite3_bind_text(s.get(), 3, start.c_str(), -1, SQLITE_TRANSIENT);
                sqlite3_bind_text(s.get(), 4, seq, -1, SQLITE_TRANSIENT);
                sqlite3_bind_text(s.get(), 5, ps.c_str(), -1, SQLITE_TRANSIENT);
                sqlite3_bind_int64(s.get(), 6, call);
                sqlite3_step(s.get());
                sqlite3_reset(s.get());
                if (call == 0) call = sqlite3_last_insert_rowid(db.get());
            }
            if (sqlite3_exec(db.get(), "COMMIT", nullptr, nullptr, nullptr) != SQLITE_OK ||
                !write_all(to.fd, "\x02" + ps + "\x03"))
                return 1;
        }
    }
}

// The latency floor: calls 20 ms apart through the relay, on a copy of
// `states`; the Cdr event to "PS" times in ms, sorted (empty on failure).
std::vector<double> relay_latencies(const std::string& states, const std::string& dir) {
    const std::string db = dir + "/relay.db";
    std::filesystem::copy_file(states, db);
    pms_watch watch;
    pms_sim::options opts;
    opts.on_frame = [&watch](const pms_sim::frame& f) { watch.on_frame(f); };
    pms_sim pms(opts);
    int port = 0;
    const int listener = pms.start() ? listen_loopback(0, &port) : -1;
    if (listener < 0) return {};
    const pid_t pid = fork();
    if (pid == 0) {
        const std::string in = std::to_string(port), out = std::to_string(pms.port());
        execl("/proc/self/exe", "posting_bench", "relay", in.c_str(), out.c_str(), db.c_str(),
              static_cast<char*>(nullptr));
        _exit(127);
    }
    pollfd ready{listener, POLLIN, 0};
    const int fd = pid > 0 && poll(&ready, 1, 10000) == 1 ? accept(listener, nullptr, nullptr) : -1;
    close(listener);
    std::vector<std::pair<std::string, clock_type::time_point>> sent;
    if (fd >= 0) {
        const int one = 1;
        setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
        const auto start = clock_type::now();
        for (int i = 0; i < kLatencyCalls; ++i) {
            std::this_thread::sleep_until(start + 20ms * i);
            const std::string dst = kLatencyPrefix + std::to_string(10000 + i);
            char when[32];
            snprintf(when, sizeof when, "2024-05-01 10:%02d:%02d", i / 60 % 60, i % 60);
            sent.emplace_back(dst, clock_type::now());
            if (!write_all(fd, room_name(i * 7 % kRooms) + " " + dst + " " + when + "\n")) break;
        }
        wait_for([&] { return watch.ps >= static_cast<int>(sent.size()); }, 10s);
        close(fd);
    }
    if (pid > 0) waitpid(pid, nullptr, 0);
    std::vector<double> ms;
    std::lock_guard<std::mutex> g(watch.mutex);
    for (const auto& [dst, at] : sent)
        if (auto it = watch.ps_by_dst.find(dst); it != watch.ps_by_dst.end())
            ms.push_back(std::chrono::duration<double, std::milli>(it->second - at).count());
    std::sort(ms.begin(), ms.end());
    if (ms.size() < static_cast<size_t>(kLatencyCalls)) return {};
    return ms;
}

// One daemon run on a copy of `states`: the burst, then (with `more`) the
// idle cycle and the immediate posting latency. false when it failed.
bool daemon_run(const std::string& states, std::chrono::microseconds delay, bool more,
                double floor) {
    static int run = 0;
    const std::string dir = work_dir() + "/run" + std::to_string(run++);
    std::filesystem::create_directories(dir);
    const std::string db = dir + "/states.db";
    std::filesystem::copy_file(states, db);

    pms_watch watch;
    pms_sim::options opts;
    opts.answer_delay = delay;
    opts.on_frame = [&watch](const pms_sim::frame& f) { watch.on_frame(f); };
    pms_sim pms(opts);
    mgr_sim mgr;
    if (!pms.start() || !mgr.start()) return false;
    std::ofstream conf(dir + "/orlanbeck.conf");
    conf
        << "[fixes]\nall = yes\n[pms]\nhost = 127.0.0.1\nport = " << pms.port()
        << "\ninterface = PB\nstatesfile = " << db
        << "\n[logger]\nlog_level = 4\nlog_file = " << dir
        << "/orlanbeck.log\n[services]\ncdr_use_manager = yes\ncdr_mgr_host = 127.0.0.1\n"
        << "cdr_mgr_port = " << mgr.port() << "\ncdr_mgr_user = orlanbeck\n"
        << "cdr_mgr_password = secret\ncdr_mgr_events = cdr\n[posting]\nimmediate = yes\n[rooms]\n";
    for (int r = 0; r < kRooms; ++r) conf << "room" << r + 1 << " = " << room_name(r) << "\n";
    conf.close();

    const pid_t pid = start_daemon(ORLANBECK_BINARY, dir + "/orlanbeck.conf");
    bool ok = pms.wait_link_active(30s) && mgr.wait_logins(1, 30s);
    if (!ok) fprintf(stderr, "posting_bench: the daemon did not link up (see %s)\n", dir.c_str());
    // The burst goes out at the first cycle with the link up.
    if (ok && !wait_for([&] { return watch.pa >= kBurst; }, 600s)) {
        fprintf(stderr, "posting_bench: %d of %d postings answered\n", watch.pa.load(), kBurst);
        ok = false;
    }
    if (ok) {
        const double burst = seconds_since(watch.first_ps, watch.last_pa);
        if (delay.count() > 0) {
            print("burst of 20,000 postings, answers after 50 us", burst, "s", "-");
            print("protocol floor: plain client, one PS at a time, 50 us", floor, "s", "-");
            print("burst over floor", burst / floor, "x", "<= 1.5x");
        } else {
            print("burst of 20,000 postings, answers at once", burst, "s", "< 2 s");
        }
    }
    if (ok && more) {
        const auto answered = clock_type::now();
        const bool settled =
            wait_for([&] { return count_of(db, "select count(*) from outbox") == 0; }, 300s, 200ms);
        print("answers settled, after the last PA", seconds_since(answered), "s",
              settled ? "-" : "- (NOT settled: gave up)");
        const int cycles = 2;
        const double cpu0 = cpu_seconds(pid);
        std::this_thread::sleep_for(kCycle * cycles);
        printf("idle cycles over %lld cached calls:\n",
               count_of(db, "select count(*) from cdrcache"));
        print("idle: daemon CPU per 10 s billing cycle", (cpu_seconds(pid) - cpu0) / cycles, "s",
              "< 0.05 s");

        const std::vector<double> relay = relay_latencies(states, dir);
        if (relay.empty()) {
            fprintf(stderr, "posting_bench: the latency floor's relay failed\n");
            ok = false;
        }
        std::vector<std::pair<std::string, clock_type::time_point>> sent;
        const auto start = clock_type::now();
        for (int i = 0; ok && i < kLatencyCalls; ++i) {
            std::this_thread::sleep_until(start + 20ms * i);
            const std::string dst = kLatencyPrefix + std::to_string(10000 + i);
            const std::string room = room_name(i * 7 % kRooms);
            char when[32];  // each call its own start second
            snprintf(when, sizeof when, "2024-05-01 10:%02d:%02d", i / 60 % 60, i % 60);
            mgr_cdr_event ev = mgr_cdr_event::make(room, dst, when, 60);
            ev.set("From", room).set("UniqueID", "1714557600." + std::to_string(i));
            sent.emplace_back(dst, clock_type::now());
            mgr.send_cdr(ev);
        }
        wait_for([&] { return watch.ps >= kBurst + kLatencyCalls; }, 10s);
        std::vector<double> ms;
        {
            std::lock_guard<std::mutex> g(watch.mutex);
            for (const auto& [dst, at] : sent)
                if (auto it = watch.ps_by_dst.find(dst); it != watch.ps_by_dst.end())
                    ms.push_back(
                        std::chrono::duration<double, std::milli>(it->second - at).count());
        }
        std::sort(ms.begin(), ms.end());
        if (ok && ms.size() < sent.size()) {
            fprintf(stderr, "posting_bench: %zu of %d calls posted\n", ms.size(), kLatencyCalls);
            ok = false;
        } else if (ok) {
            print("[posting] immediate: Cdr event to its PS, p50", ms[ms.size() / 2], "ms", "-");
            print("[posting] immediate: Cdr event to its PS, p99", ms[ms.size() * 99 / 100], "ms",
                  "< 1 ms");
            print("[posting] immediate: Cdr event to its PS, max", ms.back(), "ms", "-");
            const auto over = [](const std::vector<double>& v) {
                return static_cast<double>(v.end() - std::upper_bound(v.begin(), v.end(), 1.0));
            };
            print("[posting] immediate: calls over 1 ms", over(ms), "", "-");
            print("latency floor: plain relay, one commit, p50", relay[relay.size() / 2], "ms",
                  "-");
            print("latency floor: plain relay, one commit, p99", relay[relay.size() * 99 / 100],
                  "ms", "-");
            print("latency floor: plain relay, one commit, calls over 1 ms", over(relay), "", "-");
        }
    }
    kill(pid, SIGTERM);
    waitpid(pid, nullptr, 0);
    return ok;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc == 5 && std::string(argv[1]) == "relay")
        return relay_main(atoi(argv[2]), atoi(argv[3]), argv[4]);
    set_level(4);
    const std::string states = work_dir() + "/template.db";
    bool ok = make_states(states);
    if (!ok) fprintf(stderr, "posting_bench: cannot make the states file\n");
    const double floor = ok ? floor_seconds(50us) : -1;
    if (floor < 0) ok = false;
    ok = ok && daemon_run(states, 50us, true, floor);
    ok = ok && daemon_run(states, 0us, false, floor);
    // BENCH_KEEP=1 keeps the work folder (the daemons' logs) for a look.
    if (const char* keep = getenv("BENCH_KEEP"); keep && *keep == '1') {
        fprintf(stderr, "posting_bench: kept %s\n", work_dir().c_str());
    } else {
        std::error_code ec;
        std::filesystem::remove_all(work_dir(), ec);
    }
    return ok ? 0 : 1;
}
