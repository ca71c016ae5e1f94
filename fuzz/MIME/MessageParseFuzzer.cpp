// Feeds arbitrary bytes through the parse-to-index path: MIME parsing, body
// selection, charset conversion and snippets, then the mapping to the
// store's records. Checks the invariants every caller relies on: text is
// valid UTF-8, limits hold, part ids are never empty.
#include "MailCore/MIME/MIMEText.h"
#include "MailCore/MIME/MessageParser.h"

#include <cstdint>
#include <cstdlib>
#include <string_view>

namespace {

void check(bool condition) {
    if (!condition) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace mailcore;
    if (size == 0) return 0;
    static const MessageParser parser([] {
        MessageParserLimits limits;
        limits.maxParts = 200;
        limits.maxBodyBytes = 256 * 1024;
        return limits;
    }());
    const std::string_view raw(reinterpret_cast<const char*>(data), size);
    const ParsedMessage m = parser.parse(raw);
    check(isValidUTF8(m.subject));
    check(isValidUTF8(m.text));
    check(!m.html || isValidUTF8(*m.html));
    check(isValidUTF8(m.snippet));
    check(m.text.size() <= parser.limits().maxBodyBytes);
    check(m.parts.size() <= parser.limits().maxParts);
    check(m.attachments.size() <= parser.limits().maxAttachments);
    for (const auto& a : m.attachments) {
        check(!a.partID.empty());
        check(!a.filename.empty() && isValidUTF8(a.filename));
        check(a.filename.find('/') == std::string::npos);
        check(a.size >= 0);
    }
    for (const auto* list : {&m.from, &m.to, &m.cc, &m.bcc, &m.replyTo}) {
        for (const auto& address : *list) check(isValidUTF8(address.name) && isValidUTF8(address.email));
    }
    return 0;
}
