#include "KestruneMCPKit/Taint/MCPTaintTracker.h"

#include <algorithm>

namespace mcpkit {

using mailcore::Date;
using mailcore::secondsSince1970;

MCPTaintTracker::MCPTaintTracker(mailcore::Clock clock) : clock_(std::move(clock)) {}

std::string MCPTaintTracker::key(const std::string& harness, const std::string& session) {
    std::string kept;
    for (char c : session) {
        if ((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
            c == '-') {
            kept.push_back(c);
        }
    }
    if (kept.empty()) kept = "default";
    return harness + ":" + kept;
}

void MCPTaintTracker::expireLocked(Date now) {
    const double nowSeconds = secondsSince1970(now);
    std::erase_if(sessions_, [&](const auto& entry) {
        return nowSeconds - secondsSince1970(entry.second.lastActivity) >= idleExpirySeconds;
    });
}

MCPTaintTracker::Session& MCPTaintTracker::touchLocked(const std::string& key, Date now) {
    expireLocked(now);
    auto it = sessions_.find(key);
    if (it == sessions_.end()) {
        if (sessions_.size() >= maxSessions) {
            auto oldest = std::min_element(sessions_.begin(), sessions_.end(),
                                           [](const auto& a, const auto& b) {
                                               return a.second.lastActivity < b.second.lastActivity;
                                           });
            sessions_.erase(oldest);
        }
        it = sessions_.emplace(key, Session{}).first;
    }
    it->second.lastActivity = now;
    return it->second;
}

void MCPTaintTracker::recordRead(const std::string& key, const std::vector<MCPMailRead>& mails) {
    // An empty search page carries no third-party text, so it leaves the
    // session as it was.
    if (mails.empty()) return;
    const Date now = clock_();
    std::lock_guard guard(lock_);
    Session& s = touchLocked(key, now);
    for (const auto& m : mails) {
        s.mailRead.push_back(m);
        if (s.mailRead.size() > snapshotMailLimit) s.mailRead.pop_front();
    }
    s.mailReadTotal += static_cast<int>(mails.size());
}

MCPTaintTracker::Snapshot MCPTaintTracker::snapshot(const std::string& key) {
    const Date now = clock_();
    std::lock_guard guard(lock_);
    expireLocked(now);
    Snapshot snap;
    auto it = sessions_.find(key);
    if (it == sessions_.end()) return snap;
    snap.mailInfluenced = it->second.mailReadTotal > 0;
    snap.mailRead.assign(it->second.mailRead.begin(), it->second.mailRead.end());
    snap.mailReadTotal = it->second.mailReadTotal;
    return snap;
}

void MCPTaintTracker::touch(const std::string& key) {
    const Date now = clock_();
    std::lock_guard guard(lock_);
    expireLocked(now);
    if (auto it = sessions_.find(key); it != sessions_.end()) it->second.lastActivity = now;
}

LabelDecision MCPTaintTracker::labelWrite(const std::string& key, bool tainted) {
    const Date now = clock_();
    const double nowSeconds = secondsSince1970(now);
    std::lock_guard guard(lock_);
    Session& s = touchLocked(key, now);
    while (!s.writes.empty() && nowSeconds - secondsSince1970(s.writes.front()) >= 3600) {
        s.writes.pop_front();
    }
    const std::size_t hourLimit = tainted ? 30 : 300;
    if (s.writes.size() >= hourLimit) return LabelDecision::refuse;
    const auto recent = std::count_if(s.writes.begin(), s.writes.end(), [&](Date d) {
        return nowSeconds - secondsSince1970(d) < 600;
    });
    s.writes.push_back(now);
    if (tainted && recent >= 3) return LabelDecision::confirm;
    return LabelDecision::allow;
}

void MCPTaintTracker::forget(const std::string& key) {
    std::lock_guard guard(lock_);
    sessions_.erase(key);
}

void MCPTaintTracker::clear(const std::optional<std::string>& harness) {
    std::lock_guard guard(lock_);
    if (!harness) {
        sessions_.clear();
        return;
    }
    const std::string prefixText = *harness + ":";
    std::erase_if(sessions_,
                  [&](const auto& entry) { return entry.first.starts_with(prefixText); });
}

int MCPTaintTracker::taintedSessionCount() {
    const Date now = clock_();
    std::lock_guard guard(lock_);
    expireLocked(now);
    return static_cast<int>(std::count_if(sessions_.begin(), sessions_.end(), [](const auto& e) {
        return e.second.mailReadTotal > 0;
    }));
}

}  // namespace mcpkit
