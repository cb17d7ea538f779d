#include "billing/night_audit.h"

#include "logger.h"
#include "process.h"

void audit_window::open() {
    mutex_lock guard(mutex_);
    if (!open_) since_ = std::chrono::steady_clock::now();
    open_ = true;
    warned_ = false;
}

void audit_window::close(const char* why) {
    mutex_lock guard(mutex_);
    if (!open_) return;
    open_ = false;
    const auto minutes =
        std::chrono::duration_cast<std::chrono::minutes>(std::chrono::steady_clock::now() - since_);
    LOG(L_NOTICE, "Night audit window closed (%s) after %ld min: postings go out again", why,
        static_cast<long>(minutes.count()));
}

bool audit_window::holds_postings() {
    mutex_lock guard(mutex_);
    if (!open_) return false;
    if (!warned_ && std::chrono::steady_clock::now() - since_ > night_audit_warning()) {
        warned_ = true;
        LOG(L_WARNING, "Night audit has lasted more than %ld min: postings are still held",
            static_cast<long>(
                std::chrono::duration_cast<std::chrono::minutes>(night_audit_warning()).count()));
    }
    return true;
}

void do_night_audit_start(const record_context& ctx, audit_window& window) {
    log_date_time(ctx, fias_get_field(&ctx.record, "DA"), fias_get_field(&ctx.record, "TI"));
    window.open();
    CTX_LOG(ctx, L_NOTICE, "Night audit: postings are held until its end");
}

void do_night_audit_end(const record_context& ctx, audit_window& window) {
    log_date_time(ctx, fias_get_field(&ctx.record, "DA"), fias_get_field(&ctx.record, "TI"));
    window.close("end of the audit");
}
