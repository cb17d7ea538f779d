// pms_sim: a PMS that the daemon can connect to, on 127.0.0.1.
//
//   pms_sim [--port N] [--port-file F] [--answer ok|refuse|none]
//           [--refuse-text T] [--answer-delay SECONDS] [--no-link]
//           [--script FILE] [--exit-after-script] [--tls-cert PEM --tls-key PEM]
//
// Prints every frame it receives ("HH:MM:SS.mmm <- TEXT") and sends
// ("HH:MM:SS.mmm -> TEXT"), one line each, and notes ("HH:MM:SS.mmm -- ...").
// Commands come line by line from the script file, or else from standard
// input:
//   TEXT            a record text, sent framed (waits for a client first),
//                   e.g. "RE|RN101|MLY|" (the message lamp on)
//   sleep N         pause N seconds (fractions allowed)
//   wait PREFIX     wait for a received frame beginning with PREFIX; each wait
//                   looks only at frames after the one the previous wait matched
//   raw BYTES       send BYTES unframed; \xNN and \\ escapes allowed
//   drop            close the client's connection cleanly
//   reset           reset the client's connection
//   pause, resume   stop reading from the client, read again
//   silent on|off   answer nothing (a hung PMS: reads, keeps the connection)
//   answer ok|refuse|none [TEXT]   change how "PS" records are answered
//   gc ROOM NAME [OLDROOM]         send "GC" (a room move with OLDROOM)
//   occupied [ROOM:NAME ...]       answer each "DR" with "DS", one "GI" per
//                                  room and "DE" (no rooms: an empty hotel)
//   audit start|end                send "NS" or "NE"
//   # ...           comment; blank lines are skipped
// It ends on SIGTERM or SIGINT, or after the last command with
// --exit-after-script. --port-file receives the port once it listens.
// --answer-delay answers each "PS" that many seconds (fractions allowed, e.g.
// 0.00005 or 0.3) after it came, in order, while reading goes on.
// With --tls-cert and --tls-key it serves TLS with that certificate and key.
#include <fcntl.h>
#include <poll.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <string>
#include <vector>

#include "netutil.h"
#include "sim_pms.h"

namespace {

int signal_fd = -1;
bool stop_requested = false;

void usage(const char* prog) {
    fprintf(stderr,
            "usage: %s [--port N] [--port-file F] [--answer ok|refuse|none] [--refuse-text T]\n"
            "          [--answer-delay SECONDS] [--no-link] [--script FILE] [--exit-after-script]\n"
            "          [--tls-cert PEM --tls-key PEM]\n",
            prog);
}

void print_line(const char* dir, const std::string& text) {
    std::string shown;
    for (unsigned char c : text) {
        if (c < 0x20 || c >= 0x7f || c == '\\') {
            char esc[8];
            snprintf(esc, sizeof esc, c == '\\' ? "\\\\" : "\\x%02x", c);
            shown += esc;
        } else {
            shown += static_cast<char>(c);
        }
    }
    printf("%s %s %s\n", time_stamp().c_str(), dir, shown.c_str());
    fflush(stdout);
}

// Waits up to `ms` milliseconds (-1 = for ever) for a terminating signal.
// true when one came.
bool signal_within(int ms) {
    if (stop_requested) return true;
    pollfd p{signal_fd, POLLIN, 0};
    int n = poll(&p, 1, ms);
    if (n > 0) {
        signalfd_siginfo info;
        if (read(signal_fd, &info, sizeof info) > 0) {
            print_line("--", "caught signal " + std::to_string(info.ssi_signo));
        }
        stop_requested = true;
    }
    return stop_requested;
}

// Lines of a descriptor, read without blocking signal handling.
class line_reader {
  public:
    explicit line_reader(int fd) : fd_(fd) {}
    // false at the end of input or on a terminating signal.
    bool next(std::string& line) {
        for (;;) {
            size_t nl = buf_.find('\n');
            if (nl != std::string::npos) {
                line = buf_.substr(0, nl);
                buf_.erase(0, nl + 1);
                return true;
            }
            if (eof_) {
                if (buf_.empty()) return false;
                line.swap(buf_);
                buf_.clear();
                return true;
            }
            pollfd fds[2] = {{fd_, POLLIN, 0}, {signal_fd, POLLIN, 0}};
            if (poll(fds, 2, -1) < 0) continue;
            if (fds[1].revents && signal_within(0)) return false;
            if (!fds[0].revents) continue;
            char chunk[4096];
            ssize_t n = read(fd_, chunk, sizeof chunk);
            if (n <= 0) {
                eof_ = true;
            } else {
                buf_.append(chunk, static_cast<size_t>(n));
            }
        }
    }

  private:
    int fd_;
    std::string buf_;
    bool eof_ = false;
};

std::string trim(const std::string& s) {
    size_t b = s.find_first_not_of(" \t\r");
    if (b == std::string::npos) return "";
    size_t e = s.find_last_not_of(" \t\r");
    return s.substr(b, e - b + 1);
}

std::string unescape(const std::string& s) {
    std::string out;
    for (size_t i = 0; i < s.size(); i++) {
        if (s[i] == '\\' && i + 1 < s.size() && s[i + 1] == '\\') {
            out += '\\';
            i++;
        } else if (s[i] == '\\' && i + 3 < s.size() && s[i + 1] == 'x') {
            out += static_cast<char>(strtoul(s.substr(i + 2, 2).c_str(), nullptr, 16));
            i += 3;
        } else {
            out += s[i];
        }
    }
    return out;
}

bool parse_answer(const std::string& word, pms_sim::answer_mode* mode) {
    if (word == "ok") {
        *mode = pms_sim::answer_mode::ok;
    } else if (word == "refuse") {
        *mode = pms_sim::answer_mode::refuse;
    } else if (word == "none") {
        *mode = pms_sim::answer_mode::none;
    } else {
        return false;
    }
    return true;
}

// Runs one command line; false when a signal asks to stop.
bool run_command(pms_sim& sim, const std::string& line, size_t& wait_cursor,
                 std::string& refuse_text) {
    using std::chrono::milliseconds;
    if (line.empty() || line[0] == '#') return true;

    if (line.rfind("sleep ", 0) == 0) {
        double secs = strtod(line.c_str() + 6, nullptr);
        if (secs > 0) return !signal_within(static_cast<int>(secs * 1000));
        return true;
    }
    if (line.rfind("wait ", 0) == 0) {
        std::string prefix = trim(line.substr(5));
        for (;;) {
            size_t index = 0;
            if (sim.wait_for_frame(prefix, milliseconds(200), wait_cursor, &index)) {
                wait_cursor = index + 1;
                return true;
            }
            if (signal_within(0)) return false;
        }
    }
    if (line == "drop") {
        sim.drop_connection();
        return true;
    }
    if (line == "reset") {
        sim.reset_connection();
        return true;
    }
    if (line == "pause" || line == "resume") {
        sim.pause_reading(line == "pause");
        return true;
    }
    if (line == "silent on" || line == "silent off") {
        sim.set_silent(line == "silent on");
        return true;
    }
    if (line.rfind("answer ", 0) == 0) {
        std::string rest = trim(line.substr(7));
        std::string word = rest.substr(0, rest.find(' '));
        if (word.size() < rest.size()) refuse_text = trim(rest.substr(word.size()));
        pms_sim::answer_mode mode;
        if (parse_answer(word, &mode)) {
            sim.set_answer(mode, refuse_text);
        } else {
            print_line("--", "unknown answer mode: " + word);
        }
        return true;
    }

    std::istringstream words(line);
    std::string command;
    words >> command;
    if (command == "occupied") {
        std::vector<pms_sim::guest> guests;
        for (std::string word; words >> word;) {
            size_t colon = word.find(':');
            guests.push_back(
                {word.substr(0, colon), colon == std::string::npos ? "" : word.substr(colon + 1)});
        }
        sim.set_occupied(guests);
        return true;
    }

    bool raw = line.rfind("raw ", 0) == 0;
    while (!sim.wait_connected(milliseconds(200))) {
        if (signal_within(0)) return false;
    }
    bool sent;
    if (command == "gc") {
        pms_sim::guest g;
        std::string old_room;
        words >> g.room >> g.name >> old_room;
        sent = sim.send_guest_change(g, old_room);
    } else if (command == "audit") {
        std::string which;
        words >> which;
        sent = sim.send_night_audit(which == "start");
    } else {
        sent = raw ? sim.send_raw(unescape(line.substr(4))) : sim.send_record(line);
    }
    if (!sent) print_line("--", "not sent (no client): " + line);
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    pms_sim::options opts;
    std::string port_file, script, tls_cert, tls_key;
    bool exit_after_script = false;
    for (int i = 1; i < argc; i++) {
        std::string arg = argv[i];
        bool has_value = i + 1 < argc;
        if (arg == "--port" && has_value) {
            opts.port = atoi(argv[++i]);
        } else if (arg == "--port-file" && has_value) {
            port_file = argv[++i];
        } else if (arg == "--answer" && has_value) {
            if (!parse_answer(argv[++i], &opts.answer)) {
                usage(argv[0]);
                return 2;
            }
        } else if (arg == "--refuse-text" && has_value) {
            opts.refuse_text = argv[++i];
        } else if (arg == "--answer-delay" && has_value) {
            const char* text = argv[++i];
            char* end = nullptr;
            const double secs = strtod(text, &end);
            if (end == text || *end != '\0' || !(secs >= 0 && secs <= 86400)) {
                usage(argv[0]);
                return 2;
            }
            opts.answer_delay = std::chrono::microseconds(std::llround(secs * 1e6));
        } else if (arg == "--no-link") {
            opts.play_link = false;
        } else if (arg == "--script" && has_value) {
            script = argv[++i];
        } else if (arg == "--tls-cert" && has_value) {
            tls_cert = argv[++i];
        } else if (arg == "--tls-key" && has_value) {
            tls_key = argv[++i];
        } else if (arg == "--exit-after-script") {
            exit_after_script = true;
        } else {
            usage(argv[0]);
            return 2;
        }
    }

    // Terminating signals are taken through a descriptor, so that no thread
    // is interrupted and every wait below can watch for them. A shell starts
    // background jobs with SIGINT ignored; it is wanted here all the same.
    signal(SIGINT, SIG_DFL);
    signal(SIGTERM, SIG_DFL);
    sigset_t mask;
    sigemptyset(&mask);
    sigaddset(&mask, SIGTERM);
    sigaddset(&mask, SIGINT);
    pthread_sigmask(SIG_BLOCK, &mask, nullptr);
    signal(SIGPIPE, SIG_IGN);
    signal_fd = signalfd(-1, &mask, SFD_CLOEXEC);
    if (signal_fd < 0) {
        perror("signalfd");
        return 1;
    }

    int input_fd = 0;
    if (!script.empty()) {
        input_fd = open(script.c_str(), O_RDONLY | O_CLOEXEC);
        if (input_fd < 0) {
            fprintf(stderr, "pms_sim: cannot open %s: %s\n", script.c_str(), strerror(errno));
            return 1;
        }
    }

    opts.on_frame = [](const pms_sim::frame& f) { print_line(f.incoming ? "<-" : "->", f.text); };
    opts.on_note = [](const std::string& text) { print_line("--", text); };
    std::string refuse_text = opts.refuse_text;
    pms_sim sim(opts);
    if ((!tls_cert.empty() || !tls_key.empty()) && !sim.serve_tls(tls_cert, tls_key)) {
        fprintf(stderr, "pms_sim: cannot serve TLS with %s and %s\n", tls_cert.c_str(),
                tls_key.c_str());
        return 1;
    }
    if (!sim.start()) {
        fprintf(stderr, "pms_sim: cannot listen on 127.0.0.1:%d\n", opts.port);
        return 1;
    }
    print_line("--", "listening on 127.0.0.1:" + std::to_string(sim.port()));
    if (!port_file.empty()) {
        // Written under another name first, so that a reader never sees half.
        std::string tmp = port_file + ".tmp";
        FILE* f = fopen(tmp.c_str(), "w");
        if (!f || fprintf(f, "%d\n", sim.port()) < 0 || fclose(f) != 0 ||
            rename(tmp.c_str(), port_file.c_str()) != 0) {
            fprintf(stderr, "pms_sim: cannot write %s\n", port_file.c_str());
            return 1;
        }
    }

    line_reader reader(input_fd);
    size_t wait_cursor = 0;
    std::string line;
    while (reader.next(line)) {
        if (!run_command(sim, trim(line), wait_cursor, refuse_text)) break;
    }
    if (input_fd > 0) close(input_fd);

    if (!stop_requested && exit_after_script) {
        print_line("--", "end of script");
    } else {
        signal_within(-1);
    }
    sim.stop();
    return 0;
}
