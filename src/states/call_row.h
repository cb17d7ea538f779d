// A call as the posting passes read it: from the call cache or from the
// operator's services:billcalls statement on a PBX database.
#pragma once

#include "db/driver.h"

struct call_row {
    char date[32] = "";
    char time[32] = "";
    char dst[256] = "";
    int billsec = 0;
    int callcost = -1;
    bool cost_empty = false;  // the cost column is there but empty (or NULL)
    // From the call cache only: the call's disposition ("ANSWERED", "BUSY",
    // ...) and its row.
    char disposition[48] = "";
    bool has_disposition = false;
    long long cache_row = 0;
    std::string uniqueid;
};

// How the call cache gives a call's date and time.
constexpr const char* cache_date_format = "%Y-%m-%d";
constexpr const char* cache_time_format = "%H:%M:%S";

enum class row_read { ok, failed };

// Reads the current row's columns (date, time, destination, billable
// seconds, cost; the cost may be missing); logs and fails on an unreadable
// one of the first four.
row_read read_call_row(dbdriver_t& drv, call_row& row) REQUIRES(drv);
