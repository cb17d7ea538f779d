// The night audit window: from the PMS's "NS" to its "NE" (pms:night_audit)
// the billing thread sends no posting, wake-up result or room status, and
// marks nothing; what was due goes out after "NE".
//
// Contract:
//  - main makes one window and hands it to the record dispatcher and the
//    billing thread; any thread may call it. It is only ever opened by "NS",
//    which is handled only when pms:night_audit is set: otherwise it stays
//    closed and costs one lock per look.
//  - A new link start-up closes it: a PMS whose audit goes on sends "NS"
//    again.
#pragma once

#include <chrono>

#include "steps/context.h"
#include "thread_annotations.h"

class audit_window {
  public:
    void open();
    // Closes the window; `why` completes the log line when it was open.
    void close(const char* why);
    // Whether postings are held now. A window open longer than
    // night_audit_warning() is logged at WARNING, once.
    bool holds_postings();

  private:
    annotated_mutex mutex_;
    bool open_ GUARDED_BY(mutex_) = false;
    bool warned_ GUARDED_BY(mutex_) = false;
    std::chrono::steady_clock::time_point since_ GUARDED_BY(mutex_);
};

// "NS" and "NE".
void do_night_audit_start(const record_context& ctx, audit_window& window);
void do_night_audit_end(const record_context& ctx, audit_window& window);
