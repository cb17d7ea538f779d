// Records the daemon writes, from any values: every field comes back from the
// written text as its checked value, and the text holds no control byte.
//
// Input: one byte choosing the record type, one byte of options, then per
// named slot a length byte and that many bytes of value.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

#include "fias/codec.h"
#include "logger.h"

namespace {

int row_count() {
    int n = 0;
    while (fias_packets[n].num_fields != 0) n++;
    return n;
}

bool text_type(uint8_t type) {
    return type == FIAS_TYPE_STR || type == FIAS_TYPE_DIGITS || type == FIAS_TYPE_DIALLED;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const int rows = [] {
        logger_init(nullptr, 0, 0, 1);  // the ERRORs of dropped fields are not wanted here
        return row_count();
    }();
    if (size < 2) return 0;
    const fias_catalogue_row& row = fias_packets[data[0] % rows];
    fias_codec_options opts;
    opts.numbers = data[1] & 1;
    opts.plus_prefix = data[1] & 2 ? "011" : "";
    opts.optional_fields = 0xff;
    size_t at = 2;

    fias_packet_ptr p = fias_packet_from_row(row);
    for (fias_field_t& f : p->fields) {
        if (!f.name[0] || at >= size) continue;
        const size_t want = data[at++];
        const size_t len = std::min(want, size - at);
        const std::string value(reinterpret_cast<const char*>(data + at), len);
        at += len;
        fias_value_t v;
        if (f.type == FIAS_TYPE_INT) {
            for (char c : value) v.ival = v.ival * 31 + static_cast<uint8_t>(c);
        } else if (f.type == FIAS_TYPE_BOOL) {
            v.bval = !value.empty() && value[0] & 1;
        } else {
            v.str = value;  // dates and times too, as text
        }
        f.value.emplace() = v;
    }

    const std::string text = fias_packet_to_str(p.get(), opts);
    for (char c : text)
        if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) __builtin_trap();

    // Checking first changes nothing in what is written.
    fias_packet_ptr checked = fias_packet_from_row(row);
    for (int i = 0; i < FIAS_MAX_FIELDS; ++i)
        if (p->fields[i].value) checked->fields[i].value.emplace() = *p->fields[i].value;
    fias_check_values(checked.get(), opts);
    if (fias_packet_to_str(checked.get(), opts) != text) __builtin_trap();

    fias_packet_ptr back = fias_parse_packet(text.c_str(), static_cast<int>(text.size()), opts);
    if (!back || back->packet_code != row.packet_code) __builtin_trap();
    for (int i = 0; i < FIAS_MAX_FIELDS; ++i) {
        const fias_field_t& want = checked->fields[i];
        if (!want.name[0] || !text_type(want.type)) continue;
        const fias_field_t& got = back->fields[i];
        const bool sent = want.value && want.value->str;
        if (sent != static_cast<bool>(got.value)) __builtin_trap();
        if (sent && *got.value->str != *want.value->str) __builtin_trap();
    }
    return 0;
}
