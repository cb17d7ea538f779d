// Small socket helpers for the simulators and the tests (loopback only).
#pragma once

#include <string>

// A listening TCP socket on 127.0.0.1; port 0 picks a free port. -1 on failure.
int listen_loopback(int port, int* bound_port);

// A free TCP port on 127.0.0.1 (bound and released again).
int pick_free_port();

// A TCP connection to 127.0.0.1:port, or -1.
int connect_loopback(int port);

// Writes all of `data`; false on failure.
bool write_all(int fd, const std::string& data);

// "HH:MM:SS.mmm" of now, for the simulators' transcripts.
std::string time_stamp();
