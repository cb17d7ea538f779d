// MySQL driver: databases on a MySQL or MariaDB server, reached through the
// MariaDB client library.
//
// Contract:
//  - A record owns its connection and its result; both are released when the
//    record goes. connect() always makes a fresh client object (the previous
//    connection and any result on it are released first), reads the option
//    group "orlanbeck" of the client library's option files, gives up
//    connecting after 10 s, and returns 0, -1 (no client object) or -2
//    (server refused or unreachable, logged).
//  - Results are streamed: fetch_row() starts reading the result of the last
//    statement and returns 0 (row current), -1 (no result) or -2 (no more
//    rows); numrets() counts the rows read so far, 0 before the first
//    fetch_row(). query() drops a result that was not freed.
//  - The field readers answer -1 without a current row and -2 for a column
//    the result does not have. Without `full` they accept numeric columns
//    only: text, date and time columns answer -3, also for the text reader.
//    SQL NULL reads as empty text / 0. The text reader copies at most
//    len - 1 characters and writes no terminator: callers pass a zeroed
//    buffer.
//  - escape() uses the connection's character set when connected.
//  - is_connected() pings the server: 1 when it must be reconnected.
//  - The operations take no lock; callers hold the record's lock (driver.h).
//  - "dbdriver = mysql" makes it only under [fixes] mysql (see registry.h).
#pragma once

#include "db/driver.h"

// Seconds a connect, a read and a write may take; 0 keeps the long-standing
// limit (10 s to connect; 30 s to read and write with `full`, else none).
// A call that fails once its limit set here has passed is logged at ERROR
// with the section and the server, as a time-out.
struct mysql_deadlines {
    int connect = 0;
    int read = 0;
    int write = 0;
};

// A new MySQL driver named `name` (cut to 15 characters), port 3306, not
// connected. With `full` ([fixes] mysql) the field readers also read text,
// date and time columns, the connection uses utf8mb4, and reads and writes
// give up after 30 s.
dbdriver_ptr mysql_create_drv(const char* name, bool full = false, mysql_deadlines limits = {});
