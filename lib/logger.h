// Logger: one line per call to a log file, standard error and optionally the
// system log.
//
// Contract:
//  - write_log() may be called from any thread at any time, also before
//    logger_init() and while the process exits (its state is never torn
//    down). It never fails towards the caller.
//  - logger_init() and set_log_level() are meant for the main thread; they may
//    run while other threads log (the settings are swapped safely).
//  - write_log_async_safe() is the one entry that a signal handler may call:
//    it formats by hand and writes with write(2) to the log file (or standard
//    error), without the system-log copy.
//  - Line format: "MM/DD/YY HH:MM:SS:  LEVEL[pid]: file:line in function: text"
//    ("MM/DD/YY HH:MM:SS:  VERBOSE[pid]: text" for level 5).
//  - Guest names: after logger_hide_names(true) every line masks, by value,
//    the names that the writing thread has announced with a hidden_name
//    (each occurrence becomes "<name>"); the switch is an atomic, set by the
//    main thread at each configuration load. Names of fewer than two
//    characters are never looked for.
//  - A message of level L is written when L + log_level - 5 >= 0; LOG()
//    tests this before it evaluates its arguments, so lines below the level
//    cost one comparison.
//  - The log file is kept open from line to line; it is opened again after
//    logger_init() and logger_reopen(), and when the file at its path has
//    been replaced or removed (rotated away), which is looked at once a
//    second.
#pragma once

#include <atomic>
#include <string>
#include <string_view>

enum log_levels {
    L_DEBUG = 0,
    L_EVENT = 1,
    L_NOTICE = 2,
    L_WARNING = 3,
    L_ERROR = 4,
    L_VERBOSE = 5,
};

// path: log file, null or empty = standard error; to_syslog: copy every line to
// the system log; disable: 1 = write nothing at all. Returns 0.
int logger_init(const char* path, int level, int to_syslog, int disable);

void set_log_level(int level);

// The next line opens the log file anew (after the file was rotated).
void logger_reopen();

// Log files get exactly `mode` (e.g. 0640), whatever the umask, also when
// they exist already; 0 (the default) creates them 0640 less the umask and
// leaves an existing file's mode alone.
void logger_set_file_mode(unsigned mode);

void write_log(int level, const char* file, int line, const char* function, const char* format, ...)
    __attribute__((format(printf, 5, 6)));

// How many WARNING and ERROR lines were written since the start (any thread).
unsigned long logger_problem_count();

// `message` as one line of `level`, from a signal handler (see above).
void write_log_async_safe(int level, const char* file, int line, const char* function,
                          const char* message);

// While one lives, this thread's lines are kept and written together, in one
// write, when it ends or write() is called, and at once, with the lines
// kept before them, for a WARNING or an ERROR or once 64 KB wait. Lines of
// other threads are not held. For short stretches of work that log a line
// a step on a path where each system call counts (a posting's answer): a
// stretch that may wait on something outside the process writes what it
// holds first. Batches nest; the outermost one writes.
class log_batch {
  public:
    log_batch();
    ~log_batch();
    log_batch(const log_batch&) = delete;
    log_batch& operator=(const log_batch&) = delete;
    // Writes the lines kept so far; later ones are kept again.
    void write();
};

// Whether lines hide guest names (false, the default: names are written).
void logger_hide_names(bool hide);
bool logger_hides_names();

// While it lives, lines of this thread mask `name` (when names are hidden).
// Scopes nest; each is destroyed in the thread that made it.
class hidden_name {
  public:
    explicit hidden_name(std::string name);
    ~hidden_name();
    hidden_name(const hidden_name&) = delete;
    hidden_name& operator=(const hidden_name&) = delete;
};

// `text` with every occurrence of `name` replaced by "<name>"; unchanged when
// `name` has fewer than two characters.
std::string masked_name(std::string text, std::string_view name);
// `text` with the names of this thread's hidden_name scopes masked, when names
// are hidden; unchanged otherwise.
std::string masked_names(std::string text);
// masked_names(), and also each word of a name (of two characters or more)
// where it stands as a word: a database's error text about a statement shows
// the part of a value after a quote that ended its literal.
std::string masked_name_pieces(std::string text);

namespace logger_detail {
extern std::atomic<int> log_level;
}  // namespace logger_detail

// Whether a line of `level` can be written at the current level.
inline bool log_wanted(int level) {
    return level + logger_detail::log_level.load(std::memory_order_relaxed) - 5 >= 0;
}

#define LOG(level, ...) \
    (log_wanted(level) ? write_log(level, __FILE_NAME__, __LINE__, __func__, __VA_ARGS__) : void())
