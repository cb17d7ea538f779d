// The posting filter's patterns and the dial codes' UserEvents: the first
// line of the input is posting:free_numbers (a comma-separated list), the
// second a dialled number, the rest the headers of a UserEvent or a
// MessageWaiting ("Name: value" a line). Must never crash or hang; a record made from an event has
// exactly the fields it was given, so no value may carry a "|" or a control
// character onto the wire.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

#include "billing/call_filter.h"
#include "dialcodes/dialcodes.h"
#include "logger.h"

namespace {

std::vector<std::string> split(const std::string& text, char at) {
    std::vector<std::string> out(1);
    for (char c : text) {
        if (c == at)
            out.emplace_back();
        else
            out.back() += c;
    }
    return out;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static bool once = (logger_init(nullptr, 0, 0, 1), true);
    (void)once;
    const std::vector<std::string> lines =
        split(std::string(reinterpret_cast<const char*>(data), size < 8192 ? size : 8192), '\n');

    config cfg;
    cfg.posting.post_unanswered = false;
    cfg.posting.free_numbers = parse_free_numbers(split(lines[0], ','));
    cfg.extensions["101"] = {"101", "2101"};
    cfg.dialcodes.minibar_event = "Minibar";
    cfg.dialcodes.maid_event = "RoomStatus";
    cfg.dialcodes.wakeup_event = "WakeupSet";
    cfg.dialcodes.wakeup_clear_event = "WakeupClear";
    cfg.dialcodes.guest_service_event = "GuestService";
    cfg.dialcodes.voicemail = true;
    const std::string dst = lines.size() > 1 ? lines[1] : "";
    const call_filter filter(cfg, {"101", "102"});
    (void)filter.reason({"101", dst, 60, "ANSWERED"});

    message m;
    for (size_t i = 2; i < lines.size() && m.add(lines[i]); ++i) {
    }
    const dialcode_event e = read_dialcode_event(cfg, {"101", "102"}, m, 1795547467);
    if (e.kind == dialcode_event::none || !e.error.empty()) return 0;
    struct tm now {};
    const std::string record = dialcode_record(e, "0001", now);
    size_t bars = 0;
    for (char c : record) {
        if (static_cast<unsigned char>(c) < ' ') __builtin_trap();
        bars += c == '|';
    }
    size_t fields = 2;  // RN RS, RN VM
    if (e.kind == dialcode_event::minibar)
        fields = 7 + (e.amount.empty() ? 0 : 1);  // P# RN PT DA TI MA M# (TA)
    else if (e.kind == dialcode_event::maid)
        fields = 2 + (e.maid_id.empty() ? 0 : 1);  // RN RS (ID)
    else if (e.kind == dialcode_event::wakeup || e.kind == dialcode_event::wakeup_clear)
        fields = 3;  // RN DA TI
    if (bars != fields + 1) __builtin_trap();
    return 0;
}
