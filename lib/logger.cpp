#include "logger.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <atomic>
#include <cctype>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

#include "thread_annotations.h"

std::atomic<int> logger_detail::log_level{1};
using logger_detail::log_level;

namespace {

const char* const levels[] = {"DEBUG", "EVENT", "NOTICE", "WARNING", "ERROR", "VERBOSE"};
const int syslog_level_map[] = {LOG_DEBUG, LOG_INFO,  LOG_NOTICE, LOG_WARNING,
                                LOG_ERR,   LOG_DEBUG, LOG_DEBUG};

constexpr size_t kLineSize = 1024;

std::atomic<int> log_to_syslog{1};
std::atomic<int> dont_log{0};
std::atomic<unsigned> file_mode{0};
// A log file is created readable by its group at most, whatever the umask.
constexpr unsigned kCreateMode = 0640;
std::atomic<unsigned long> problem_count{0};
void write_out(const char* text, size_t len);
void write_kept();
std::atomic<bool> hide_names{false};
// The names announced by this thread's hidden_name scopes, innermost last.
thread_local std::vector<std::string> names_in_scope;
// The lines kept by this thread's log_batch scopes, and how deep they nest.
thread_local std::string batched;
thread_local int batch_depth = 0;
constexpr size_t kBatchLimit = 64 * 1024;
// Seconds east of UTC, as last seen by write_log(), for the signal-safe path.
std::atomic<long> utc_offset{0};

// The path is the only setting that is not a single word: readers copy it
// under the mutex so that logger_init() never changes it under them. Both are
// trivially destructible, so that threads still logging while the process
// exits never see them torn down.
annotated_mutex path_mutex;
char logfile_path[kLineSize] GUARDED_BY(path_mutex) = "";

// The log file stays open between lines. It is opened again after
// logger_init() or logger_reopen() (a reload), and when the file at its path
// is no longer the one open (rotated away or removed), which is looked at
// once a second.
int log_fd GUARDED_BY(path_mutex) = -1;
dev_t log_dev GUARDED_BY(path_mutex) = 0;
ino_t log_ino GUARDED_BY(path_mutex) = 0;
time_t log_checked GUARDED_BY(path_mutex) = 0;

void close_log() REQUIRES(path_mutex) {
    if (log_fd >= 0) close(log_fd);
    log_fd = -1;
}

// Whether log_fd is open on the file at the path, opening it when needed.
bool log_file_ready() REQUIRES(path_mutex) {
    const time_t now = time(nullptr);
    struct stat st;
    if (log_fd >= 0 && now != log_checked) {
        log_checked = now;
        if (stat(logfile_path, &st) != 0 || st.st_ino != log_ino || st.st_dev != log_dev)
            close_log();
    }
    if (log_fd >= 0) return true;
    const unsigned mode = file_mode;
    log_fd =
        open(logfile_path, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, mode ? mode : kCreateMode);
    if (log_fd < 0) return false;
    if (fstat(log_fd, &st) == 0) {
        // Log files get exactly the mode asked for, whatever the umask.
        if (mode != 0 && (st.st_mode & 07777) != mode) fchmod(log_fd, mode);
        log_dev = st.st_dev;
        log_ino = st.st_ino;
    }
    log_checked = now;
    return true;
}

// "MM/DD/YY HH:MM:SS" of now into `out`; its length. The text of the current
// second is kept per thread, so that most lines cost no time conversion.
constexpr size_t kStampSize = 32;
size_t stamp_now(char* out) {
    thread_local time_t last = -1;
    thread_local char text[kStampSize];
    thread_local size_t len = 0;
    const time_t now = time(nullptr);
    if (now != last) {
        struct tm tmv;
        localtime_r(&now, &tmv);
        utc_offset.store(tmv.tm_gmtoff, std::memory_order_relaxed);
        len = strftime(text, sizeof text, "%D %T", &tmv);
        last = now;
    }
    memcpy(out, text, len);
    return len;
}

// The process id, asked once per process (a system call costs more than
// formatting the whole line); a fork asks again in the child.
std::atomic<long> own_pid{0};
long pid_now() {
    static const bool registered = [] {
        pthread_atfork(nullptr, nullptr, [] { own_pid.store(0, std::memory_order_relaxed); });
        return true;
    }();
    (void)registered;
    long pid = own_pid.load(std::memory_order_relaxed);
    if (pid == 0) {
        pid = static_cast<long>(getpid());
        own_pid.store(pid, std::memory_order_relaxed);
    }
    return pid;
}

// The prefix of a line: " LEVEL[pid]: file:line in function: " or " VERBOSE[pid]: ".
int format_prefix(char* buf, size_t size, int level, const char* file, int line,
                  const char* function) {
    if (level == L_VERBOSE) return snprintf(buf, size, " VERBOSE[%ld]: ", pid_now());
    return snprintf(buf, size, " %s[%ld]: %s:%d in %s: ", levels[level], pid_now(),
                    file ? file : "", line, function ? function : "");
}

// Whether `c` is shown as an escape: control bytes but the tab, and DEL.
bool shown_escaped(unsigned char c) {
    return (c < 0x20 && c != '\t') || c == 0x7f;
}

// Shows the control bytes of the line `buf` (of at most kLineSize - 1
// characters) visibly, "\n", "\r" and "\ooo" as vis(3) does, so that no value
// can end a line or begin a forged one. The last `keep` bytes (the newlines
// that the format itself ends with) stay as they are.
void make_visible(char* buf, size_t keep) {
    const size_t len = strlen(buf);
    size_t newlines = 0;
    while (newlines < keep && newlines < len && buf[len - 1 - newlines] == '\n') newlines++;
    keep = newlines;
    size_t first = 0;
    while (first < len - keep && !shown_escaped(static_cast<unsigned char>(buf[first]))) first++;
    if (first == len - keep) return;  // the usual case: nothing to show
    std::string out(buf, first);
    for (size_t i = first; i < len - keep; ++i) {
        const unsigned char c = static_cast<unsigned char>(buf[i]);
        if (!shown_escaped(c)) {
            out += static_cast<char>(c);
        } else if (c == '\n') {
            out += "\\n";
        } else if (c == '\r') {
            out += "\\r";
        } else {
            const char octal[] = {'\\', static_cast<char>('0' + (c >> 6)),
                                  static_cast<char>('0' + ((c >> 3) & 7)),
                                  static_cast<char>('0' + (c & 7))};
            out.append(octal, sizeof octal);
        }
    }
    out.append(buf + len - keep, keep);
    snprintf(buf, kLineSize, "%s", out.c_str());
}

// --- the signal-safe path: no locale, no allocation, no locks -------------

struct fixed_text {
    char buf[kLineSize + 64];
    size_t len = 0;
    void add(const char* s) {
        while (s && *s && len < sizeof buf - 1) buf[len++] = *s++;
    }
    void add_number(long v, int width = 0) {
        char digits[24];
        int n = 0;
        bool negative = v < 0;
        unsigned long u =
            negative ? 0UL - static_cast<unsigned long>(v) : static_cast<unsigned long>(v);
        do {
            digits[n++] = static_cast<char>('0' + u % 10);
            u /= 10;
        } while (u && n < 20);
        while (n < width && n < 20) digits[n++] = '0';
        if (negative && len < sizeof buf - 1) buf[len++] = '-';
        while (n > 0 && len < sizeof buf - 1) buf[len++] = digits[--n];
    }
};

// "MM/DD/YY HH:MM:SS" of `t` (seconds, local), by the civil-from-days rule.
void add_stamp(fixed_text& out, long t) {
    long days = t / 86400, secs = t % 86400;
    if (secs < 0) {
        secs += 86400;
        days -= 1;
    }
    days += 719468;
    long era = (days >= 0 ? days : days - 146096) / 146097;
    long doe = days - era * 146097;
    long yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
    long doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
    long mp = (5 * doy + 2) / 153;
    long day = doy - (153 * mp + 2) / 5 + 1;
    long month = mp < 10 ? mp + 3 : mp - 9;
    long year = yoe + era * 400 + (month <= 2 ? 1 : 0);
    out.add_number(month, 2);
    out.add("/");
    out.add_number(day, 2);
    out.add("/");
    out.add_number(year % 100, 2);
    out.add(" ");
    out.add_number(secs / 3600, 2);
    out.add(":");
    out.add_number(secs / 60 % 60, 2);
    out.add(":");
    out.add_number(secs % 60, 2);
}

}  // namespace

int logger_init(const char* path, int level, int to_syslog, int disable) {
    {
        mutex_lock guard(path_mutex);
        memset(logfile_path, 0, sizeof logfile_path);
        if (path) strncpy(logfile_path, path, sizeof logfile_path - 1);
        close_log();
    }
    dont_log = disable;
    log_level = level;
    log_to_syslog = to_syslog;
    return 0;
}

void logger_reopen() {
    mutex_lock guard(path_mutex);
    close_log();
}

void logger_set_file_mode(unsigned mode) {
    file_mode = mode;
}

void set_log_level(int level) {
    log_level = level;
}

void logger_hide_names(bool hide) {
    hide_names = hide;
}

bool logger_hides_names() {
    return hide_names.load(std::memory_order_relaxed);
}

hidden_name::hidden_name(std::string name) {
    names_in_scope.push_back(std::move(name));
}

hidden_name::~hidden_name() {
    names_in_scope.pop_back();
}

std::string masked_name(std::string text, std::string_view name) {
    if (name.size() < 2) return text;
    constexpr std::string_view mask = "<name>";
    for (size_t at = text.find(name); at != std::string::npos; at = text.find(name, at)) {
        text.replace(at, name.size(), mask);
        at += mask.size();
    }
    return text;
}

std::string masked_names(std::string text) {
    if (!logger_hides_names()) return text;
    for (const std::string& name : names_in_scope) text = masked_name(std::move(text), name);
    return text;
}

namespace {

// Letters, digits and the bytes of non-ASCII characters: what a database's
// tokenizer keeps together in a word.
bool word_byte(char c) {
    return isalnum(static_cast<unsigned char>(c)) || static_cast<unsigned char>(c) >= 0x80;
}

// `text` with every whole word `word` replaced by "<name>".
std::string masked_word(std::string text, std::string_view word) {
    constexpr std::string_view mask = "<name>";
    for (size_t at = text.find(word); at != std::string::npos; at = text.find(word, at)) {
        const size_t end = at + word.size();
        if ((at > 0 && word_byte(text[at - 1])) || (end < text.size() && word_byte(text[end]))) {
            at = end;
            continue;
        }
        text.replace(at, word.size(), mask);
        at += mask.size();
    }
    return text;
}

}  // namespace

std::string masked_name_pieces(std::string text) {
    if (!logger_hides_names()) return text;
    for (const std::string& name : names_in_scope) {
        text = masked_name(std::move(text), name);
        // A quote in a name ends a literal of a statement, and the database
        // names the words after it in its error ("near \"Brien\""): each
        // word of the name is masked where it stands as a word.
        for (size_t from = 0; from < name.size();) {
            size_t end = from;
            while (end < name.size() && word_byte(name[end])) ++end;
            if (end - from >= 2 && end - from < name.size())
                text =
                    masked_word(std::move(text), std::string_view(name).substr(from, end - from));
            from = end + 1;
        }
    }
    return text;
}

unsigned long logger_problem_count() {
    return problem_count.load();
}

void write_log(int level, const char* file, int line, const char* function, const char* format,
               ...) {
    if (dont_log == 1) return;
    if (level + log_level - 5 < 0) return;
    // Level 6 has a system-log priority but no name: it is treated as bogus.
    if (level < 0 || level > 5) {
        fprintf(stderr, "log called with bogus level: %d\n", level);
        return;
    }
    if (level == L_WARNING || level == L_ERROR) problem_count++;

    // "stamp: " + the line proper (cut to kLineSize - 1 characters) + "\n",
    // made in place.
    char out[kStampSize + 2 + kLineSize + 1];
    size_t len = stamp_now(out);
    out[len++] = ':';
    out[len++] = ' ';
    char* buf = out + len;
    int n = format_prefix(buf, kLineSize, level, file, line, function);
    if (n < 0) n = 0;
    bool whole = false;  // the message was not cut
    if (static_cast<size_t>(n) < kLineSize) {
        va_list ap;
        va_start(ap, format);
        const int m = vsnprintf(buf + n, kLineSize - n, format, ap);
        va_end(ap);
        whole = m >= 0 && static_cast<size_t>(m) < kLineSize - n;
    }
    if (logger_hides_names() && !names_in_scope.empty()) {
        const std::string shown = masked_names(buf);
        snprintf(buf, kLineSize, "%s", shown.c_str());
    }
    size_t own_newlines = 0;  // that the format ends with
    if (whole)
        for (size_t f = strlen(format); f > 0 && format[f - 1] == '\n'; --f) own_newlines++;
    make_visible(buf, own_newlines);
    if (log_to_syslog) syslog(syslog_level_map[level], "%s", buf);
    len += strlen(buf);
    out[len++] = '\n';

    if (batch_depth > 0) {
        batched.append(out, len);
        if (level == L_WARNING || level == L_ERROR || batched.size() >= kBatchLimit) write_kept();
        return;
    }
    write_out(out, len);
}

namespace {

void write_out(const char* text, size_t len) {
    {
        mutex_lock guard(path_mutex);
        // One write of whole lines: lines of several threads never mix.
        if (logfile_path[0] && log_file_ready()) {
            if (write(log_fd, text, len) >= 0) return;
            close_log();
        }
    }
    fwrite(text, 1, len, stderr);
}

void write_kept() {
    if (batched.empty()) return;
    write_out(batched.data(), batched.size());
    batched.clear();
}

}  // namespace

log_batch::log_batch() {
    ++batch_depth;
}

log_batch::~log_batch() {
    if (--batch_depth == 0) write_kept();
}

void log_batch::write() {
    write_kept();
}

// Reads the path without its lock: a signal handler cannot take one, and
// logger_init() runs only in the main thread, which the handler interrupts.
void write_log_async_safe(int level, const char* file, int line, const char* function,
                          const char* message) NO_THREAD_SAFETY_ANALYSIS {
    if (dont_log == 1 || level + log_level - 5 < 0 || level < 0 || level > 5) return;
    fixed_text out;
    add_stamp(out, static_cast<long>(time(nullptr)) + utc_offset.load(std::memory_order_relaxed));
    out.add(": ");
    if (level == L_VERBOSE) {
        out.add(" VERBOSE[");
        out.add_number(getpid());
        out.add("]: ");
    } else {
        out.add(" ");
        out.add(levels[level]);
        out.add("[");
        out.add_number(getpid());
        out.add("]: ");
        out.add(file);
        out.add(":");
        out.add_number(line);
        out.add(" in ");
        out.add(function);
        out.add(": ");
    }
    out.add(message);
    out.add("\n");
    const unsigned mode = file_mode;
    int fd = logfile_path[0] ? open(logfile_path, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC,
                                    mode ? mode : kCreateMode)
                             : -1;
    int target = fd >= 0 ? fd : 2;
    [[maybe_unused]] ssize_t w = write(target, out.buf, out.len);
    if (fd >= 0) close(fd);
}
