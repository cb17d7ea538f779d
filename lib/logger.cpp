#include "logger.h"

#include <syslog.h>
#include <unistd.h>

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <mutex>
#include <string>

namespace {

const char* const levels[] = {"DEBUG", "EVENT", "NOTICE", "WARNING", "ERROR", "VERBOSE"};
const int syslog_level_map[] = {LOG_DEBUG,   LOG_INFO, LOG_NOTICE, LOG_WARNING,
                                LOG_ERR,     LOG_DEBUG, LOG_DEBUG};

constexpr size_t kLineSize = 1024;

std::atomic<int> log_level{1};
std::atomic<int> log_to_syslog{1};
std::atomic<int> dont_log{0};

// The path is the only setting that is not a single word: readers copy it
// under the mutex so that logger_init() never changes it under them.
std::mutex path_mutex;
std::string logfile_path;

std::string current_path() {
    std::lock_guard<std::mutex> guard(path_mutex);
    return logfile_path;
}

}  // namespace

int logger_init(const char* path, int level, int to_syslog, int disable) {
    {
        std::lock_guard<std::mutex> guard(path_mutex);
        logfile_path.clear();
        if (path) logfile_path.assign(path, strnlen(path, kLineSize - 1));
    }
    dont_log = disable;
    log_level = level;
    log_to_syslog = to_syslog;
    return 0;
}

void set_log_level(int level) { log_level = level; }

void write_log(int level, const char* file, int line, const char* function, const char* format,
               ...) {
    if (dont_log == 1) return;
    if (level + log_level - 5 < 0) return;
    // Level 6 has a system-log priority but no name: it is treated as bogus.
    if (level < 0 || level > 5) {
        fprintf(stderr, "log called with bogus level: %d\n", level);
        return;
    }

    char buf[kLineSize];
    int n;
    if (level == L_VERBOSE) {
        n = snprintf(buf, sizeof buf, " VERBOSE[%ld]: ", static_cast<long>(getpid()));
    } else {
        n = snprintf(buf, sizeof buf, " %s[%ld]: %s:%d in %s: ", levels[level],
                     static_cast<long>(getpid()), file ? file : "", line,
                     function ? function : "");
    }
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
    strftime(stamp, sizeof stamp, "%D %T", &tmv);

    if (log_to_syslog) syslog(syslog_level_map[level], "%s", buf);

    std::string path = current_path();
    if (!path.empty()) {
        if (FILE* f = fopen(path.c_str(), "ae")) {
            fprintf(f, "%s: %s\n", stamp, buf);
            fclose(f);
            return;
        }
    }
    fprintf(stderr, "%s: %s\n", stamp, buf);
}
