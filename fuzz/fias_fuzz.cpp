// Record texts from the PMS: parse, write back, parse what was written.
#include <cstddef>
#include <cstdint>
#include <string>

#include "fias/codec.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string line(reinterpret_cast<const char*>(data), size);  // NUL-terminated copy
    fias_packet_ptr p = fias_parse_packet(line.c_str(), static_cast<int>(size));
    if (!p) return 0;
    std::string text = fias_packet_to_str(p.get());
    fias_packet_ptr again = fias_parse_packet(text.c_str(), static_cast<int>(text.size()));
    if (!again || again->packet_code != p->packet_code) __builtin_trap();
    return 0;
}
