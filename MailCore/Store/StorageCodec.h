// StorageCodec: the JSON text kept in the store's text columns (address
// lists, keyword lists, Message-ID lists, folder attributes) and the JSON
// bytes kept in its BLOB columns. A stored value that does not decode fails
// with storage(other, "stored value is not decodable as <type>").
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "MailCore/Common/Json.h"
#include "MailCore/Store/StoreTypes.h"

namespace mailcore {

struct StorageCodec {
    static std::string encodeString(const std::vector<std::string>& values);
    static std::string encodeString(const std::vector<MailAddress>& addresses);
    static std::string encodeString(const Json& value);

    // "Array<String>"
    static std::vector<std::string> decodeStrings(std::string_view text);
    // "Array<MailAddress>"
    static std::vector<MailAddress> decodeAddresses(std::string_view text);
    // Any JSON; `typeName` names the expected type in the error.
    static Json decodeJson(std::string_view text, std::string_view typeName);

    static std::vector<std::uint8_t> encodeBytes(const Json& value);
    static Json decodeBytes(const std::vector<std::uint8_t>& bytes, std::string_view typeName);

    static Json toJson(const MailAddress& address);
    static MailAddress addressFromJson(const Json& json);  // throws on a wrong shape
};

}  // namespace mailcore
