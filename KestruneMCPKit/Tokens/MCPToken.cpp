#include "KestruneMCPKit/Tokens/MCPToken.h"

#include <openssl/evp.h>

#include <random>
#include <stdexcept>

#include "MailCore/Common/Random.h"

namespace mcpkit::MCPToken {

namespace {

std::optional<std::vector<std::uint8_t>> systemSource() {
    try {
        return mailcore::randomBytes(randomByteCount);
    } catch (const std::exception&) {
        return std::nullopt;
    }
}

std::vector<std::uint8_t> fallbackBytes() {
    std::random_device device;
    std::vector<std::uint8_t> bytes(randomByteCount);
    for (auto& b : bytes) b = static_cast<std::uint8_t>(device() & 0xFF);
    return bytes;
}

}  // namespace

std::string fromBytes(const std::vector<std::uint8_t>& bytes) {
    if (bytes.size() != randomByteCount) throw std::invalid_argument("token needs 32 bytes");
    unsigned char encoded[4 * ((randomByteCount + 2) / 3) + 1];
    int n = EVP_EncodeBlock(encoded, bytes.data(), static_cast<int>(bytes.size()));
    std::string out(prefix);
    for (int i = 0; i < n; ++i) {
        char c = static_cast<char>(encoded[i]);
        if (c == '+')
            c = '-';
        else if (c == '/')
            c = '_';
        else if (c == '=')
            continue;
        out.push_back(c);
    }
    return out;
}

std::string generate(const std::function<std::optional<std::vector<std::uint8_t>>()>& source) {
    auto bytes = source();
    if (!bytes || bytes->size() != randomByteCount) bytes = fallbackBytes();
    return fromBytes(*bytes);
}

std::string generate() { return generate(systemSource); }

bool equal(std::string_view a, std::string_view b) {
    const std::size_t n = a.size() > b.size() ? a.size() : b.size();
    // volatile keeps the compiler from ending the loop once a difference is seen.
    volatile std::size_t accumulator = a.size() ^ b.size();
    for (std::size_t i = 0; i < n; ++i) {
        unsigned char x = i < a.size() ? static_cast<unsigned char>(a[i]) : 0;
        unsigned char y = i < b.size() ? static_cast<unsigned char>(b[i]) : 0;
        accumulator = accumulator | static_cast<std::size_t>(x ^ y);
    }
    return accumulator == 0;
}

}  // namespace mcpkit::MCPToken
