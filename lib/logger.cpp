#include "logger.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "thread_annotations.h"

namespace {

const char* const levels[] = {"DEBUG", "EVENT", "NOTICE", "WARNING", "ERROR", "VERBOSE"};
const int syslog_level_map[] = {LOG_DEBUG, LOG_INFO,  LOG_NOTICE, LOG_WARNING,
                                LOG_ERR,   LOG_DEBUG, LOG_DEBUG};

constexpr size_t kLineSize = 1024;

std::atomic<int> log_level{1};
std::atomic<int> log_to_syslog{1};
std::atomic<int> dont_log{0};
std::atomic<unsigned> file_mode{0};
std::atomic<unsigned long> problem_count{0};
// Seconds east of UTC, as last seen by write_log(), for the signal-safe path.
std::atomic<long> utc_offset{0};

// The path is the only setting that is not a single word: readers copy it
// under the mutex so that logger_init() never changes it under them. Both are
// trivially destructible, so that threads still logging while the process
// exits never see them torn down.
annotated_mutex path_mutex;
char logfile_path[kLineSize] GUARDED_BY(path_mutex) = "";

void copy_path(char (&out)[kLineSize]) {
    mutex_lock guard(path_mutex);
    memcpy(out, logfile_path, sizeof out);
}

// The prefix of a line: " LEVEL[pid]: file:line in function: " or " VERBOSE[pid]: ".
int format_prefix(char* buf, size_t size, int level, const char* file, int line,
                  const char* function) {
    if (level == L_VERBOSE)
        return snprintf(buf, size, " VERBOSE[%ld]: ", static_cast<long>(getpid()));
    return snprintf(buf, size, " %s[%ld]: %s:%d in %s: ", levels[level],
                    static_cast<long>(getpid()), file ? file : "", line, function ? function : "");
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
    }
    dont_log = disable;
    log_level = level;
    log_to_syslog = to_syslog;
    return 0;
}

void logger_set_file_mode(unsigned mode) {
    file_mode = mode;
}

namespace {

// The log file opened for appending, with the mode asked for.
FILE* open_log(const char* path) {
    const unsigned mode = file_mode;
    if (mode == 0) return fopen(path, "ae");
    int fd = open(path, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, mode);
    if (fd < 0) return nullptr;
    struct stat st;
    if (fstat(fd, &st) == 0 && (st.st_mode & 07777) != mode) fchmod(fd, mode);
    FILE* f = fdopen(fd, "a");
    if (!f) close(fd);
    return f;
}

}  // namespace

void set_log_level(int level) {
    log_level = level;
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

    char buf[kLineSize];
    int n = format_prefix(buf, sizeof buf, level, file, line, function);
    if (n < 0) n = 0;
    if (static_cast<size_t>(n) < sizeof buf) {
        va_list ap;
        va_start(ap, format);
        vsnprintf(buf + n, sizeof buf - n, format, ap);
        va_end(ap);
    }

    char stamp[32] = "";
    time_t now = time(nullptr);
    struct tm tmv;
    localtime_r(&now, &tmv);
    utc_offset.store(tmv.tm_gmtoff, std::memory_order_relaxed);
    strftime(stamp, sizeof stamp, "%D %T", &tmv);

    if (log_to_syslog) syslog(syslog_level_map[level], "%s", buf);

    char path[kLineSize];
    copy_path(path);
    if (path[0]) {
        if (FILE* f = open_log(path)) {
            fprintf(f, "%s: %s\n", stamp, buf);
            fclose(f);
            return;
        }
    }
    fprintf(stderr, "%s: %s\n", stamp, buf);
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
    int fd = logfile_path[0]
                 ? open(logfile_path, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, mode ? mode : 0666)
                 : -1;
    int target = fd >= 0 ? fd : 2;
    [[maybe_unused]] ssize_t w = write(target, out.buf, out.len);
    if (fd >= 0) close(fd);
}
