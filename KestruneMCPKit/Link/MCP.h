// Constants of the agent link, shared by the helper and the application.
#pragma once

#include <array>
#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace mcpkit::MCP {

inline constexpr std::string_view serverName = "kestrune";
inline constexpr std::string_view serverTitle = "Kestrune Mail";
inline constexpr std::string_view serverVersion = "0.1.0";
inline constexpr std::array<std::string_view, 2> knownProtocolVersions = {"2025-06-18",
                                                                          "2025-11-25"};
inline constexpr int wireVersion = 1;
inline constexpr std::string_view tokenEnv = "KESTRUNE_MCP_TOKEN";
inline constexpr std::string_view socketEnv = "KESTRUNE_SOCKET";
// Largest request frame the application's server reads (the line feed not counted).
inline constexpr std::size_t maxFrameBytes = 1048576;
// Largest reply frame the client links read.
inline constexpr std::size_t maxReplyBytes = 4194304;

// The protocol version to answer for a client's requested version: a known
// version unchanged; nothing requested or an unknown newer version, the
// latest known; an unknown older version, the oldest known.
std::string negotiate(const std::optional<std::string>& requested);

}  // namespace mcpkit::MCP
