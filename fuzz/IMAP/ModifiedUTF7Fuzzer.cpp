// Decoding arbitrary server bytes never crashes and always yields valid
// UTF-8; the decoded text, encoded again, decodes to itself whenever it holds
// no NUL, CR or LF (which a shifted run may not carry); mailbox() either
// throws the one documented error or returns a quoted string.
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "MailCore/Common/MailError.h"
#include "MailCore/IMAP/IMAPQuote.h"
#include "MailCore/IMAP/ModifiedUTF7.h"

namespace {

bool isValidUTF8(std::string_view s) {
    std::size_t i = 0;
    while (i < s.size()) {
        auto c = static_cast<unsigned char>(s[i]);
        int extra = 0;
        std::uint32_t v = c;
        if (c >= 0x80) {
            if (c >= 0xC2 && c <= 0xDF)
                extra = 1, v = c & 0x1F;
            else if (c >= 0xE0 && c <= 0xEF)
                extra = 2, v = c & 0x0F;
            else if (c >= 0xF0 && c <= 0xF4)
                extra = 3, v = c & 0x07;
            else
                return false;
        }
        if (i + extra >= s.size() && extra > 0) return false;
        for (int k = 1; k <= extra; ++k) {
            auto d = static_cast<unsigned char>(s[i + k]);
            if ((d & 0xC0) != 0x80) return false;
            v = (v << 6) | (d & 0x3F);
        }
        if ((extra == 2 && v < 0x800) || (extra == 3 && (v < 0x10000 || v > 0x10FFFF)) ||
            (v >= 0xD800 && v <= 0xDFFF)) {
            return false;
        }
        i += extra + 1;
    }
    return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::string_view input(reinterpret_cast<const char*>(data), size);
    std::string decoded = mailcore::ModifiedUTF7::decode(input);
    if (!isValidUTF8(decoded)) std::abort();
    if (decoded.find_first_of(std::string_view("\0\r\n", 3)) == std::string::npos) {
        if (mailcore::ModifiedUTF7::decode(mailcore::ModifiedUTF7::encode(decoded)) != decoded) {
            std::abort();
        }
    }
    try {
        std::string wire = mailcore::IMAPQuote::mailbox(input);
        if (wire.size() < 2 || wire.front() != '"' || wire.back() != '"') std::abort();
    } catch (const mailcore::MailError& error) {
        if (error.detail() != "invalid mailbox name") std::abort();
    }
    return 0;
}
