// A private OpenLDAP server for the tests, in a temporary folder of its own and
// on a free port of 127.0.0.1, stopped by the destructor or with the test
// program. start() also makes the suffix entry; error() tells what failed.
#pragma once

#include <memory>
#include <string>

#include "support.h"

class slapd_server {
  public:
    static constexpr const char* suffix = "dc=hotel,dc=test";
    static constexpr const char* admin_dn = "cn=admin,dc=hotel,dc=test";
    static constexpr const char* admin_password = "front-desk-42";

    slapd_server() = default;
    ~slapd_server() { stop(); }
    slapd_server(const slapd_server&) = delete;
    slapd_server& operator=(const slapd_server&) = delete;

    bool start();
    bool add(const std::string& ldif);
    void stop();

    int port() const { return port_; }
    std::string uri() const { return "ldap://127.0.0.1:" + std::to_string(port_) + "/"; }
    const std::string& error() const { return error_; }

  private:
    bool launch();
    // Runs an LDAP client program on the server: whether it succeeded.
    bool client(const std::vector<std::string>& argv, const std::string* input);

    temp_dir dir_;
    std::unique_ptr<child_process> slapd_;  // one per launch attempt
    int port_ = 0;
    std::string error_;
};
