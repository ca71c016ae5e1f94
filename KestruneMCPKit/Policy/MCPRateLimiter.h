// Sliding one-minute window of hits per key: tool calls per harness, and the
// fixed key "refused" for logging refusals. Thread-safe: all state is guarded
// by lock_. Time comes only from the injected clock.
#pragma once

#include <cstdint>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include "MailCore/Common/Clock.h"

namespace mcpkit {

class MCPRateLimiter {
public:
    explicit MCPRateLimiter(mailcore::Clock clock = mailcore::systemClock());

    // Keeps the key's hits less than 60 seconds old. True, and records this
    // hit, when fewer than `limit` remain; false (nothing recorded) otherwise.
    // A limit of zero or less refuses every call.
    bool allow(const std::string& key, std::int64_t limit);

private:
    const mailcore::Clock clock_;
    std::mutex lock_;
    std::unordered_map<std::string, std::vector<mailcore::Date>> hits_;  // guarded by lock_
};

}  // namespace mcpkit
