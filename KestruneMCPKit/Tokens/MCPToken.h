// Harness tokens: the secret each registered harness presents in every link
// request. A token is "kmt_" followed by the URL-safe, unpadded base64 text of
// 32 random bytes (47 characters in all).
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace mcpkit::MCPToken {

inline constexpr std::string_view prefix = "kmt_";
inline constexpr std::size_t randomByteCount = 32;
inline constexpr std::size_t length = 47;

// A fresh token from the system's cryptographic random source; when that
// source fails, the bytes come from the general system random generator.
std::string generate();

// The token form of 32 given bytes (exposed so that tests can drive the
// encoding and the fallback). `bytes` must hold exactly 32 bytes.
std::string fromBytes(const std::vector<std::uint8_t>& bytes);

// generate() with an injectable cryptographic source: when `source` returns
// none, the fallback generator fills the bytes.
std::string generate(const std::function<std::optional<std::vector<std::uint8_t>>()>& source);

// Compares two texts in time that depends only on the longer length: the
// accumulator starts with the XOR of the lengths and ORs in the XOR of every
// byte pair (0 past the end of the shorter text); equal when it ends at zero.
bool equal(std::string_view a, std::string_view b);

}  // namespace mcpkit::MCPToken
