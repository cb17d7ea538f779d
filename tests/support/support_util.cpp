#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sqlite3.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "support.h"

temp_dir::temp_dir() {
    const char* base = getenv("TMPDIR");
    std::string templ = std::string(base && *base ? base : "/tmp") + "/orlanbeck-test-XXXXXX";
    if (mkdtemp(templ.data())) path_ = templ;
}

temp_dir::~temp_dir() {
    std::error_code ec;
    if (!path_.empty()) std::filesystem::remove_all(path_, ec);
}

void write_file(const std::string& path, const std::string& text) {
    std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
}

std::string read_file(const std::string& path) {
    std::ostringstream ss;
    ss << std::ifstream(path, std::ios::binary).rdbuf();
    return ss.str();
}

size_t occurrences(const std::string& text, const std::string& part) {
    size_t n = 0;
    for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) ++n;
    return n;
}

std::vector<std::string> lines_of(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
}

bool like(const std::string& pattern, const std::string& line) {
    auto digit = [](char c) { return isdigit(static_cast<unsigned char>(c)) != 0; };
    size_t t = 0;
    for (char p : pattern) {
        if (t >= line.size()) return false;
        if (p == '@' || p == '#') {
            if (!digit(line[t++])) return false;
            while (p == '@' && t < line.size() && digit(line[t])) ++t;
        } else if (p != line[t++]) {
            return false;
        }
    }
    return t == line.size();
}

bool has_line_like(const std::string& text, const std::string& pattern) {
    for (const std::string& line : lines_of(text))
        if (like(pattern, line)) return true;
    return false;
}

const std::string kStamp = "##/##/## ##:##:##";

bool wait_until(const std::function<bool()>& cond, std::chrono::milliseconds timeout) {
    auto end = std::chrono::steady_clock::now() + timeout;
    while (!cond()) {
        if (std::chrono::steady_clock::now() >= end) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return true;
}

namespace {

// An open, unnamed file holding `text`.
int unnamed_file(const std::string& text) {
    int fd = memfd_create("orlanbeck-child", MFD_CLOEXEC);
    if (fd >= 0 && write(fd, text.data(), text.size()) != static_cast<ssize_t>(text.size()))
        close(fd), fd = -1;
    if (fd >= 0) lseek(fd, 0, SEEK_SET);
    return fd;
}

}  // namespace

child_process::~child_process() {
    stop();
    if (out_fd_ >= 0) close(out_fd_);
}

bool child_process::start(const std::vector<std::string>& argv, const std::string* stdin_text,
                          const std::vector<std::string>& env) {
    stop();  // a child started before is killed and reaped; its output goes
    if (out_fd_ >= 0) close(out_fd_);
    reaped_ = false;
    out_fd_ = unnamed_file("");
    int in_fd = stdin_text ? unnamed_file(*stdin_text) : open("/dev/null", O_RDONLY | O_CLOEXEC);
    std::vector<char*> args, envp;
    for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
    // getenv() takes the first entry of a name, so these win over inherited ones.
    for (const std::string& e : env) envp.push_back(const_cast<char*>(e.c_str()));
    for (char** e = environ; *e; ++e) envp.push_back(*e);
    args.push_back(nullptr);
    envp.push_back(nullptr);
    pid_t parent = getpid();
    pid_ = out_fd_ < 0 || in_fd < 0 ? -1 : fork();
    if (pid_ == 0) {  // only async-signal-safe calls until exec
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (getppid() != parent) _exit(127);
        setpgid(0, 0);
        dup2(in_fd, 0);
        dup2(out_fd_, 1);
        dup2(out_fd_, 2);
        execve(args[0], args.data(), envp.data());
        _exit(127);
    }
    if (in_fd >= 0) close(in_fd);
    return pid_ > 0;
}

std::string child_process::output() const {
    std::string out;
    char buf[4096];
    for (ssize_t n; out_fd_ >= 0 && (n = pread(out_fd_, buf, sizeof buf, out.size())) > 0;)
        out.append(buf, static_cast<size_t>(n));
    return out;
}

void child_process::signal(int signo) const {
    if (pid_ > 0) kill(pid_, signo);
}

bool child_process::reap(bool block) {
    if (pid_ <= 0 || reaped_) return true;
    reaped_ = waitpid(pid_, &status_, block ? 0 : WNOHANG) == pid_;
    return reaped_;
}

int child_process::wait_exit(std::chrono::milliseconds timeout, int* signo) {
    if (pid_ <= 0 || !wait_until([&] { return reap(false); }, timeout)) return -1;
    if (WIFSIGNALED(status_) && signo) *signo = WTERMSIG(status_);
    return WIFEXITED(status_) ? WEXITSTATUS(status_) : -1;
}

void child_process::terminate(std::chrono::milliseconds grace) {
    signal(SIGTERM);
    wait_exit(grace);
    stop();
}

void child_process::stop() {
    if (pid_ > 0 && !reaped_) {
        kill(-pid_, SIGKILL);
        kill(pid_, SIGKILL);
        reap(true);
    }
}

pid_t lock_holder(const std::string& path) {
    int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return -1;
    struct flock lk {};
    lk.l_type = F_WRLCK;
    pid_t holder = fcntl(fd, F_GETLK, &lk) == 0 && lk.l_type == F_WRLCK ? lk.l_pid : 0;
    close(fd);
    return holder;
}

long open_fds(pid_t pid) {
    std::filesystem::directory_iterator fds("/proc/" + (pid ? std::to_string(pid) : "self") +
                                            "/fd");
    return std::distance(begin(fds), end(fds));
}

std::string find_program(const std::vector<std::string>& names) {
    std::string dirs = getenv("PATH") ? getenv("PATH") : "";
    dirs += ":/usr/sbin:/usr/local/sbin:/usr/bin:/usr/local/bin:/sbin:/bin";
    for (const std::string& name : names) {
        std::stringstream ss(dirs);
        for (std::string dir; std::getline(ss, dir, ':');)
            if (!dir.empty() && access((dir + "/" + name).c_str(), X_OK) == 0)
                return dir + "/" + name;
    }
    return "";
}

bool sqlite_exec(const std::string& path, const std::string& sql, sql_rows* rows) {
    sqlite3* db = nullptr;
    char* err = nullptr;
    int flags = rows ? SQLITE_OPEN_READONLY : SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE;
    int rc = sqlite3_open_v2(path.c_str(), &db, flags, nullptr);
    auto collect = [](void* out, int n, char** values, char**) {
        auto& row = static_cast<sql_rows*>(out)->emplace_back();
        for (int i = 0; i < n; ++i) row.emplace_back(values[i] ? values[i] : "NULL");
        return 0;
    };
    if (rc == SQLITE_OK && sqlite3_busy_timeout(db, 5000) == SQLITE_OK)
        rc = sqlite3_exec(db, sql.c_str(), rows ? +collect : nullptr, rows, &err);
    if (rc != SQLITE_OK) ADD_FAILURE() << (err ? err : sqlite3_errmsg(db)) << " in " << sql;
    sqlite3_free(err);
    sqlite3_close(db);
    return rc == SQLITE_OK;
}

// clang-format off
std::string orlanbeck_binary() { return ORLANBECK_BINARY; }
std::string source_dir() { return ORLANBECK_SOURCE_DIR; }
// clang-format on
