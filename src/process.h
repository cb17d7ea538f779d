// Pacing of the daemon's life.
#pragma once

#include <chrono>

// The pause between two billing cycles (10 s) and after each record the main
// loop reads (1 s). Tests shorten them through the environment variables
// ORLANBECK_TEST_BILLING_PERIOD_MS and ORLANBECK_TEST_RECORD_PAUSE_MS, read
// once; the daemon's own values are never changed by anything else.
std::chrono::milliseconds billing_period();
std::chrono::milliseconds record_pause();

// How long a write to the PMS may block before the link counts as lost
// ([fixes] link_end): 10 s, ORLANBECK_TEST_WRITE_LIMIT_MS for tests.
std::chrono::milliseconds link_write_limit();

// How long a database resync may go without a record from the PMS before it
// counts as stopped (10 min), and how long a night audit may hold postings
// before a WARNING (2 h): ORLANBECK_TEST_RESYNC_STALL_MS and
// ORLANBECK_TEST_AUDIT_WARNING_MS for tests.
std::chrono::milliseconds resync_stall_limit();
std::chrono::milliseconds night_audit_warning();

// A test hook: the billing thread hangs for good this long after its start,
// without reporting anything (ORLANBECK_TEST_WEDGE_BILLING_MS; never
// otherwise).
std::chrono::milliseconds billing_wedge_after();

// How long a Manager session whose login was refused waits before it tries
// again, when service steps send actions (60 s; ORLANBECK_TEST_MANAGER_RETRY_MS
// for tests).
std::chrono::milliseconds manager_retry_period();

// The wake-up dialer's clock: the system's, moved by
// ORLANBECK_TEST_CLOCK_OFFSET_S seconds (either sign) for tests; and its
// minute (a snooze's unit, and twice the wait for a call's outcome after its
// ring time): 60 s, ORLANBECK_TEST_WAKEUP_MINUTE_MS for tests.
std::chrono::seconds test_clock_offset();
std::chrono::milliseconds wakeup_minute();
