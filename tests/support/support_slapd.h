// A private OpenLDAP server for the tests: slapd with an mdb database under a
// temporary folder, listening on a free 127.0.0.1 port, run in the foreground
// as a child of the test. Nothing outside the folder is read or changed except
// the installed schema files and backend modules.
//
// Contract:
//  - start() writes the configuration, starts slapd, waits (bounded) until it
//    answers and creates the suffix entry. On failure it returns false and
//    error() holds the reason with slapd's output; callers fail the test.
//  - add() loads LDIF entries as the administrator with ldapadd.
//  - stop() (also run by the destructor) ends slapd with SIGTERM, falling
//    back to SIGKILL; the destructor then removes the folder.
//  - One thread uses an instance at a time.
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
    ~slapd_server();
    slapd_server(const slapd_server&) = delete;
    slapd_server& operator=(const slapd_server&) = delete;

    bool start();
    bool add(const std::string& ldif);
    void stop();

    int port() const { return port_; }
    std::string uri() const;
    const std::string& error() const { return error_; }

  private:
    bool launch();
    bool answers();

    temp_dir dir_;
    std::unique_ptr<child_process> slapd_;  // one per launch attempt
    bool running_ = false;
    int port_ = 0;
    std::string error_;
};
