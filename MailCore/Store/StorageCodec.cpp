#include "MailCore/Store/StorageCodec.h"

#include <nlohmann/json.hpp>

#include "MailCore/Common/MailError.h"

namespace mailcore {
namespace {

[[noreturn]] void notDecodable(std::string_view typeName) {
    throw MailError::storage(StorageFailureKind::other,
                             "stored value is not decodable as " + std::string(typeName));
}

}  // namespace

std::string StorageCodec::encodeString(const std::vector<std::string>& values) {
    Json array = Json::array();
    for (const auto& v : values) array.push_back(v);
    return encodeJson(array);
}

std::string StorageCodec::encodeString(const std::vector<MailAddress>& addresses) {
    Json array = Json::array();
    for (const auto& a : addresses) array.push_back(toJson(a));
    return encodeJson(array);
}

std::string StorageCodec::encodeString(const Json& value) { return encodeJson(value); }

std::vector<std::string> StorageCodec::decodeStrings(std::string_view text) {
    Json json;
    if (!tryParseJson(text, json) || !json.is_array()) notDecodable("Array<String>");
    std::vector<std::string> out;
    out.reserve(json.size());
    for (const auto& item : json) {
        if (!item.is_string()) notDecodable("Array<String>");
        out.push_back(item.get<std::string>());
    }
    return out;
}

Json StorageCodec::toJson(const MailAddress& address) {
    Json json = Json::object();
    json["name"] = address.name;
    json["email"] = address.email;
    return json;
}

MailAddress StorageCodec::addressFromJson(const Json& json) {
    if (!json.is_object()) notDecodable("MailAddress");
    MailAddress address;
    auto email = json.find("email");
    if (email == json.end() || !email->is_string()) notDecodable("MailAddress");
    address.email = email->get<std::string>();
    auto name = json.find("name");
    if (name != json.end() && !name->is_null()) {
        if (!name->is_string()) notDecodable("MailAddress");
        address.name = name->get<std::string>();
    }
    return address;
}

std::vector<MailAddress> StorageCodec::decodeAddresses(std::string_view text) {
    Json json;
    if (!tryParseJson(text, json) || !json.is_array()) notDecodable("Array<MailAddress>");
    std::vector<MailAddress> out;
    out.reserve(json.size());
    try {
        for (const auto& item : json) out.push_back(addressFromJson(item));
    } catch (const MailError&) {
        notDecodable("Array<MailAddress>");
    }
    return out;
}

Json StorageCodec::decodeJson(std::string_view text, std::string_view typeName) {
    Json json;
    if (!tryParseJson(text, json)) notDecodable(typeName);
    return json;
}

std::vector<std::uint8_t> StorageCodec::encodeBytes(const Json& value) {
    std::string text = encodeJson(value);
    return std::vector<std::uint8_t>(text.begin(), text.end());
}

Json StorageCodec::decodeBytes(const std::vector<std::uint8_t>& bytes, std::string_view typeName) {
    return decodeJson(std::string_view(reinterpret_cast<const char*>(bytes.data()), bytes.size()),
                      typeName);
}

}  // namespace mailcore
