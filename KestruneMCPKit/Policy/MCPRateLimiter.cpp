#include "KestruneMCPKit/Policy/MCPRateLimiter.h"

#include <algorithm>

namespace mcpkit {

MCPRateLimiter::MCPRateLimiter(mailcore::Clock clock) : clock_(std::move(clock)) {}

bool MCPRateLimiter::allow(const std::string& key, std::int64_t limit) {
    std::lock_guard guard(lock_);
    const mailcore::Date now = clock_();
    const mailcore::Date windowStart = now - std::chrono::seconds(60);
    auto& hits = hits_[key];
    // Hits 60 seconds old or older fall out of the window.
    std::erase_if(hits, [&](mailcore::Date d) { return d <= windowStart; });
    if (static_cast<std::int64_t>(hits.size()) >= limit) return false;
    hits.push_back(now);
    return true;
}

}  // namespace mcpkit
