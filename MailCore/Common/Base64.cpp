#include "MailCore/Common/Base64.h"

#include <openssl/evp.h>

namespace mailcore {

std::string base64Encode(std::string_view bytes) {
    std::string out(4 * ((bytes.size() + 2) / 3) + 1, '\0');
    const int n = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(out.data()),
                                  reinterpret_cast<const unsigned char*>(bytes.data()),
                                  static_cast<int>(bytes.size()));
    out.resize(static_cast<std::size_t>(n));
    return out;
}

std::optional<std::string> base64Decode(std::string_view text) {
    if (text.size() % 4 != 0) return std::nullopt;
    for (char c : text) {
        if (c == ' ' || c == '\t' || c == '\r' || c == '\n') return std::nullopt;
    }
    std::string out(text.size() / 4 * 3 + 1, '\0');
    const int n = EVP_DecodeBlock(reinterpret_cast<unsigned char*>(out.data()),
                                  reinterpret_cast<const unsigned char*>(text.data()),
                                  static_cast<int>(text.size()));
    if (n < 0) return std::nullopt;
    std::size_t size = static_cast<std::size_t>(n);
    // EVP_DecodeBlock counts the padding as zero bytes.
    if (!text.empty() && text.back() == '=') --size;
    if (text.size() >= 2 && text[text.size() - 2] == '=') --size;
    out.resize(size);
    return out;
}

}  // namespace mailcore
