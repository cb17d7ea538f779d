#include "text.h"

std::string sql_quoted(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    for (char c : text) out.append(c == '\'' ? 2 : 1, c);
    return out;
}

std::string replace_all(std::string text, std::string_view token, std::string_view value) {
    if (token.empty()) return text;
    for (size_t at = text.find(token); at != std::string::npos; at = text.find(token, at)) {
        text.replace(at, token.size(), value);
        at += value.size();
    }
    return text;
}

std::string one_line(std::string text) {
    for (char& c : text)
        if (c == '\r' || c == '\n') c = ' ';
    return text;
}

std::string local_time_text(time_t when, const char* format) {
    struct tm tmv {};
    localtime_r(&when, &tmv);
    char buf[64];
    const size_t n = strftime(buf, sizeof buf, format, &tmv);
    return std::string(buf, n);
}
