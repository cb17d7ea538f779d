// Character sets of the PMS: texts received in the PMS's own character set
// turned into UTF-8.
//
// Contract: pure functions; safe from any thread.
#pragma once

#include <string>
#include <string_view>

// `text`, read in `encoding` (an iconv name such as "cp1252"), as UTF-8. A
// byte sequence that cannot be converted becomes U+FFFD and the rest goes on.
// An unknown encoding gives the text as it is.
std::string to_utf8(std::string_view text, const std::string& encoding);

// `text` (UTF-8) in `encoding`, for sending: a character that cannot be
// written in it, and a byte that is not UTF-8, become "?". An unknown
// encoding gives the text as it is.
std::string from_utf8(std::string_view text, const std::string& encoding);

// Whether `encoding` names a character set that can be converted.
bool known_encoding(const std::string& encoding);
