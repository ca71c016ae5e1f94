// Feeds arbitrary bytes through the parse-to-index path: MIME parsing, body
// selection, charset conversion and snippets, then the mapping to the
// store's records. Checks the invariants every caller relies on: text is
// valid UTF-8, limits hold, part ids are never empty.
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <nlohmann/json.hpp>
#include <string_view>

#include "MailCore/Common/Json.h"
#include "MailCore/Common/UTF8.h"
#include "MailCore/MIME/MessageIngestor.h"
#include "MailCore/MIME/MessageParser.h"

namespace {

// An in-memory store that every input is filed into; replaced every 50
// inputs so that its size (and the time per input) stays small.
struct IndexTarget {
    mailcore::SQLiteMailStore store{mailcore::StoreLocation::inMemory()};
    mailcore::AccountID account{"fuzz"};
    mailcore::FolderID folder;
    std::uint32_t nextUID = 1;

    IndexTarget() {
        store.saveAccount(account, mailcore::Json::object(), mailcore::dateFromSeconds(0));
        folder = store.createFolder(
            account, mailcore::FolderListing{"INBOX", "/", mailcore::FolderRole::inbox, {}});
    }
};

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
    check(utf8::isValid(m.subject));
    check(utf8::isValid(m.text));
    check(!m.html || utf8::isValid(*m.html));
    check(utf8::isValid(m.snippet));
    check(m.text.size() <= parser.limits().maxBodyBytes);
    check(m.parts.size() <= parser.limits().maxParts);
    check(m.attachments.size() <= parser.limits().maxAttachments);
    for (const auto& a : m.attachments) {
        check(!a.partID.empty());
        check(!a.filename.empty() && utf8::isValid(a.filename));
        check(a.filename.find('/') == std::string::npos);
        check(a.size >= 0);
    }
    for (const auto* list : {&m.from, &m.to, &m.cc, &m.bcc, &m.replyTo}) {
        for (const auto& address : *list)
            check(utf8::isValid(address.name) && utf8::isValid(address.email));
    }

    // Index: map to the store's records and file them.
    static std::unique_ptr<IndexTarget> current;
    static int filed = 0;
    if (!current || ++filed % 50 == 0) current = std::make_unique<IndexTarget>();
    IndexTarget& target = *current;
    IncomingMessage incoming{
        target.folder, IMAPUID(target.nextUID++), {}, std::nullopt, std::nullopt};
    PreparedMessage prepared = prepareMessage(m, target.account, incoming, dateFromSeconds(0));
    check(prepared.attachments.size() == m.attachments.size());
    std::vector<PreparedMessage> batch;
    batch.push_back(std::move(prepared));
    MessageIngestor ingestor(target.store);
    const auto ids = ingestor.file(std::move(batch));
    check(ids.size() == 1 && target.store.message(ids[0]).has_value());
    return 0;
}
