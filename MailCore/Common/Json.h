// JSON for the whole code base: nlohmann's ordered_json (members keep their
// insertion order). Headers include only the forward declarations; the full
// library is included by the .cpp files that need it.
#pragma once

#include <nlohmann/json_fwd.hpp>

#include <string>
#include <string_view>

namespace mailcore {

using Json = nlohmann::ordered_json;

// Compact JSON text. Invalid UTF-8 inside strings (text that came from mail)
// becomes U+FFFD instead of failing; slashes are not escaped.
std::string encodeJson(const Json& value);

// Parses JSON text; a bare scalar is accepted. Throws JsonParseError.
Json parseJson(std::string_view text);

// Parses JSON text; returns false (and leaves `out` alone) when it is not JSON.
bool tryParseJson(std::string_view text, Json& out);

}  // namespace mailcore
