// Manager action steps: an arbitrary template filled with arbitrary record
// values. Must never crash or hang, and no value may carry a line end onto
// the wire (it would start another header or action).
#include <cstddef>
#include <cstdint>
#include <string>

#include "logger.h"
#include "steps/context.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static bool once = (logger_init(nullptr, 0, 0, 1), true);
    (void)once;
    // The template, then the room, the name and the posting number, split at NUL bytes.
    std::string parts[4];
    int at = 0;
    for (size_t i = 0; i < size && i < 4096; ++i) {
        if (data[i] == '\0' && at < 3)
            ++at;
        else
            parts[at] += static_cast<char>(data[i]);
    }
    const fias_field_t rn = text_field("RN", parts[1]);
    const fias_field_t name = text_field("GN", parts[2]);
    const fias_field_t seq = text_field("P#", parts[3]);
    const filled_action a = fill_action(parts[0], {.rn = &rn, .name = &name, .seq = &seq});
    auto clean = [](const std::string& t) { return t.find_first_of("\r\n") == std::string::npos; };
    if (!clean(a.name)) __builtin_trap();
    for (const auto& [header, value] : a.headers)
        if (!clean(header) || !clean(value)) __builtin_trap();
    return 0;
}
