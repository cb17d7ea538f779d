// Texts as SQLite literals, for the statements of the states file (this
// module's own).
#pragma once

#include <string>
#include <string_view>

// `text` with every "'" doubled.
inline std::string sqlite_escaped(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    for (char c : text) out.append(c == '\'' ? 2 : 1, c);
    return out;
}

// `text` between quotes, escaped.
inline std::string quoted(std::string_view text) {
    std::string out;
    out.reserve(text.size() + 2);
    out.push_back('\'');
    for (char c : text) out.append(c == '\'' ? 2 : 1, c);
    out.push_back('\'');
    return out;
}
