// A private MariaDB server for the tests.
//
// The server lives in a temporary folder of its own (data directory, socket,
// pid file, error log) and listens on a free port of 127.0.0.1; nothing of the
// machine's own server or configuration is used. The object owns the server
// process and the folder: the destructor stops the server (SIGTERM, then
// SIGKILL) and removes the folder. If the test program dies, the server gets
// SIGTERM too. Meant for the test's main thread.
#pragma once

#include <gtest/gtest.h>
#include <sys/types.h>

#include <string>

#include "support.h"

class mariadb_server {
public:
    // The database and the login made for the tests (reachable from
    // 127.0.0.1 and localhost, all rights on the database).
    static constexpr const char* database = "orlanbeck_test";
    static constexpr const char* user = "orlanbeck";
    static constexpr const char* password = "s3cret-pw";

    mariadb_server() = default;
    ~mariadb_server();
    mariadb_server(const mariadb_server&) = delete;
    mariadb_server& operator=(const mariadb_server&) = delete;

    // Starts the server and waits (at most 60 s) until it answers. The first
    // call makes the data directory, the database and the login; later calls
    // (after stop()) restart the server on the same port and data directory.
    // A failure carries the reason and the server's error log.
    ::testing::AssertionResult start();
    // Stops the server: SIGTERM, up to 30 s of waiting, then SIGKILL.
    void stop();
    bool running();

    int port() const { return port_; }
    const std::string& socket_path() const { return socket_; }
    std::string error_log() const;

    // Runs statements (one per call, no result wanted) as the server's root
    // through the socket; a failure carries the server's error text.
    ::testing::AssertionResult exec_root(const std::string& sql);

private:
    ::testing::AssertionResult initialise();
    ::testing::AssertionResult launch();
    ::testing::AssertionResult wait_ready();
    ::testing::AssertionResult failure(const std::string& what) const;

    temp_dir dir_;
    std::string datadir_;
    std::string socket_;
    bool initialised_ = false;
    bool users_made_ = false;
    int port_ = 0;
    pid_t pid_ = -1;
};
