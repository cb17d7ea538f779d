#include "billing/postings.h"

#include <cstdio>

std::string posting_sequence::next() {
    last = last + 1 > 9999 ? 0 : last + 1;
    char text[16];
    snprintf(text, sizeof text, "%04u", last);
    return text;
}

void posting_extensions::made_by(const std::string& seq, const std::string& extension) {
    mutex_lock guard(mutex_);
    extensions_[seq] = extension;
}

std::string posting_extensions::extension_of(const std::string& seq) {
    mutex_lock guard(mutex_);
    auto it = extensions_.find(seq);
    return it == extensions_.end() ? std::string() : it->second;
}
