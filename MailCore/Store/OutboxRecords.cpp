#include "MailCore/Store/OutboxRecords.h"

#include <algorithm>
#include <array>
#include <nlohmann/json.hpp>

#include "MailCore/Common/Base64.h"
#include "MailCore/Common/Random.h"
#include "MailCore/Store/StorageCodec.h"

namespace mailcore {
namespace {

constexpr std::array<std::string_view, 5> kindNames{"setFlags", "move", "delete", "send",
                                                    "saveDraft"};
constexpr std::array<std::string_view, 3> stateNames{"queued", "inFlight", "failed"};

// Thrown inside the decoders; each public decoder turns it into the error
// naming its own type.
struct Malformed {};

const Json& field(const Json& json, const char* name) {
    if (!json.is_object()) throw Malformed{};
    auto it = json.find(name);
    if (it == json.end()) throw Malformed{};
    return *it;
}

bool hasValue(const Json& json, const char* name) {
    auto it = json.find(name);
    return it != json.end() && !it->is_null();
}

std::string text(const Json& json, const char* name) {
    const Json& v = field(json, name);
    if (!v.is_string()) throw Malformed{};
    return v.get<std::string>();
}

std::int64_t integer(const Json& json, const char* name) {
    const Json& v = field(json, name);
    if (!v.is_number_integer()) throw Malformed{};
    return v.get<std::int64_t>();
}

Json addresses(const std::vector<MailAddress>& list) {
    Json array = Json::array();
    for (const auto& a : list) array.push_back(StorageCodec::toJson(a));
    return array;
}

std::vector<MailAddress> addressesFrom(const Json& json, const char* name) {
    std::vector<MailAddress> out;
    if (!hasValue(json, name)) return out;
    const Json& v = field(json, name);
    if (!v.is_array()) throw Malformed{};
    try {
        for (const auto& item : v) out.push_back(StorageCodec::addressFromJson(item));
    } catch (const MailError&) {
        throw Malformed{};
    }
    return out;
}

Json ids(const std::vector<InternetMessageID>& list) {
    Json array = Json::array();
    for (const auto& id : list) array.push_back(id.value());
    return array;
}

std::vector<InternetMessageID> idsFrom(const Json& json, const char* name) {
    std::vector<InternetMessageID> out;
    if (!hasValue(json, name)) return out;
    const Json& v = field(json, name);
    if (!v.is_array()) throw Malformed{};
    for (const auto& item : v) {
        if (!item.is_string()) throw Malformed{};
        auto id = InternetMessageID::normalizing(item.get<std::string>());
        if (!id) throw Malformed{};
        out.push_back(*id);
    }
    return out;
}

std::optional<InternetMessageID> optionalID(const Json& json, const char* name) {
    if (!hasValue(json, name)) return std::nullopt;
    auto id = InternetMessageID::normalizing(text(json, name));
    if (!id) throw Malformed{};
    return id;
}

std::vector<std::string> strings(const Json& json, const char* name) {
    std::vector<std::string> out;
    if (!hasValue(json, name)) return out;
    const Json& v = field(json, name);
    if (!v.is_array()) throw Malformed{};
    for (const auto& item : v) {
        if (!item.is_string()) throw Malformed{};
        out.push_back(item.get<std::string>());
    }
    return out;
}

void addUnique(std::vector<std::string>& list, const std::string& value) {
    if (std::find(list.begin(), list.end(), value) == list.end()) list.push_back(value);
}

void removeValue(std::vector<std::string>& list, const std::string& value) {
    list.erase(std::remove(list.begin(), list.end(), value), list.end());
}

OutgoingMessage messageFrom(const Json& json) {
    if (!json.is_object()) throw Malformed{};
    OutgoingMessage m;
    m.messageID = optionalID(json, "messageID");
    m.from = addressesFrom(json, "from");
    m.to = addressesFrom(json, "to");
    m.cc = addressesFrom(json, "cc");
    m.bcc = addressesFrom(json, "bcc");
    m.replyTo = addressesFrom(json, "replyTo");
    m.subject = text(json, "subject");
    m.textBody = text(json, "textBody");
    if (hasValue(json, "htmlBody")) m.htmlBody = text(json, "htmlBody");
    m.inReplyTo = idsFrom(json, "inReplyTo");
    m.references = idsFrom(json, "references");
    // Messages stored before attachments existed have none.
    if (json.contains("attachments")) {
        const Json& list = json.at("attachments");
        if (!list.is_array()) throw Malformed{};
        for (const Json& a : list) {
            if (!a.is_object()) throw Malformed{};
            OutgoingMessageAttachment out;
            out.name = text(a, "name");
            out.mimeType = text(a, "type");
            auto bytes = base64Decode(text(a, "data"));
            if (!bytes) throw Malformed{};
            out.data = std::move(*bytes);
            const Json& isInline = field(a, "inline");
            if (!isInline.is_boolean()) throw Malformed{};
            out.isInline = isInline.get<bool>();
            if (hasValue(a, "contentID")) out.contentID = text(a, "contentID");
            m.attachments.push_back(std::move(out));
        }
    }
    return m;
}

FlagChange flagsFrom(const Json& json) {
    FlagChange c;
    c.addSystem = integer(json, "addSystem");
    c.removeSystem = integer(json, "removeSystem");
    c.addKeywords = strings(json, "addKeywords");
    c.removeKeywords = strings(json, "removeKeywords");
    return c;
}

OutboxMessageRef refFrom(const Json& json) {
    OutboxMessageRef r;
    r.messageID = MessageID(integer(json, "messageID"));
    r.folderID = FolderID(integer(json, "folderID"));
    if (hasValue(json, "uid")) {
        std::int64_t uid = integer(json, "uid");
        if (uid < 0 || uid > 0xFFFFFFFFLL) throw Malformed{};
        r.uid = IMAPUID(static_cast<std::uint32_t>(uid));
    }
    r.internetMessageID = optionalID(json, "internetMessageID");
    return r;
}

OutboxSend sendFrom(const Json& json) {
    OutboxSend s;
    s.message = messageFrom(field(json, "message"));
    if (hasValue(json, "draftID")) s.draftID = DraftID(text(json, "draftID"));
    const Json& save = field(json, "saveToSent");
    if (!save.is_boolean()) throw Malformed{};
    s.saveToSent = save.get<bool>();
    return s;
}

template <class T, class F>
T decodeAs(const Json& json, std::string_view typeName, F&& decode) {
    try {
        return decode(json);
    } catch (const Malformed&) {
    } catch (const nlohmann::json::exception&) {
    }
    throw MailError::storage(StorageFailureKind::other,
                             "stored value is not decodable as " + std::string(typeName));
}

}  // namespace

OutboxItemID generateOutboxItemID() { return OutboxItemID(makeUUID()); }

// ---- OutgoingMessage ----

Json OutgoingMessage::toJson() const {
    Json j = Json::object();
    if (messageID) j["messageID"] = messageID->value();
    j["from"] = addresses(from);
    j["to"] = addresses(to);
    j["cc"] = addresses(cc);
    j["bcc"] = addresses(bcc);
    j["replyTo"] = addresses(replyTo);
    j["subject"] = subject;
    j["textBody"] = textBody;
    if (htmlBody) j["htmlBody"] = *htmlBody;
    j["inReplyTo"] = ids(inReplyTo);
    j["references"] = ids(references);
    if (!attachments.empty()) {
        Json list = Json::array();
        for (const auto& a : attachments) {
            Json item = {{"name", a.name},
                         {"type", a.mimeType},
                         {"data", base64Encode(a.data)},
                         {"inline", a.isInline}};
            if (a.contentID) item["contentID"] = *a.contentID;
            list.push_back(std::move(item));
        }
        j["attachments"] = std::move(list);
    }
    return j;
}

OutgoingMessage OutgoingMessage::fromJson(const Json& json) {
    return decodeAs<OutgoingMessage>(json, "OutgoingMessage", messageFrom);
}

// ---- FlagChange ----

FlagChange FlagChange::folded(const FlagChange& then) const {
    FlagChange out;
    out.addSystem = (addSystem & ~then.removeSystem) | then.addSystem;
    out.removeSystem = (removeSystem & ~then.addSystem) | then.removeSystem;
    out.addKeywords = addKeywords;
    out.removeKeywords = removeKeywords;
    for (const auto& k : then.removeKeywords) {
        removeValue(out.addKeywords, k);
        addUnique(out.removeKeywords, k);
    }
    for (const auto& k : then.addKeywords) {
        removeValue(out.removeKeywords, k);
        addUnique(out.addKeywords, k);
    }
    return out;
}

MessageFlags FlagChange::appliedTo(MessageFlags flags) const {
    flags.system = (flags.system & ~removeSystem) | addSystem;
    for (const auto& k : removeKeywords) removeValue(flags.keywords, k);
    for (const auto& k : addKeywords) addUnique(flags.keywords, k);
    return flags;
}

Json FlagChange::toJson() const {
    Json j = Json::object();
    j["addSystem"] = addSystem;
    j["removeSystem"] = removeSystem;
    j["addKeywords"] = addKeywords;
    j["removeKeywords"] = removeKeywords;
    return j;
}

FlagChange FlagChange::fromJson(const Json& json) {
    return decodeAs<FlagChange>(json, "FlagChange", flagsFrom);
}

// ---- OutboxMessageRef, OutboxSend ----

Json OutboxMessageRef::toJson() const {
    Json j = Json::object();
    j["messageID"] = messageID.value;
    j["folderID"] = folderID.value;
    if (uid) j["uid"] = uid->value;
    if (internetMessageID) j["internetMessageID"] = internetMessageID->value();
    return j;
}

OutboxMessageRef OutboxMessageRef::fromJson(const Json& json) {
    return decodeAs<OutboxMessageRef>(json, "OutboxMessageRef", refFrom);
}

Json OutboxSend::toJson() const {
    Json j = Json::object();
    j["message"] = message.toJson();
    if (draftID) j["draftID"] = draftID->value;
    j["saveToSent"] = saveToSent;
    return j;
}

OutboxSend OutboxSend::fromJson(const Json& json) {
    return decodeAs<OutboxSend>(json, "OutboxSend", sendFrom);
}

// ---- OutboxOperation ----

OutboxOperation OutboxOperation::setFlags(OutboxMessageRef message, FlagChange change) {
    OutboxOperation op;
    op.kind_ = Kind::setFlags;
    op.message_ = std::move(message);
    op.flags_ = std::move(change);
    return op;
}

OutboxOperation OutboxOperation::move(OutboxMessageRef message, FolderID destination) {
    OutboxOperation op;
    op.kind_ = Kind::move;
    op.message_ = std::move(message);
    op.destination_ = destination;
    return op;
}

OutboxOperation OutboxOperation::deleteMessage(OutboxMessageRef message) {
    OutboxOperation op;
    op.kind_ = Kind::deleteMessage;
    op.message_ = std::move(message);
    return op;
}

OutboxOperation OutboxOperation::send(OutboxSend send) {
    OutboxOperation op;
    op.kind_ = Kind::send;
    op.send_ = std::move(send);
    return op;
}

OutboxOperation OutboxOperation::saveDraft(DraftID draft, OutgoingMessage message) {
    OutboxOperation op;
    op.kind_ = Kind::saveDraft;
    op.draft_ = OutboxDraftSave{std::move(draft), std::move(message)};
    return op;
}

std::optional<MessageID> OutboxOperation::targetMessageID() const {
    if (message_) return message_->messageID;
    return std::nullopt;
}

std::optional<FolderID> OutboxOperation::targetFolderID() const { return destination_; }

std::optional<DraftID> OutboxOperation::draftID() const {
    if (send_) return send_->draftID;
    if (draft_) return draft_->draftID;
    return std::nullopt;
}

Json OutboxOperation::toJson() const {
    Json j = Json::object();
    j["kind"] = std::string(rawValue(kind_));
    switch (kind_) {
        case Kind::setFlags:
            j["message"] = message().toJson();
            j["flags"] = flags().toJson();
            break;
        case Kind::move:
            j["message"] = message().toJson();
            j["destination"] = destination().value;
            break;
        case Kind::deleteMessage:
            j["message"] = message().toJson();
            break;
        case Kind::send:
            j["send"] = sendPayload().toJson();
            break;
        case Kind::saveDraft:
            j["draftID"] = draftSave().draftID.value;
            j["message"] = draftSave().message.toJson();
            break;
    }
    return j;
}

OutboxOperation OutboxOperation::fromJson(const Json& json) {
    return decodeAs<OutboxOperation>(json, "OutboxOperation", [](const Json& j) {
        auto kind = outboxKindFromRaw(text(j, "kind"));
        if (!kind) throw Malformed{};
        switch (*kind) {
            case Kind::setFlags:
                return setFlags(refFrom(field(j, "message")), flagsFrom(field(j, "flags")));
            case Kind::move:
                return move(refFrom(field(j, "message")), FolderID(integer(j, "destination")));
            case Kind::deleteMessage:
                return deleteMessage(refFrom(field(j, "message")));
            case Kind::send:
                return send(sendFrom(field(j, "send")));
            case Kind::saveDraft:
                return saveDraft(DraftID(text(j, "draftID")), messageFrom(field(j, "message")));
        }
        throw Malformed{};
    });
}

std::string_view rawValue(OutboxOperation::Kind kind) {
    return kindNames.at(static_cast<std::size_t>(kind));
}

std::optional<OutboxOperation::Kind> outboxKindFromRaw(std::string_view raw) {
    for (std::size_t i = 0; i < kindNames.size(); ++i) {
        if (kindNames[i] == raw) return static_cast<OutboxOperation::Kind>(i);
    }
    return std::nullopt;
}

std::string_view rawValue(OutboxItemState state) {
    return stateNames.at(static_cast<std::size_t>(state));
}

std::optional<OutboxItemState> outboxStateFromRaw(std::string_view raw) {
    for (std::size_t i = 0; i < stateNames.size(); ++i) {
        if (stateNames[i] == raw) return static_cast<OutboxItemState>(i);
    }
    return std::nullopt;
}

MailError mayHaveBeenSentError() {
    return MailError::network(NetworkFailureKind::outcomeUnknown,
                              std::string(OutboxText::mayHaveBeenSent));
}

bool isMayHaveBeenSent(const std::optional<MailError>& error) {
    return error && *error == mayHaveBeenSentError();
}

MailError sentNotVerifiedError() {
    return MailError::network(NetworkFailureKind::outcomeUnknown,
                              std::string(OutboxText::sentNotVerified));
}

}  // namespace mailcore
