#include "fias/codec.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "logger.h"

namespace {

// The slots every record had before fields of features were added.
constexpr int legacy_slots = 10;

// A two-character pair of a date or time, read with automatic base: a pair
// with a leading zero is octal, so "08" and "09" read as 0.
uint8_t read_pair(const char* p, int base) {
    const auto digit = [](char c) { return c >= '0' && c <= '9'; };
    if (digit(p[0]) && digit(p[1])) {
        const int hi = p[0] - '0', lo = p[1] - '0';
        if (base == 0 && hi == 0) return static_cast<uint8_t>(lo < 8 ? lo : 0);  // octal
        return static_cast<uint8_t>(hi * 10 + lo);
    }
    char pair[3] = {p[0], p[1], '\0'};
    return static_cast<uint8_t>(strtoul(pair, nullptr, base));
}

void read_value(fias_field_t& f, const char* begin, const char* end,
                const fias_codec_options& opts) {
    const int base = opts.numbers ? 10 : 0;
    fias_value_t* v = &f.value.emplace();
    const size_t len = static_cast<size_t>(end - begin);
    switch (f.type) {
        case FIAS_TYPE_DATE:
            if (len == 6) {
                v->date.year = read_pair(begin, base);
                v->date.month = read_pair(begin + 2, base);
                v->date.day = read_pair(begin + 4, base);
            }
            break;
        case FIAS_TYPE_TIME:
            if (len == 6) {
                v->time.hour = read_pair(begin, base);
                v->time.min = read_pair(begin + 2, base);
                v->time.sec = read_pair(begin + 4, base);
            }
            break;
        case FIAS_TYPE_BOOL:
            v->bval = begin[0] == 'Y' ? 1 : 0;
            break;
        case FIAS_TYPE_INT: {
            // strtoul stops at the "|" that ends the value.
            v->ival = static_cast<uint32_t>(strtoul(begin, nullptr, 0));
            break;
        }
        default:
            v->str.emplace(begin, len);
            break;
    }
}

// A byte that no field may carry: the separator and the link's control bytes.
bool unsendable(unsigned char c) {
    return c < 0x20 || c == 0x7f || c == '|';
}

bool is_number(const std::string& text) {
    size_t at = !text.empty() && text[0] == '-' ? 1 : 0;
    if (at == text.size()) return false;
    for (; at < text.size(); ++at)
        if (text[at] < '0' || text[at] > '9') return false;
    return true;
}

// Dialled digits as they may go out; empty when nothing is left.
std::string dialled(const std::string& text, const fias_codec_options& opts, bool& dropped) {
    std::string out;
    out.reserve(text.size());
    for (char c : text) {
        if (unsendable(static_cast<unsigned char>(c)))
            dropped = true;
        else
            out += c;
    }
    if (!opts.numbers) return out;
    constexpr size_t max_digits = 20;
    std::string digits;
    size_t at = 0;
    if (!out.empty() && out[0] == '+') {
        digits = opts.plus_prefix;
        at = 1;
    }
    for (; at < out.size(); ++at) {
        if (out[at] >= '0' && out[at] <= '9')
            digits += out[at];
        else
            dropped = true;
    }
    if (digits.size() > max_digits) digits.resize(max_digits);
    return digits;
}

// `text`, the text value of field `f` of a record of type `type`, as it may
// go on the wire; nothing when the field is to be left out. `dropped` tells
// whether dialled digits lost characters.
std::optional<std::string> checked_text(const char* type, const fias_field_t& f,
                                        const std::string& text, const fias_codec_options& opts,
                                        bool& dropped) {
    switch (f.type) {
        case FIAS_TYPE_DIALLED: {
            std::string out = dialled(text, opts, dropped);
            if (out.empty()) return std::nullopt;
            return out;
        }
        case FIAS_TYPE_DIGITS:
        case FIAS_TYPE_DATE:
        case FIAS_TYPE_TIME:
            if (is_number(text)) return text;
            LOG(L_ERROR, "Field %.2s of a %.2s record is not a number: it is left out", f.name,
                type);
            return std::nullopt;
        default: {
            std::string out = text;
            for (char& c : out)
                if (unsendable(static_cast<unsigned char>(c))) c = ' ';
            return out;
        }
    }
}

// Whether the field's value goes out as its text: text types, and a date or
// time given as text (a number or flag is written from its number).
bool written_as_text(const fias_field_t& f) {
    return f.value && f.value->str && f.type != FIAS_TYPE_INT && f.type != FIAS_TYPE_BOOL;
}

// The value text of one field as it goes on the wire, or nothing when it is
// left out (a text slot without text, a value that cannot be sent).
std::optional<std::string> value_text(const char* type, const fias_field_t& f,
                                      const fias_codec_options& opts, bool& dropped) {
    const fias_value_t& v = *f.value;
    if (written_as_text(f)) return checked_text(type, f, *v.str, opts, dropped);
    char buf[32];
    switch (f.type) {
        case FIAS_TYPE_DATE:
            snprintf(buf, sizeof buf, "%02u%02u%02u", v.date.year, v.date.month, v.date.day);
            return buf;
        case FIAS_TYPE_TIME:
            snprintf(buf, sizeof buf, "%02u%02u%02u", v.time.hour, v.time.min, v.time.sec);
            return buf;
        case FIAS_TYPE_BOOL:
            return v.bval ? "Y" : "N";
        case FIAS_TYPE_INT: {
            // The PMS is sent the number of decimal digits, not the number
            // (the number itself with [fixes] numbers).
            int digits = snprintf(buf, sizeof buf, "%d", static_cast<int>(v.ival));
            if (!opts.numbers) snprintf(buf, sizeof buf, "%d", digits);
            return buf;
        }
        default:
            return std::nullopt;
    }
}

}  // namespace

fias_packet_ptr fias_parse_packet(const char* line, int /*packetlen*/,
                                  const fias_codec_options& opts) {
    if (!line) return nullptr;

    char type[3] = {line[0], line[0] ? line[1] : '\0', '\0'};
    const fias_catalogue_row* row = fias_packets;
    while (row->num_fields != 0 &&
           !(row->packet[0] == type[0] && row->packet[1] == type[1] && row->packet[2] == type[2]))
        row++;
    if (row->num_fields == 0) return nullptr;

    fias_packet_ptr p = fias_packet_from_row(*row);
    for (int i = 0; i < FIAS_MAX_FIELDS; ++i)
        if (row->fields[i].feature && !(opts.optional_fields & row->fields[i].feature))
            p->fields[i].name[0] = p->fields[i].name[1] = '\0';
    // Where each "|" is: a field is found at the first "|" followed by its
    // name (a value never holds a "|"), so the line is walked once.
    constexpr int kMarks = 64;
    const char* bars[kMarks];
    int nbars = 0;
    const char* c = line;
    for (; *c; ++c)
        if (*c == '|' && nbars < kMarks) bars[nbars++] = c;
    const size_t line_len = static_cast<size_t>(c - line);
    const bool all_bars = nbars < kMarks;
    for (int slot = 0; slot < FIAS_MAX_FIELDS; ++slot) {
        fias_field_t& f = p->fields[slot];
        // An unused slot of the first ten searches for the bare "|" and so
        // picks up the value of the line's first field; it is never looked
        // up by name. Later slots (fields of features) stay empty when unused.
        const bool unused = f.name[0] == '\0';
        if (unused && slot >= legacy_slots) continue;
        const char* at = nullptr;
        int next = 0;  // the first "|" that can end the value
        if (unused) {
            at = nbars > 0 ? bars[0] : nullptr;
        } else if (all_bars && f.name[1] != '\0') {
            for (int i = 0; i < nbars; ++i) {
                if (bars[i][1] == f.name[0] && bars[i][2] == f.name[1]) {
                    at = bars[i];
                    next = i;
                    break;
                }
            }
        } else {
            char needle[4] = "|";
            strncat(needle, f.name, 2);
            at = strstr(line, needle);
        }
        if (!at) continue;
        const size_t start = static_cast<size_t>(at - line) + 3;
        const char* end = nullptr;
        if (start <= line_len) {
            if (all_bars) {
                while (next < nbars && bars[next] < line + start) ++next;
                if (next < nbars) end = bars[next];
            } else {
                end = strchr(line + start, '|');
            }
        }
        if (!end) {
            if (unused) continue;
            return nullptr;  // a field value without its closing "|"
        }
        read_value(f, line + start, end, opts);
    }
    return p;
}

std::string fias_dialled(const std::string& text, const fias_codec_options& opts) {
    bool dropped = false;
    return dialled(text, opts, dropped);
}

fias_value_notes fias_check_values(fias_packet_t* p, const fias_codec_options& opts) {
    fias_value_notes notes;
    if (!p) return notes;
    for (fias_field_t& f : p->fields) {
        if (!written_as_text(f)) continue;
        std::optional<std::string> text =
            checked_text(p->packet, f, *f.value->str, opts, notes.dialled_dropped);
        if (!text)
            f.value.reset();
        else
            f.value->str = std::move(*text);
    }
    return notes;
}

std::string fias_packet_to_str(const fias_packet_t* p, const fias_codec_options& opts) {
    if (!p) return {};
    std::string out;
    out.reserve(64);
    out.append(p->packet).append("|");
    bool dropped = false;  // reported by fias_check_values()
    for (const fias_field_t& f : p->fields) {
        if (!f.value) continue;
        std::optional<std::string> text = value_text(p->packet, f, opts, dropped);
        if (!text) continue;
        out.append(f.name).append(*text).append("|");
    }
    return out;
}
