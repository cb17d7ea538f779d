#include "fias/charset.h"

#include <iconv.h>

#include <algorithm>
#include <cerrno>
#include <memory>

namespace {

struct iconv_closer {
    void operator()(void* cd) const { iconv_close(static_cast<iconv_t>(cd)); }
};
using iconv_ptr = std::unique_ptr<void, iconv_closer>;

iconv_ptr open_iconv(const char* to, const char* from) {
    iconv_t cd = iconv_open(to, from);
    return iconv_ptr(cd == reinterpret_cast<iconv_t>(-1) ? nullptr : cd);
}

iconv_ptr open_to_utf8(const std::string& encoding) {
    return open_iconv("UTF-8", encoding.c_str());
}

// `text` through `cd`; at a sequence it cannot convert, `bad` says what to
// write instead and how many bytes to pass over (at least one).
template <typename Bad>
std::string convert(const iconv_ptr& cd, std::string_view text, Bad bad) {
    std::string out;
    char* in = const_cast<char*>(text.data());
    size_t in_left = text.size();
    char buf[256];
    while (in_left > 0) {
        char* o = buf;
        size_t o_left = sizeof buf;
        size_t rc = iconv(static_cast<iconv_t>(cd.get()), &in, &in_left, &o, &o_left);
        out.append(buf, static_cast<size_t>(o - buf));
        if (rc != static_cast<size_t>(-1) || errno == E2BIG) continue;
        const size_t skip = std::min(std::max<size_t>(bad(in, in_left, out), 1), in_left);
        in += skip;
        in_left -= skip;
        iconv(static_cast<iconv_t>(cd.get()), nullptr, nullptr, nullptr, nullptr);
    }
    return out;
}

}  // namespace

bool known_encoding(const std::string& encoding) {
    return open_to_utf8(encoding) != nullptr;
}

std::string to_utf8(std::string_view text, const std::string& encoding) {
    iconv_ptr cd = open_to_utf8(encoding);
    if (!cd) return std::string(text);
    // A byte that cannot be read: the replacement character, and on.
    return convert(cd, text, [](const char*, size_t, std::string& out) -> size_t {
        out += "\xEF\xBF\xBD";
        return 1;
    });
}

std::string from_utf8(std::string_view text, const std::string& encoding) {
    iconv_ptr cd = open_iconv(encoding.c_str(), "UTF-8");
    if (!cd) return std::string(text);
    // A character that cannot be written (or read): "?" for the whole
    // sequence, and on.
    return convert(cd, text, [](const char* in, size_t in_left, std::string& out) -> size_t {
        const unsigned char lead = static_cast<unsigned char>(*in);
        size_t skip = lead >= 0xF0 ? 4 : lead >= 0xE0 ? 3 : lead >= 0xC0 ? 2 : 1;
        for (size_t i = 1; i < skip && i < in_left; i++)
            if ((static_cast<unsigned char>(in[i]) & 0xC0) != 0x80) skip = i;
        out += '?';
        return skip;
    });
}
