// FIAS records in memory: the packet model and the static record catalogue.
//
// Contract:
//  - The catalogue `fias_packets` is read-only and shared by all threads.
//  - A packet is owned by the thread that made it (fias_packet_ptr); values
//    belong to their slot and texts to their value.
//  - fias_set_packet_field() compares names without regard to case and fills
//    the last matching slot; fias_get_field() compares exactly and returns the
//    first slot with a value. A value that carries text carries nothing else.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

enum fias_packet_code {
    FIAS_UNKNOWN = 0,
    FIAS_LS = 1,
    FIAS_LA = 2,
    FIAS_LD = 3,
    FIAS_LR = 4,
    FIAS_DR = 5,
    FIAS_GI = 6,
    FIAS_GO = 7,
    FIAS_RE = 8,
    FIAS_WC = 9,
    FIAS_WR = 10,
    FIAS_WA = 11,
    FIAS_PS = 12,
    FIAS_PA = 13,
    // Known only where the feature that uses them is configured
    // (fias_optional_record).
    FIAS_GC = 14,
    FIAS_DS = 15,
    FIAS_DE = 16,
    FIAS_NS = 17,
    FIAS_NE = 18,
    FIAS_LE = 19,
};

// A set of record codes, one bit per code.
using fias_record_set = uint32_t;
constexpr fias_record_set fias_record_bit(int code) {
    return fias_record_set{1} << code;
}

// Whether a record type is beyond the long-standing thirteen: such a type is
// handled, and announced in the link description, only when the feature that
// uses it is configured; otherwise it is treated as a type nobody knows.
constexpr bool fias_optional_record(int code) {
    return code >= FIAS_GC;
}

enum fias_value_type : uint8_t {
    FIAS_TYPE_STR = 0,
    FIAS_TYPE_INT = 1,
    FIAS_TYPE_DATE = 2,
    FIAS_TYPE_TIME = 3,
    FIAS_TYPE_BOOL = 4,
    // Text values that hold a number (FIAS type N): read as text; written
    // only when they are one ("-" and digits), else left out.
    FIAS_TYPE_DIGITS = 5,
    // Dialled digits ("DD"): read as text; written without the bytes a field
    // cannot carry, and in the form of fias_codec_options::numbers.
    FIAS_TYPE_DIALLED = 6,
};

constexpr int FIAS_MAX_FIELDS = 12;

// Fields that belong to a feature: announced in the link description (and
// read) only when it is configured. One bit per feature.
using fias_field_set = uint8_t;
constexpr fias_field_set fias_field_lamp = 1;       // "ML" of "RE": the message lamp
constexpr fias_field_set fias_field_minibar = 2;    // "MA" and "M#" of "PS": minibar postings
constexpr fias_field_set fias_field_maid = 4;       // "ID" of "RE": the maid's room status
constexpr fias_field_set fias_field_voicemail = 8;  // "VM" of "RE": voice mail counts

struct fias_date_t {
    uint8_t year = 0;  // two digits, as on the wire
    uint8_t month = 0;
    uint8_t day = 0;
    uint8_t reserve = 0;
};

struct fias_time_t {
    uint8_t hour = 0;
    uint8_t min = 0;
    uint8_t sec = 0;
    uint8_t reserve = 0;
};

struct fias_value_t {
    std::optional<std::string> str;  // absent = no text
    uint32_t ival = 0;
    int32_t bval = 0;
    fias_date_t date;
    fias_time_t time;
};

// A field's value, kept inside the field: reading a record allocates
// nothing per field. Used like a pointer: false when the field has no value.
class fias_value_slot {
  public:
    explicit operator bool() const { return v_.has_value(); }
    fias_value_t* operator->() { return &*v_; }
    const fias_value_t* operator->() const { return &*v_; }
    fias_value_t& operator*() { return *v_; }
    const fias_value_t& operator*() const { return *v_; }
    fias_value_t* get() { return v_ ? &*v_ : nullptr; }
    // A fresh value without text (replacing any value).
    fias_value_t& emplace() { return v_.emplace(); }
    void reset() { v_.reset(); }
    // Takes the value `p` points to (none for null).
    fias_value_slot& operator=(std::unique_ptr<fias_value_t> p) {
        if (p)
            v_ = std::move(*p);
        else
            v_.reset();
        return *this;
    }

  private:
    std::optional<fias_value_t> v_;
};

struct fias_field_t {
    char name[3] = "";  // empty = unused slot
    uint8_t type = FIAS_TYPE_STR;
    fias_value_slot value;  // false = no value in this packet
};

struct fias_packet_t {
    char packet[3] = "";
    int32_t packet_code = FIAS_UNKNOWN;
    char desc[64] = "";
    int32_t num_fields = 0;
    fias_field_t fields[FIAS_MAX_FIELDS];
};

// Gives a packet's storage back to the thread that drops it; each thread
// keeps the storage of one packet for the next packet it makes, so reading
// record after record allocates nothing.
struct fias_packet_release {
    void operator()(fias_packet_t* p) const noexcept;
};
using fias_packet_ptr = std::unique_ptr<fias_packet_t, fias_packet_release>;

// One catalogue row: what a packet of that type is made from.
struct fias_catalogue_row {
    const char* packet;
    int32_t packet_code;
    const char* desc;
    int32_t num_fields;
    struct {
        const char* name;
        uint8_t type;
        // The feature whose field it is (0: every configuration's).
        fias_field_set feature = 0;
    } fields[FIAS_MAX_FIELDS];
};

// The catalogue, in its fixed order ("PA" before "PS", the optional types
// last), closed by a row whose num_fields is 0.
extern const fias_catalogue_row fias_packets[];

// A new packet for `type` without values, or null for a code no row has.
fias_packet_ptr fias_create_packet(int type);

// A new packet from a catalogue row (no values).
fias_packet_ptr fias_packet_from_row(const fias_catalogue_row& row);

// The first slot named exactly `field` that has a value, or null.
fias_field_t* fias_get_field(fias_packet_t* p, const char* field);

// Gives the last slot named `field` (any case) a copy of `val`, replacing any
// value it had. A name that no slot has, and a null packet or value, are ignored.
void fias_set_packet_field(fias_packet_t* p, const char* field, const fias_value_t* val);

// `record` (record text as read or written) as a log line may show it: while
// the logger hides guest names, the values of the name fields ("GN", "GF")
// are "<name>".
std::string fias_shown(const char* record);
