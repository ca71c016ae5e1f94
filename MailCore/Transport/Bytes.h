// Bytes: the byte buffers that streams and transports move. Text helpers
// convert without any character-set interpretation.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace mailcore {

using Bytes = std::vector<std::uint8_t>;

inline Bytes toBytes(std::string_view text) { return Bytes(text.begin(), text.end()); }

inline std::string bytesToString(const Bytes& bytes) {
    return std::string(bytes.begin(), bytes.end());
}

}  // namespace mailcore
