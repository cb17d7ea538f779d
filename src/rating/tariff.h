// The hotel's tariff: a CSV file of destination prefixes and their prices,
// read into an immutable in-memory table that finds the line pricing a call.
//
// Contract:
//  - load() and parse() build a table or refuse the file whole: every
//    broken line is reported as "<file>:<line>: <reason>" and no table is
//    made. They log nothing; the caller decides what to say.
//  - A table is never changed after it is made: any number of threads may
//    look up in one at the same time (it is published as a
//    std::shared_ptr<const tariff>).
//  - Lookups allocate nothing; the prefixes and the descriptions (each
//    distinct description once) live in one arena owned by the table.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "rating/price.h"

// The first line of every tariff file, after comments and empty lines.
inline constexpr std::string_view tariff_header =
    "prefix,description,call_type,rate,first,next,connect,free,valid_from";

// One line of the file.
struct tariff_line {
    uint32_t line = 0;  // its number in the file, from 1
    uint32_t prefix_at = 0;
    uint32_t description_at = 0;
    uint16_t description_size = 0;
    uint8_t prefix_size = 0;
    char call_type = 'A';    // "PC"
    int32_t valid_from = 0;  // YYYYMMDD; 0 = from the beginning
    price_terms terms;
};

class tariff {
  public:
    // Reads the file at `path`; the reasons name it as `path` is written.
    // Null when it cannot be read (one reason) or has broken lines.
    static std::shared_ptr<const tariff> load(const std::string& path,
                                              std::vector<std::string>& reasons);
    // The same for the file's text; `name` names it in the reasons.
    static std::shared_ptr<const tariff> parse(std::string_view text, const std::string& name,
                                               std::vector<std::string>& reasons);

    // The line that prices a call to `digits` starting on `date` (YYYYMMDD):
    // among the lines valid on that date (valid_from not after it), the one
    // with the longest prefix of `digits`, and of those the newest. Null
    // when none matches.
    const tariff_line* find(std::string_view digits, int32_t date) const;

    std::string_view prefix(const tariff_line& l) const {
        return std::string_view(arena_).substr(l.prefix_at, l.prefix_size);
    }
    std::string_view description(const tariff_line& l) const {
        return std::string_view(arena_).substr(l.description_at, l.description_size);
    }
    const std::string& name() const { return name_; }
    size_t size() const { return lines_.size(); }

  private:
    struct group {  // the lines of one prefix, oldest first
        uint32_t first;
        uint32_t count;
    };
    const group* group_of(std::string_view key) const;

    std::string name_;
    std::string arena_;
    std::vector<tariff_line> lines_;  // by prefix, then valid_from
    std::vector<group> groups_;
    std::vector<uint32_t> slots_;  // open addressing: group index + 1, 0 = empty
    uint32_t lengths_ = 0;         // bit n: some prefix has n digits
};

using tariff_ptr = std::shared_ptr<const tariff>;

// The longest prefix a line may have, in digits (the longest "DD").
inline constexpr size_t tariff_max_prefix = 20;
