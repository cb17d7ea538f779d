// Small text helpers shared by the modules that build statements, Manager
// actions and records: quoting for SQL literals, placeholder filling and
// local-time text.
//
// Contract: pure functions, safe from any thread; nothing is kept between
// calls.
#pragma once

#include <ctime>
#include <string>
#include <string_view>

// `text` with every "'" doubled: the inside of a standard SQL string literal.
std::string sql_quoted(std::string_view text);

// `text` with every `token` replaced by `value`, left to right; a replaced
// value is never looked at again. An empty `token` changes nothing.
std::string replace_all(std::string text, std::string_view token, std::string_view value);

// `text` with each CR and LF made a blank: a value that can neither end a
// Manager header nor start another.
std::string one_line(std::string text);

// The local time of `when` in the strftime(3) `format`; "" when the text
// would exceed 63 characters.
std::string local_time_text(time_t when, const char* format);
