#include "MailCore/Common/Json.h"

#include <nlohmann/json.hpp>

namespace mailcore {

namespace {

// The offset of the first bracket that opens a level deeper than
// maxJsonDepth, or npos. Brackets inside strings do not count; the text need
// not be valid JSON (the parser judges that afterwards).
std::size_t tooDeepAt(std::string_view text) {
    std::size_t depth = 0;
    bool inString = false;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const char c = text[i];
        if (inString) {
            if (c == '\\') {
                ++i;
            } else if (c == '"') {
                inString = false;
            }
        } else if (c == '"') {
            inString = true;
        } else if (c == '[' || c == '{') {
            if (++depth > maxJsonDepth) return i;
        } else if ((c == ']' || c == '}') && depth > 0) {
            --depth;
        }
    }
    return std::string_view::npos;
}

}  // namespace

std::string encodeJson(const Json& value) {
    return value.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

Json parseJson(std::string_view text) {
    if (const std::size_t at = tooDeepAt(text); at != std::string_view::npos) {
        throw Json::parse_error::create(101, at + 1, "JSON nesting is deeper than the limit",
                                        nullptr);
    }
    return Json::parse(text.begin(), text.end());
}

bool tryParseJson(std::string_view text, Json& out) {
    if (tooDeepAt(text) != std::string_view::npos) return false;
    Json parsed = Json::parse(text.begin(), text.end(), nullptr, /*allow_exceptions=*/false);
    if (parsed.is_discarded()) return false;
    out = std::move(parsed);
    return true;
}

}  // namespace mailcore
