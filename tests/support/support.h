// Test support: temporary folders, child processes with captured output, and
// a look into SQLite files.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

// A fresh folder under $TMPDIR (or /tmp), removed with its content at the end.
class temp_dir {
  public:
    temp_dir();
    ~temp_dir();
    temp_dir(const temp_dir&) = delete;
    temp_dir& operator=(const temp_dir&) = delete;
    const std::string& path() const { return path_; }
    std::string file(const std::string& name) const { return path_ + "/" + name; }

  private:
    std::string path_;
};

void write_file(const std::string& path, const std::string& text);
std::string read_file(const std::string& path);

// How many times `part` occurs in `text`.
size_t occurrences(const std::string& text, const std::string& part);
// The lines of `text`, without their line ends.
std::vector<std::string> lines_of(const std::string& text);

// Matches a whole line against `pattern`, in which '#' stands for one digit
// and '@' for one or more digits; every other character stands for itself.
bool like(const std::string& pattern, const std::string& text);
bool has_line_like(const std::string& text, const std::string& pattern);
// The time stamp that opens every log line, "%D %T".
extern const std::string kStamp;

// Polls `cond` every 20 ms until it holds or `timeout` passes.
bool wait_until(const std::function<bool()>& cond,
                std::chrono::milliseconds timeout = std::chrono::seconds(10));

// A program run as a child, killed when the test program dies; its standard
// output and error go, merged, into an unnamed temporary file.
class child_process {
  public:
    child_process() = default;
    ~child_process();
    child_process(const child_process&) = delete;
    child_process& operator=(const child_process&) = delete;

    // Starts argv[0]; `stdin_text`, when given, is its standard input.
    // `env` entries ("NAME=value") come before the inherited environment.
    bool start(const std::vector<std::string>& argv, const std::string* stdin_text = nullptr,
               const std::vector<std::string>& env = {});

    pid_t pid() const { return pid_; }
    std::string output() const;
    void signal(int signo) const;
    // The exit status, or -1 on time-out or when a signal ended the child
    // (then *signo is set when given).
    int wait_exit(std::chrono::milliseconds timeout = std::chrono::seconds(10),
                  int* signo = nullptr);
    bool running() { return !reap(false); }
    // SIGTERM, up to `grace` of waiting, then stop().
    void terminate(std::chrono::milliseconds grace);
    // SIGKILL to the child's process group and reap, if still running.
    void stop();

  private:
    bool reap(bool block);  // whether the child has ended and been reaped

    pid_t pid_ = -1;
    int out_fd_ = -1;
    bool reaped_ = false;
    int status_ = 0;
};

// The pid of the process holding a write lock on `path`; 0 for none, -1
// when the file cannot be opened.
pid_t lock_holder(const std::string& path);

// How many descriptors process `pid` (0: this one) has open.
long open_fds(pid_t pid = 0);

// The first of `names` found on $PATH or in the usual program folders; "" if none.
std::string find_program(const std::vector<std::string>& names);

using sql_rows = std::vector<std::vector<std::string>>;
// Runs statements on the SQLite file `path`; false (with a test failure) on
// error. With `rows` the file is only read, and every row returned is added
// to them, every value as text (NULL = "NULL").
bool sqlite_exec(const std::string& path, const std::string& sql, sql_rows* rows = nullptr);
inline sql_rows sqlite_rows(const std::string& path, const std::string& sql) {
    sql_rows rows;
    sqlite_exec(path, sql, &rows);
    return rows;
}

// Paths of the built programs and the source tree (set by the build).
std::string orlanbeck_binary();
std::string source_dir();
