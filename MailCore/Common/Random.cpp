#include "MailCore/Common/Random.h"

#include <sys/random.h>

#include <cerrno>
#include <stdexcept>

namespace mailcore {

std::vector<std::uint8_t> randomBytes(std::size_t count) {
    std::vector<std::uint8_t> out(count);
    std::size_t filled = 0;
    while (filled < count) {
        ssize_t n = getrandom(out.data() + filled, count - filled, 0);
        if (n < 0) {
            if (errno == EINTR) continue;
            throw std::runtime_error("getrandom failed");
        }
        filled += static_cast<std::size_t>(n);
    }
    return out;
}

std::string makeUUID() {
    auto b = randomBytes(16);
    b[6] = static_cast<std::uint8_t>((b[6] & 0x0F) | 0x40);
    b[8] = static_cast<std::uint8_t>((b[8] & 0x3F) | 0x80);
    static const char hex[] = "0123456789ABCDEF";
    std::string s;
    s.reserve(36);
    for (int i = 0; i < 16; ++i) {
        if (i == 4 || i == 6 || i == 8 || i == 10) s.push_back('-');
        s.push_back(hex[b[i] >> 4]);
        s.push_back(hex[b[i] & 0x0F]);
    }
    return s;
}

}  // namespace mailcore
