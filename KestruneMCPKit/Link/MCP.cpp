#include "KestruneMCPKit/Link/MCP.h"

#include <algorithm>

namespace mcpkit::MCP {

std::string negotiate(const std::optional<std::string>& requested) {
    if (knownProtocolVersions.empty()) return requested.value_or("");
    // Version strings are dates, so plain string order is their age order.
    const std::string_view latest =
        *std::max_element(knownProtocolVersions.begin(), knownProtocolVersions.end());
    const std::string_view oldest =
        *std::min_element(knownProtocolVersions.begin(), knownProtocolVersions.end());
    if (!requested) return std::string(latest);
    if (std::find(knownProtocolVersions.begin(), knownProtocolVersions.end(), *requested) !=
        knownProtocolVersions.end())
        return *requested;
    if (latest < *requested) return std::string(latest);
    return std::string(oldest);
}

}  // namespace mcpkit::MCP
