#include "rating/tariff.h"

#include <algorithm>
#include <fstream>
#include <unordered_map>

namespace {

constexpr int64_t max_money_micro = int64_t{1000000} * 1000000;  // 1,000,000 units
constexpr int64_t max_seconds = 86400;

uint64_t hash_of(std::string_view s) {
    uint64_t h = 1469598103934665603ULL;
    for (char c : s) h = (h ^ static_cast<unsigned char>(c)) * 1099511628211ULL;
    return h ^ (h >> 29);
}

// The fields of one CSV line (RFC 4180 quoting), or a reason.
bool split_fields(std::string_view line, std::vector<std::string>& fields, std::string& reason) {
    fields.clear();
    size_t i = 0;
    for (;;) {
        std::string field;
        if (i < line.size() && line[i] == '"') {
            for (i++;; i++) {
                if (i >= line.size()) {
                    reason = "a quote is not closed";
                    return false;
                }
                if (line[i] == '"') {
                    if (i + 1 < line.size() && line[i + 1] == '"') {
                        field.push_back('"');
                        i++;
                        continue;
                    }
                    i++;
                    break;
                }
                field.push_back(line[i]);
            }
            if (i < line.size() && line[i] != ',') {
                reason = "text after a closing quote";
                return false;
            }
        } else {
            const size_t end = std::min(line.find(',', i), line.size());
            field.assign(line.substr(i, end - i));
            if (field.find('"') != std::string::npos) {
                reason = "a quote inside a field that is not quoted";
                return false;
            }
            i = end;
        }
        fields.push_back(std::move(field));
        if (i >= line.size()) return true;
        i++;  // the comma
    }
}

bool all_digits(std::string_view s) {
    return !s.empty() &&
           std::all_of(s.begin(), s.end(), [](char c) { return c >= '0' && c <= '9'; });
}

// "YYYY-MM-DD" as YYYYMMDD, or -1.
int32_t date_of(std::string_view s) {
    if (s.size() != 10 || s[4] != '-' || s[7] != '-' || !all_digits(s.substr(0, 4)) ||
        !all_digits(s.substr(5, 2)) || !all_digits(s.substr(8, 2)))
        return -1;
    const int y = std::stoi(std::string(s.substr(0, 4)));
    const int m = std::stoi(std::string(s.substr(5, 2)));
    const int d = std::stoi(std::string(s.substr(8, 2)));
    static const int days[] = {31, 29, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    if (y < 1 || m < 1 || m > 12 || d < 1 || d > days[m - 1]) return -1;
    if (m == 2 && d == 29 && !(y % 4 == 0 && (y % 100 != 0 || y % 400 == 0))) return -1;
    return y * 10000 + m * 100 + d;
}

std::string quote(std::string_view s) {
    return "\"" + std::string(s.substr(0, 40)) + (s.size() > 40 ? "...\"" : "\"");
}

// One data line's fields as a tariff line (prefix and description not yet
// placed), or a reason.
bool read_line(const std::vector<std::string>& f, tariff_line& out, std::string& reason) {
    if (f.size() != 9) {
        reason = std::to_string(f.size()) + " fields instead of 9";
        return false;
    }
    if (!all_digits(f[0])) {
        reason = "prefix " + quote(f[0]) + " is not digits";
        return false;
    }
    if (f[0].size() > tariff_max_prefix) {
        reason = "prefix " + quote(f[0]) + " is longer than 20 digits";
        return false;
    }
    if (f[2].size() != 1 || f[2][0] < 'A' || f[2][0] > 'Z') {
        reason = "call_type " + quote(f[2]) + " is not one letter A-Z";
        return false;
    }
    out.call_type = f[2][0];
    struct number {
        const char* name;
        const std::string& text;
        int decimals;
        int64_t low, high;
    };
    const number numbers[] = {{"rate", f[3], 6, 0, max_money_micro},
                              {"first", f[4], 0, 1, max_seconds},
                              {"next", f[5], 0, 1, max_seconds},
                              {"connect", f[6], 6, 0, max_money_micro},
                              {"free", f[7], 0, 0, max_seconds}};
    int64_t values[5];
    for (int i = 0; i < 5; i++) {
        const number& n = numbers[i];
        std::optional<int64_t> v = parse_scaled(n.text, n.decimals, n.high);
        if (!v || *v < n.low) {
            reason = std::string(n.name) + " " + quote(n.text) +
                     (n.decimals ? " is not an amount of at most 6 decimals up to 1000000"
                                 : " is not a number of seconds " + std::to_string(n.low) + "-" +
                                       std::to_string(n.high));
            return false;
        }
        values[i] = *v;
    }
    out.terms = {values[0], static_cast<uint32_t>(values[1]), static_cast<uint32_t>(values[2]),
                 values[3], static_cast<uint32_t>(values[4])};
    if (f[8].empty()) {
        out.valid_from = 0;
    } else if ((out.valid_from = date_of(f[8])) < 0) {
        reason = "valid_from " + quote(f[8]) + " is not a date YYYY-MM-DD";
        return false;
    }
    return true;
}

}  // namespace

std::shared_ptr<const tariff> tariff::load(const std::string& path,
                                           std::vector<std::string>& reasons) {
    std::ifstream in(path, std::ios::binary | std::ios::ate);
    const std::streamoff size = in ? static_cast<std::streamoff>(in.tellg()) : -1;
    std::string text(size > 0 ? static_cast<size_t>(size) : 0, '\0');
    if (size < 0 || !in.seekg(0) || !in.read(text.data(), size)) {
        reasons.push_back(path + ":0: the file cannot be read");
        return nullptr;
    }
    return parse(text, path, reasons);
}

std::shared_ptr<const tariff> tariff::parse(std::string_view text, const std::string& name,
                                            std::vector<std::string>& reasons) {
    auto t = std::make_shared<tariff>();
    t->name_ = name;
    if (text.substr(0, 3) == "\xEF\xBB\xBF") text.remove_prefix(3);
    // Prefixes and descriptions as found, before the arena is laid out.
    struct pending {
        tariff_line line;
        std::string prefix;
        std::string description;
    };
    std::vector<pending> read;
    read.reserve(static_cast<size_t>(std::count(text.begin(), text.end(), '\n')) + 1);
    std::vector<std::string> fields;
    const size_t before = reasons.size();
    bool header = true;
    uint32_t number = 0;
    for (size_t at = 0; at < text.size();) {
        const size_t end = std::min(text.find('\n', at), text.size());
        std::string_view line = text.substr(at, end - at);
        at = end + 1;
        number++;
        if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
        if (line.empty() || line[0] == '#') continue;
        auto where = [&] { return name + ":" + std::to_string(number) + ": "; };
        if (header) {
            header = false;
            if (line != tariff_header)
                reasons.push_back(where() + "the first line is not \"" +
                                  std::string(tariff_header) + "\"");
            continue;
        }
        pending p;
        p.line.line = number;
        std::string reason;
        if (!split_fields(line, fields, reason) || !read_line(fields, p.line, reason)) {
            reasons.push_back(where() + reason);
            continue;
        }
        p.prefix = std::move(fields[0]);
        p.description = std::move(fields[1]);
        // A description is one line of plain text in the record.
        for (char& c : p.description)
            if (static_cast<unsigned char>(c) < 0x20 || c == 0x7F || c == '|') c = ' ';
        read.push_back(std::move(p));
    }
    if (header) reasons.push_back(name + ":" + std::to_string(number) + ": no header line");
    // By prefix, then valid_from (an order of indexes: the lines stay put).
    std::vector<uint32_t> order(read.size());
    for (uint32_t i = 0; i < order.size(); i++) order[i] = i;
    std::sort(order.begin(), order.end(), [&](uint32_t a, uint32_t b) {
        const pending& x = read[a];
        const pending& y = read[b];
        if (const int c = x.prefix.compare(y.prefix)) return c < 0;
        return x.line.valid_from < y.line.valid_from;
    });
    for (size_t i = 1; i < order.size(); i++)
        if (read[order[i]].prefix == read[order[i - 1]].prefix &&
            read[order[i]].line.valid_from == read[order[i - 1]].line.valid_from) {
            const pending& a = read[order[i]];
            const pending& b = read[order[i - 1]];
            const pending& later = a.line.line > b.line.line ? a : b;
            const pending& earlier = &later == &a ? b : a;
            reasons.push_back(name + ":" + std::to_string(later.line.line) +
                              ": the same prefix and valid_from as line " +
                              std::to_string(earlier.line.line));
        }
    if (reasons.size() != before) return nullptr;

    std::unordered_map<std::string_view, uint32_t> descriptions;  // views into `read`
    descriptions.reserve(read.size());
    t->lines_.reserve(read.size());
    for (uint32_t index : order) {
        pending& p = read[index];
        tariff_line l = p.line;
        if (t->groups_.empty() || t->prefix(t->lines_.back()) != p.prefix) {
            t->groups_.push_back({static_cast<uint32_t>(t->lines_.size()), 0});
            l.prefix_at = static_cast<uint32_t>(t->arena_.size());
            t->arena_ += p.prefix;
            t->lengths_ |= uint32_t{1} << p.prefix.size();
        } else {
            l.prefix_at = t->lines_.back().prefix_at;
        }
        l.prefix_size = static_cast<uint8_t>(p.prefix.size());
        if (p.description.size() > 0xFFFF) p.description.resize(0xFFFF);
        auto [it, fresh] = descriptions.emplace(std::string_view(p.description),
                                                static_cast<uint32_t>(t->arena_.size()));
        if (fresh) t->arena_ += p.description;
        l.description_at = it->second;
        l.description_size = static_cast<uint16_t>(p.description.size());
        t->groups_.back().count++;
        t->lines_.push_back(l);
    }
    t->arena_.shrink_to_fit();
    size_t slots = 16;
    while (slots < t->groups_.size() * 2) slots *= 2;
    t->slots_.assign(slots, 0);
    for (uint32_t g = 0; g < t->groups_.size(); g++) {
        size_t s = hash_of(t->prefix(t->lines_[t->groups_[g].first])) & (slots - 1);
        while (t->slots_[s]) s = (s + 1) & (slots - 1);
        t->slots_[s] = g + 1;
    }
    return t;
}

const tariff::group* tariff::group_of(std::string_view key) const {
    const size_t mask = slots_.size() - 1;
    for (size_t s = hash_of(key) & mask; slots_[s]; s = (s + 1) & mask) {
        const group& g = groups_[slots_[s] - 1];
        if (prefix(lines_[g.first]) == key) return &g;
    }
    return nullptr;
}

const tariff_line* tariff::find(std::string_view digits, int32_t date) const {
    if (slots_.empty()) return nullptr;
    for (size_t n = std::min(digits.size(), tariff_max_prefix); n > 0; n--) {
        if (!(lengths_ & (uint32_t{1} << n))) continue;
        const group* g = group_of(digits.substr(0, n));
        if (!g) continue;
        // The newest line that is valid on `date`.
        for (uint32_t i = g->count; i > 0; i--) {
            const tariff_line& l = lines_[g->first + i - 1];
            if (l.valid_from <= date) return &l;
        }
    }
    return nullptr;
}
