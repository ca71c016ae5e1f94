// Base64 (RFC 4648, standard alphabet, padded) for binary values carried in
// JSON and in protocol exchanges. Pure functions; thread-safe.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace mailcore {

std::string base64Encode(std::string_view bytes);
// None when `text` is not padded base64 (white space is not allowed).
std::optional<std::string> base64Decode(std::string_view text);

}  // namespace mailcore
