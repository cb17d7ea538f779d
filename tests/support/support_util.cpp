#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sqlite3.h>
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
    std::vector<char> buf(templ.begin(), templ.end());
    buf.push_back('\0');
    if (mkdtemp(buf.data())) path_ = buf.data();
}

temp_dir::~temp_dir() {
    if (path_.empty()) return;
    std::error_code ec;
    std::filesystem::remove_all(path_, ec);
}

void write_file(const std::string& path, const std::string& text) {
    std::ofstream f(path, std::ios::binary | std::ios::trunc);
    f << text;
}

std::string read_file(const std::string& path) {
    std::ifstream f(path, std::ios::binary);
    std::ostringstream ss;
    ss << f.rdbuf();
    return ss.str();
}

fd_capture::fd_capture(int fd, const std::string& path) : fd_(fd), path_(path) {
    fflush(fd == 1 ? stdout : stderr);
    saved_ = dup(fd);
    int f = open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    dup2(f, fd);
    close(f);
}

std::string fd_capture::finish() {
    if (saved_ >= 0) {
        fflush(fd_ == 1 ? stdout : stderr);
        dup2(saved_, fd_);
        close(saved_);
        saved_ = -1;
    }
    return read_file(path_);
}

std::vector<std::string> lines_of(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
}

bool like(const std::string& pattern_text, const std::string& line) {
    const char* pattern = pattern_text.c_str();
    const char* text = line.c_str();
    for (;; ++pattern, ++text) {
        if (*pattern == '\0') return *text == '\0';
        if (*pattern == '@') {
            if (!isdigit(static_cast<unsigned char>(*text))) return false;
            while (isdigit(static_cast<unsigned char>(text[1]))) ++text;
        } else if (*pattern == '#') {
            if (!isdigit(static_cast<unsigned char>(*text))) return false;
        } else if (*pattern != *text) {
            return false;
        }
    }
}

bool has_line_like(const std::string& text, const std::string& pattern) {
    for (const std::string& line : lines_of(text))
        if (like(pattern, line)) return true;
    return false;
}

const std::string kStamp = "##/##/## ##:##:##";

bool wait_until(const std::function<bool()>& cond, std::chrono::milliseconds timeout) {
    auto end = std::chrono::steady_clock::now() + timeout;
    for (;;) {
        if (cond()) return true;
        if (std::chrono::steady_clock::now() >= end) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
}

child_process::~child_process() { stop(); }

bool child_process::start(const std::vector<std::string>& argv, const std::string* stdin_text) {
    int out[2], in[2] = {-1, -1};
    if (pipe2(out, O_CLOEXEC) < 0) return false;
    if (stdin_text && pipe2(in, O_CLOEXEC) < 0) return false;
    std::vector<char*> args;
    for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    pid_ = fork();
    if (pid_ < 0) return false;
    if (pid_ == 0) {
        setpgid(0, 0);
        dup2(out[1], 1);
        dup2(out[1], 2);
        if (stdin_text) {
            dup2(in[0], 0);
        } else {
            int null_fd = open("/dev/null", O_RDONLY | O_CLOEXEC);
            dup2(null_fd, 0);
        }
        execv(args[0], args.data());
        _exit(127);
    }
    close(out[1]);
    out_fd_ = out[0];
    if (stdin_text) {
        close(in[0]);
        std::string text = *stdin_text;
        int fd = in[1];
        std::thread([fd, text] {
            size_t off = 0;
            while (off < text.size()) {
                ssize_t n = write(fd, text.data() + off, text.size() - off);
                if (n <= 0) break;
                off += static_cast<size_t>(n);
            }
            close(fd);
        }).detach();
    }
    reader_ = std::thread([this] {
        char buf[4096];
        for (;;) {
            ssize_t n = read(out_fd_, buf, sizeof buf);
            if (n <= 0) break;
            std::lock_guard<std::mutex> guard(mutex_);
            output_.append(buf, static_cast<size_t>(n));
        }
    });
    return true;
}

std::string child_process::output() const {
    std::lock_guard<std::mutex> guard(mutex_);
    return output_;
}

bool child_process::wait_output(const std::string& text, std::chrono::milliseconds timeout) const {
    return wait_until([&] { return output().find(text) != std::string::npos; }, timeout);
}

size_t child_process::count(const std::string& text) const {
    std::string out = output();
    size_t n = 0;
    for (size_t pos = out.find(text); pos != std::string::npos; pos = out.find(text, pos + 1))
        ++n;
    return n;
}

void child_process::signal(int signo) const {
    if (pid_ > 0) kill(pid_, signo);
}

int child_process::wait_exit(std::chrono::milliseconds timeout, int* signo) {
    if (pid_ <= 0) return -1;
    if (!reaped_) {
        bool done = wait_until(
            [&] {
                int st;
                pid_t r = waitpid(pid_, &st, WNOHANG);
                if (r == pid_) {
                    status_ = st;
                    reaped_ = true;
                }
                return reaped_;
            },
            timeout);
        if (!done) return -1;
    }
    if (WIFSIGNALED(status_)) {
        if (signo) *signo = WTERMSIG(status_);
        return -1;
    }
    return WEXITSTATUS(status_);
}

bool child_process::running() {
    if (pid_ <= 0 || reaped_) return false;
    int st;
    pid_t r = waitpid(pid_, &st, WNOHANG);
    if (r == pid_) {
        status_ = st;
        reaped_ = true;
        return false;
    }
    return true;
}

void child_process::stop() {
    if (pid_ > 0 && !reaped_) {
        kill(-pid_, SIGKILL);
        kill(pid_, SIGKILL);
        int st;
        if (waitpid(pid_, &st, 0) == pid_) status_ = st;
        reaped_ = true;
    }
    if (reader_.joinable()) {
        // The child's group is gone; grandchildren (a daemon) may still hold
        // the pipe, so the reader is not waited for past its end of file.
        reader_.join();
    }
    if (out_fd_ >= 0) {
        close(out_fd_);
        out_fd_ = -1;
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

std::string find_program(const std::vector<std::string>& names) {
    std::string dirs = getenv("PATH") ? getenv("PATH") : "";
    dirs += ":/usr/sbin:/usr/local/sbin:/usr/bin:/usr/local/bin:/sbin:/bin";
    for (const std::string& name : names) {
        std::stringstream ss(dirs);
        std::string dir;
        while (std::getline(ss, dir, ':')) {
            if (dir.empty()) continue;
            std::string path = dir + "/" + name;
            if (access(path.c_str(), X_OK) == 0) return path;
        }
    }
    return "";
}

std::vector<std::vector<std::string>> sqlite_rows(const std::string& path, const std::string& sql) {
    std::vector<std::vector<std::string>> rows;
    sqlite3* db = nullptr;
    if (sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READONLY, nullptr) != SQLITE_OK) {
        ADD_FAILURE() << "cannot open " << path;
        sqlite3_close(db);
        return rows;
    }
    sqlite3_busy_timeout(db, 5000);
    sqlite3_stmt* st = nullptr;
    if (sqlite3_prepare_v2(db, sql.c_str(), -1, &st, nullptr) != SQLITE_OK) {
        ADD_FAILURE() << sqlite3_errmsg(db) << " in " << sql;
    } else {
        while (sqlite3_step(st) == SQLITE_ROW) {
            std::vector<std::string> row;
            for (int i = 0; i < sqlite3_column_count(st); ++i) {
                const unsigned char* t = sqlite3_column_text(st, i);
                row.emplace_back(t ? reinterpret_cast<const char*>(t) : "NULL");
            }
            rows.push_back(std::move(row));
        }
    }
    sqlite3_finalize(st);
    sqlite3_close(db);
    return rows;
}

bool sqlite_exec(const std::string& path, const std::string& sql) {
    sqlite3* db = nullptr;
    sqlite3_open(path.c_str(), &db);
    sqlite3_busy_timeout(db, 5000);
    char* err = nullptr;
    int rc = sqlite3_exec(db, sql.c_str(), nullptr, nullptr, &err);
    if (rc != SQLITE_OK) ADD_FAILURE() << (err ? err : "?") << " in " << sql;
    sqlite3_free(err);
    sqlite3_close(db);
    return rc == SQLITE_OK;
}

std::string sqlite_schema(const std::string& path) {
    std::string out;
    for (auto& row : sqlite_rows(path, "select sql from sqlite_master where sql is not null"))
        out += row[0] + ";\n";
    return out;
}

std::string orlanbeck_binary() { return ORLANBECK_BINARY; }
std::string source_dir() { return ORLANBECK_SOURCE_DIR; }
std::string pms_sim_binary() { return ORLANBECK_PMS_SIM; }
std::string mgr_sim_binary() { return ORLANBECK_MGR_SIM; }
