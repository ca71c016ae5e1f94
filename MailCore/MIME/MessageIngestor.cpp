#include "MailCore/MIME/MessageIngestor.h"

#include <nlohmann/json.hpp>

namespace mailcore {

namespace {

std::vector<std::uint8_t> encodeStructure(const ParsedMessage& parsed) {
    Json parts = Json::array();
    for (const auto& p : parsed.parts) {
        Json part = {{"partID", p.partID}, {"mimeType", p.mimeType}, {"size", p.size}};
        if (!p.charset.empty()) part["charset"] = p.charset;
        if (!p.disposition.empty()) part["disposition"] = p.disposition;
        parts.push_back(std::move(part));
    }
    const std::string text = encodeJson(parts);
    return std::vector<std::uint8_t>(text.begin(), text.end());
}

}  // namespace

ThreadingKeys threadingKeys(const ParsedMessage& parsed) {
    ThreadingKeys keys;
    if (parsed.messageID) keys.messageID = InternetMessageID::normalizing(*parsed.messageID);
    for (const auto& id : parsed.inReplyTo) {
        if (auto valid = InternetMessageID::normalizing(id)) keys.inReplyTo.push_back(*valid);
    }
    for (const auto& id : parsed.references) {
        if (auto valid = InternetMessageID::normalizing(id)) keys.references.push_back(*valid);
    }
    keys.normalizedSubject = ThreadingKeys::normalizeSubject(parsed.subject);
    return keys;
}

PreparedMessage prepareMessage(const ParsedMessage& parsed, const AccountID& account,
                               const IncomingMessage& incoming, Date now) {
    PreparedMessage out;
    MessageIndexFields& f = out.fields;
    f.accountID = account;
    f.folderID = incoming.folderID;
    f.uid = incoming.uid;
    f.threading = threadingKeys(parsed);
    f.subject = parsed.subject;
    f.from = parsed.from;
    f.to = parsed.to;
    f.cc = parsed.cc;
    f.replyTo = parsed.replyTo;
    f.date = parsed.date.value_or(incoming.internalDate.value_or(now));
    f.internalDate = incoming.internalDate;
    f.flags = incoming.flags;
    f.size = parsed.size;
    f.hasAttachments = parsed.hasAttachments;
    f.snippet = parsed.snippet;  // also when empty: the body has no visible text
    f.modSeq = incoming.modSeq;

    StoredBody& b = out.body;
    b.text = parsed.text;
    b.html = parsed.html;
    b.structure = encodeStructure(parsed);
    b.isTruncated = parsed.isTruncated;
    b.fetchedAt = now;
    b.bytes =
        static_cast<std::int64_t>(parsed.text.size() + (parsed.html ? parsed.html->size() : 0));

    out.attachments.reserve(parsed.attachments.size());
    for (const auto& a : parsed.attachments) {
        AttachmentInfo info;
        info.partID = PartID(a.partID);
        info.filename = a.filename;
        info.mimeType = a.mimeType;
        info.size = a.size;
        info.contentID = a.contentID;
        info.isInline = a.isInline;
        out.attachments.push_back(std::move(info));
    }
    return out;
}

MessageIngestor::MessageIngestor(SQLiteMailStore& store, MessageParserLimits limits, Clock clock)
    : store_(store), parser_(limits), clock_(std::move(clock)) {}

MessageID MessageIngestor::ingest(const AccountID& account, const IncomingMessage& incoming,
                                  std::string_view raw) {
    const ParsedMessage parsed = parser_.parse(raw);
    std::vector<PreparedMessage> batch;
    batch.push_back(prepareMessage(parsed, account, incoming, clock_()));
    return file(std::move(batch)).front();
}

std::vector<MessageID> MessageIngestor::file(
    std::vector<PreparedMessage> batch,
    const std::function<void(SQLiteDatabase&, const std::vector<MessageID>&)>& inSameTransaction) {
    if (batch.empty()) return {};
    return store_.write([&](SQLiteDatabase& db) {
        std::vector<MessageIndexFields> fields;
        fields.reserve(batch.size());
        for (auto& m : batch) fields.push_back(std::move(m.fields));
        const std::vector<MessageID> ids = store_.upsertSync(fields);
        std::vector<std::pair<MessageID, StoredBody>> bodies;
        bodies.reserve(batch.size());
        for (std::size_t i = 0; i < batch.size(); ++i)
            bodies.emplace_back(ids[i], std::move(batch[i].body));
        store_.saveBodies(bodies);
        for (std::size_t i = 0; i < batch.size(); ++i) {
            store_.replaceAttachments(ids[i], batch[i].attachments);
        }
        if (inSameTransaction) inSameTransaction(db, ids);
        return ids;
    });
}

}  // namespace mailcore
