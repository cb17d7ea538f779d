#include "fias/packet.h"

#include <strings.h>

#include <cstring>

#include "logger.h"

// Row order decides the order of the link records sent at start-up; "PA"
// stands before "PS" on purpose.
const fias_catalogue_row fias_packets[] = {
    {"LS", FIAS_LS, "Link start", 2, {{"DA", FIAS_TYPE_DATE}, {"TI", FIAS_TYPE_TIME}}},
    {"LA", FIAS_LA, "Link active", 2, {{"DA", FIAS_TYPE_DATE}, {"TI", FIAS_TYPE_TIME}}},
    {"LD",
     FIAS_LD,
     "Link description",
     4,
     {{"DA", FIAS_TYPE_DATE},
      {"TI", FIAS_TYPE_TIME},
      {"V#", FIAS_TYPE_STR},
      {"IF", FIAS_TYPE_STR}}},
    {"LR", FIAS_LR, "Link record", 2, {{"RI", FIAS_TYPE_STR}, {"FL", FIAS_TYPE_STR}}},
    {"DR", FIAS_DR, "Description record", 2, {{"DA", FIAS_TYPE_DATE}, {"TI", FIAS_TYPE_TIME}}},
    {"GI",
     FIAS_GI,
     "Guest checkin",
     4,
     {{"RN", FIAS_TYPE_STR}, {"GN", FIAS_TYPE_STR}, {"GL", FIAS_TYPE_STR}, {"GS", FIAS_TYPE_BOOL}}},
    {"GO",
     FIAS_GO,
     "Guest checkout",
     4,
     {{"RN", FIAS_TYPE_STR}, {"GN", FIAS_TYPE_STR}, {"GL", FIAS_TYPE_STR}, {"GS", FIAS_TYPE_BOOL}}},
    {"RE",
     FIAS_RE,
     "Room equipment",
     7,
     {{"RN", FIAS_TYPE_STR},
      {"RS", FIAS_TYPE_DIGITS},
      {"CS", FIAS_TYPE_INT},
      {"DN", FIAS_TYPE_BOOL},
      {"ML", FIAS_TYPE_STR, fias_field_lamp},
      {"ID", FIAS_TYPE_STR, fias_field_maid},
      {"VM", FIAS_TYPE_STR, fias_field_voicemail}}},
    {"WC",
     FIAS_WC,
     "Wakeup clear",
     3,
     {{"RN", FIAS_TYPE_STR}, {"DA", FIAS_TYPE_DATE}, {"TI", FIAS_TYPE_TIME}}},
    {"WR",
     FIAS_WR,
     "Wakeup record",
     3,
     {{"RN", FIAS_TYPE_STR}, {"DA", FIAS_TYPE_DATE}, {"TI", FIAS_TYPE_TIME}}},
    {"WA",
     FIAS_WA,
     "Wakeup answer",
     4,
     {{"RN", FIAS_TYPE_STR},
      {"DA", FIAS_TYPE_DATE},
      {"TI", FIAS_TYPE_TIME},
      {"AS", FIAS_TYPE_STR}}},
    {"PA",
     FIAS_PA,
     "Post answer",
     5,
     {{"AS", FIAS_TYPE_STR},
      {"RN", FIAS_TYPE_STR},
      {"P#", FIAS_TYPE_STR},
      {"DA", FIAS_TYPE_DATE},
      {"TI", FIAS_TYPE_TIME}}},
    {"PS",
     FIAS_PS,
     "Post simple",
     12,
     {{"P#", FIAS_TYPE_DIGITS},
      {"RN", FIAS_TYPE_STR},
      {"PT", FIAS_TYPE_STR},
      {"TA", FIAS_TYPE_INT},
      {"DA", FIAS_TYPE_DATE},
      {"TI", FIAS_TYPE_TIME},
      {"DU", FIAS_TYPE_TIME},
      {"DD", FIAS_TYPE_DIALLED},
      {"PC", FIAS_TYPE_STR},
      {"CT", FIAS_TYPE_STR},
      {"MA", FIAS_TYPE_STR, fias_field_minibar},
      {"M#", FIAS_TYPE_DIGITS, fias_field_minibar}}},
    {"GC",
     FIAS_GC,
     "Guest change",
     6,
     {{"RN", FIAS_TYPE_STR},
      {"G#", FIAS_TYPE_STR},
      {"GN", FIAS_TYPE_STR},
      {"GL", FIAS_TYPE_STR},
      {"GS", FIAS_TYPE_BOOL},
      {"RO", FIAS_TYPE_STR}}},
    {"DS", FIAS_DS, "Database resync start", 2, {{"DA", FIAS_TYPE_DATE}, {"TI", FIAS_TYPE_TIME}}},
    {"DE", FIAS_DE, "Database resync end", 2, {{"DA", FIAS_TYPE_DATE}, {"TI", FIAS_TYPE_TIME}}},
    {"NS", FIAS_NS, "Night audit start", 2, {{"DA", FIAS_TYPE_DATE}, {"TI", FIAS_TYPE_TIME}}},
    {"NE", FIAS_NE, "Night audit end", 2, {{"DA", FIAS_TYPE_DATE}, {"TI", FIAS_TYPE_TIME}}},
    {"LE", FIAS_LE, "Link end", 2, {{"DA", FIAS_TYPE_DATE}, {"TI", FIAS_TYPE_TIME}}},
    {"", FIAS_UNKNOWN, "", 0, {}},
};

namespace {

// The storage of the last packet this thread dropped.
thread_local std::unique_ptr<fias_packet_t> spare_packet;

}  // namespace

void fias_packet_release::operator()(fias_packet_t* p) const noexcept {
    std::unique_ptr<fias_packet_t> dropped(p);
    if (!spare_packet) spare_packet = std::move(dropped);
}

fias_packet_ptr fias_packet_from_row(const fias_catalogue_row& row) {
    std::unique_ptr<fias_packet_t> storage = std::move(spare_packet);
    if (!storage) storage = std::make_unique<fias_packet_t>();
    fias_packet_ptr p(storage.release());
    // Every member is written, as the storage may hold an earlier packet.
    // Texts are copied a character at a time: they are a few characters
    // long, so this is cheaper than calls to the string routines.
    p->packet[0] = row.packet[0];
    p->packet[1] = p->packet[0] ? row.packet[1] : '\0';
    p->packet[2] = '\0';
    p->packet_code = row.packet_code;
    size_t d = 0;
    for (; d < sizeof p->desc - 1 && row.desc[d]; ++d) p->desc[d] = row.desc[d];
    for (; d < sizeof p->desc; ++d) p->desc[d] = '\0';
    p->num_fields = row.num_fields;
    for (int i = 0; i < FIAS_MAX_FIELDS; i++) {
        fias_field_t& f = p->fields[i];
        const char* name = row.fields[i].name;
        f.name[0] = name ? name[0] : '\0';
        f.name[1] = f.name[0] ? name[1] : '\0';
        f.type = row.fields[i].type;
        f.value.reset();
    }
    return p;
}

fias_packet_ptr fias_create_packet(int type) {
    for (const fias_catalogue_row* row = fias_packets; row->num_fields != 0; row++) {
        if (row->packet_code == type) return fias_packet_from_row(*row);
    }
    return nullptr;
}

fias_field_t* fias_get_field(fias_packet_t* p, const char* field) {
    if (!p || !field) return nullptr;
    for (fias_field_t& f : p->fields) {
        if (strcmp(f.name, field) == 0 && f.value) return &f;
    }
    return nullptr;
}

void fias_set_packet_field(fias_packet_t* p, const char* field, const fias_value_t* val) {
    if (!p || !field || !val) return;
    fias_field_t* slot = nullptr;
    for (fias_field_t& f : p->fields) {
        if (strcasecmp(f.name, field) == 0) slot = &f;
    }
    if (!slot) return;

    if (val->str) {
        const std::string text = *val->str;  // `val` may be the slot's own value
        slot->value.emplace().str = text;
    } else {
        fias_value_t v;
        v.ival = val->ival;
        v.bval = val->bval;
        v.date = val->date;
        v.time = val->time;
        slot->value.emplace() = v;
    }
}

std::string fias_shown(const char* record) {
    std::string text = record ? record : "";
    if (!logger_hides_names()) return text;
    // A field starts after a "|" and ends at the next "|" or control
    // character (the end of the record).
    for (size_t at = text.find('|'); at != std::string::npos; at = text.find('|', at)) {
        at++;
        if (text.compare(at, 2, "GN") != 0 && text.compare(at, 2, "GF") != 0) continue;
        const size_t value = at + 2;
        size_t end = value;
        while (end < text.size() && text[end] != '|' &&
               static_cast<unsigned char>(text[end]) >= 0x20)
            end++;
        if (end > value) text.replace(value, end - value, "<name>");
    }
    return text;
}
