// MCPWireCode: the codes carried in the "code" member of a failed link reply.
#pragma once

#include <string_view>

namespace mcpkit::MCPWireCode {

inline constexpr std::string_view refused = "refused";
inline constexpr std::string_view rateLimited = "rate_limited";
inline constexpr std::string_view badRequest = "bad_request";
inline constexpr std::string_view appNotRunning = "app_not_running";

}  // namespace mcpkit::MCPWireCode
