// Handling of the records received from the PMS: one worker per record
// parses it and hands it to the handler of its type, found in one table.
//
// Contract:
//  - process_fias_packet() is a thread body; it owns the record text it is
//    given. It takes the configuration snapshot once, for the whole record.
//  - `configs` and `link` outlive every worker (they live as long as the
//    process); workers are never waited for.
#pragma once

#include <chrono>
#include <condition_variable>
#include <deque>
#include <string>

#include "config.h"
#include "fias/link.h"
#include "owned_thread.h"
#include "thread_annotations.h"

// Thread body for one received record text (without STX; a trailing ETX is
// tolerated).
void process_fias_packet(const config_loader& configs, pms_link& link, std::string data);

// Whether a record text is a link record ("LS", "LA", "LE"), which the reader
// handles itself when records are kept in order.
bool is_link_record(const char* data);

// One worker that handles records in their order of arrival. push() is called
// by the reader; stop() by the owner, which then waits for the records
// already queued to be handled, at most until `deadline`.
class ordered_records {
  public:
    ordered_records(const config_loader& configs, pms_link& link);
    ~ordered_records();
    ordered_records(const ordered_records&) = delete;
    ordered_records& operator=(const ordered_records&) = delete;

    void push(std::string data);
    // True when the worker ended before `deadline`.
    bool stop(std::chrono::steady_clock::time_point deadline);

  private:
    void run();

    const config_loader& configs_;
    pms_link& link_;
    annotated_mutex mutex_;
    std::condition_variable_any changed_;
    std::deque<std::string> queue_ GUARDED_BY(mutex_);
    bool stopping_ GUARDED_BY(mutex_) = false;
    owned_thread worker_;
};
