// JSON for the whole code base: nlohmann's ordered_json (members keep their
// insertion order). Headers include only the forward declarations; the full
// library is included by the .cpp files that need it.
#pragma once

#include <cstddef>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <string_view>

namespace mailcore {

using Json = nlohmann::ordered_json;

// Compact JSON text. Invalid UTF-8 inside strings (text that came from mail)
// becomes U+FFFD instead of failing; slashes are not escaped.
std::string encodeJson(const Json& value);

// The deepest nesting of arrays and objects that parsing accepts. Deeper
// text is refused before it is parsed: the library copies nested values
// recursively while it builds objects, so a 200 KB line of brackets would
// otherwise overflow the stack.
inline constexpr std::size_t maxJsonDepth = 256;

// Parses JSON text; a bare scalar is accepted. Throws nlohmann's parse_error
// (a std::exception), also for nesting deeper than maxJsonDepth.
Json parseJson(std::string_view text);

// Parses JSON text; returns false (and leaves `out` alone) when it is not JSON
// or nests deeper than maxJsonDepth.
bool tryParseJson(std::string_view text, Json& out);

}  // namespace mailcore
