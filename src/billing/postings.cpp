#include "billing/postings.h"

#include <cstdio>

std::string posting_sequence::next() {
    unsigned before = last.load();
    unsigned now;
    do now = before + 1 > 9999 ? 0 : before + 1;
    while (!last.compare_exchange_weak(before, now));
    ++issued;
    char text[16];
    snprintf(text, sizeof text, "%04u", now);
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

void posting_extensions::sent(const std::string& seq) {
    mutex_lock guard(mutex_);
    sent_[seq] = std::chrono::steady_clock::now();
}

void posting_extensions::answered(const std::string& seq) {
    mutex_lock guard(mutex_);
    sent_.erase(seq);
}

std::vector<std::string> posting_extensions::overdue(std::chrono::seconds timeout) {
    const auto before = std::chrono::steady_clock::now() - timeout;
    mutex_lock guard(mutex_);
    std::vector<std::string> out;
    for (auto it = sent_.begin(); it != sent_.end();)
        if (it->second <= before) {
            out.push_back(it->first);
            it = sent_.erase(it);
        } else {
            ++it;
        }
    return out;
}
