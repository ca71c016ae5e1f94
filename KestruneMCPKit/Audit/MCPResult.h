// The outcome of one request as written to the audit log.
#pragma once

#include <optional>
#include <string_view>

namespace mcpkit {

enum class MCPResult { ok, error, denied, refused, rateLimited, declined, timedOut };

// "ok", "error", "denied", "refused", "rate_limited", "declined", "timed_out".
std::string_view rawValue(MCPResult result);

// The result whose raw value is `text` exactly, or none.
std::optional<MCPResult> mcpResultFromRawValue(std::string_view text);

}  // namespace mcpkit
