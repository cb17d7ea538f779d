#include "process.h"

#include <cstdlib>

namespace {

std::chrono::milliseconds from_environment(const char* name, std::chrono::milliseconds normal) {
    const char* text = std::getenv(name);
    if (!text || !*text) return normal;
    char* end = nullptr;
    long ms = std::strtol(text, &end, 10);
    if (*end != '\0' || ms < 0 || ms > 3600000) return normal;
    return std::chrono::milliseconds(ms);
}

}  // namespace

std::chrono::milliseconds billing_period() {
    static const auto period =
        from_environment("ORLANBECK_TEST_BILLING_PERIOD_MS", std::chrono::seconds(10));
    return period;
}

std::chrono::milliseconds link_write_limit() {
    static const auto limit =
        from_environment("ORLANBECK_TEST_WRITE_LIMIT_MS", std::chrono::seconds(10));
    return limit;
}

std::chrono::milliseconds record_pause() {
    static const auto pause =
        from_environment("ORLANBECK_TEST_RECORD_PAUSE_MS", std::chrono::seconds(1));
    return pause;
}

std::chrono::milliseconds resync_stall_limit() {
    static const auto limit =
        from_environment("ORLANBECK_TEST_RESYNC_STALL_MS", std::chrono::minutes(10));
    return limit;
}

std::chrono::milliseconds night_audit_warning() {
    static const auto limit =
        from_environment("ORLANBECK_TEST_AUDIT_WARNING_MS", std::chrono::hours(2));
    return limit;
}

std::chrono::milliseconds billing_wedge_after() {
    static const auto after =
        from_environment("ORLANBECK_TEST_WEDGE_BILLING_MS", std::chrono::hours(24 * 365 * 100));
    return after;
}

std::chrono::milliseconds manager_retry_period() {
    static const auto period =
        from_environment("ORLANBECK_TEST_MANAGER_RETRY_MS", std::chrono::seconds(60));
    return period;
}

std::chrono::seconds test_clock_offset() {
    static const auto offset = [] {
        const char* text = std::getenv("ORLANBECK_TEST_CLOCK_OFFSET_S");
        if (!text || !*text) return std::chrono::seconds(0);
        char* end = nullptr;
        const long long s = std::strtoll(text, &end, 10);
        return *end ? std::chrono::seconds(0) : std::chrono::seconds(s);
    }();
    return offset;
}

std::chrono::milliseconds wakeup_minute() {
    static const auto minute =
        from_environment("ORLANBECK_TEST_WAKEUP_MINUTE_MS", std::chrono::minutes(1));
    return minute;
}
