#include "MailCore/Common/Json.h"

#include <nlohmann/json.hpp>

namespace mailcore {

std::string encodeJson(const Json& value) {
    return value.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

Json parseJson(std::string_view text) { return Json::parse(text.begin(), text.end()); }

bool tryParseJson(std::string_view text, Json& out) {
    Json parsed = Json::parse(text.begin(), text.end(), nullptr, /*allow_exceptions=*/false);
    if (parsed.is_discarded()) return false;
    out = std::move(parsed);
    return true;
}

}  // namespace mailcore
