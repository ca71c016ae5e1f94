// Decoding arbitrary server bytes never crashes and always yields valid
// UTF-8; the decoded text, encoded again, decodes to itself whenever it holds
// no NUL, CR or LF (which a shifted run may not carry); mailbox() either
// throws the one documented error or returns a quoted string.
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "MailCore/Common/MailError.h"
#include "MailCore/Common/UTF8.h"
#include "MailCore/IMAP/IMAPQuote.h"
#include "MailCore/IMAP/ModifiedUTF7.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::string_view input(reinterpret_cast<const char*>(data), size);
    std::string decoded = mailcore::ModifiedUTF7::decode(input);
    if (!mailcore::utf8::isValid(decoded)) std::abort();
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
