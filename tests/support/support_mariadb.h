// A private MariaDB server for the tests, in a temporary folder of its own and
// on a free port of 127.0.0.1, stopped by the destructor or with the test
// program. Meant for the test's main thread.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "support.h"

class mariadb_server {
  public:
    // The database and the login (all rights on it) made for the tests.
    static constexpr const char* database = "orlanbeck_test";
    static constexpr const char* user = "orlanbeck";
    static constexpr const char* password = "s3cret-pw";

    mariadb_server() = default;
    ~mariadb_server() { stop(); }
    mariadb_server(const mariadb_server&) = delete;
    mariadb_server& operator=(const mariadb_server&) = delete;

    // Starts the server and waits until it answers; the first call makes the
    // database and the login, a call after stop() restarts on the same port.
    ::testing::AssertionResult start();
    // SIGTERM, up to 30 s of waiting, then SIGKILL.
    void stop();
    int port() const { return port_; }
    // Runs one statement as the server's root, through the socket.
    ::testing::AssertionResult exec_root(const std::string& sql);

  private:
    ::testing::AssertionResult launch();
    ::testing::AssertionResult failure(const std::string& what) const;

    temp_dir dir_;
    std::unique_ptr<child_process> server_;
    std::string install_output_;
    bool users_made_ = false;
    int port_ = 0;
};
