#include "billing/postings.h"

#include <algorithm>
#include <cstdio>

#include "logger.h"

std::string posting_sequence::next() {
    last = last + 1 > 9999 ? 0 : last + 1;
    char text[16];
    snprintf(text, sizeof text, "%04u", last);
    return text;
}

void unanswered_postings::sent(posting p, unsigned link) {
    mutex_lock guard(mutex_);
    auto [it, added] = waiting_.try_emplace(p.seq);
    if (!added && warned_ != link) {
        warned_ = link;
        LOG(L_WARNING,
            "Posting P#%s of room %s (%s) was never answered and is forgotten: "
            "its number is used again",
            it->second.p.seq.c_str(), it->second.p.room.c_str(), it->second.p.number.c_str());
    }
    it->second = in_flight{std::move(p), link, sent_++};
}

bool unanswered_postings::answered(const std::string& seq) {
    mutex_lock guard(mutex_);
    return waiting_.erase(seq) > 0;
}

std::vector<unanswered_postings::posting> unanswered_postings::to_resend(unsigned link) {
    std::vector<in_flight> lost;
    {
        mutex_lock guard(mutex_);
        for (auto it = waiting_.begin(); it != waiting_.end();) {
            if (it->second.link == link) {
                ++it;
                continue;
            }
            lost.push_back(std::move(it->second));
            it = waiting_.erase(it);
        }
    }
    std::sort(lost.begin(), lost.end(),
              [](const in_flight& a, const in_flight& b) { return a.order < b.order; });
    std::vector<posting> out;
    out.reserve(lost.size());
    for (in_flight& f : lost) out.push_back(std::move(f.p));
    return out;
}

void unanswered_postings::made_by(const std::string& seq, const std::string& extension) {
    mutex_lock guard(mutex_);
    extensions_[seq] = extension;
}

std::string unanswered_postings::extension_of(const std::string& seq) {
    mutex_lock guard(mutex_);
    auto it = extensions_.find(seq);
    return it == extensions_.end() ? std::string() : it->second;
}
