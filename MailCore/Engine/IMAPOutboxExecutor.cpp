#include "MailCore/Engine/IMAPOutboxExecutor.h"

namespace mailcore {
namespace {

MailError rejected(std::string_view text) {
    return MailError::protocolViolation(ProtocolIssueKind::commandRejected, std::string(text));
}

}  // namespace

std::vector<std::string> imapFlags(std::int64_t system, const std::vector<std::string>& keywords) {
    static const std::pair<MessageFlags::System, const char*> names[] = {
        {MessageFlags::seen, "\\Seen"},
        {MessageFlags::answered, "\\Answered"},
        {MessageFlags::flagged, "\\Flagged"},
        {MessageFlags::deleted, "\\Deleted"},
        {MessageFlags::draft, "\\Draft"}};
    std::vector<std::string> out;
    for (const auto& [flag, name] : names)
        if ((system & flag) != 0) out.emplace_back(name);
    out.insert(out.end(), keywords.begin(), keywords.end());
    return out;
}

IMAPOutboxExecutor::IMAPOutboxExecutor(SQLiteMailStore& store, SessionMaker sessions,
                                       OutboxExecutor& others)
    : store_(store), sessions_(std::move(sessions)), others_(others) {}

OutboxResult IMAPOutboxExecutor::execute(const OutboxItem& item) {
    const auto kind = item.operation.kind();
    if (kind != OutboxOperation::Kind::setFlags && kind != OutboxOperation::Kind::move &&
        kind != OutboxOperation::Kind::deleteMessage)
        return others_.execute(item);
    std::unique_ptr<IMAPSession> session = sessions_(item.accountID);
    if (!session) return others_.execute(item);
    const OutboxResult result = apply(*session, item);
    session->logout();
    return result;
}

OutboxResult IMAPOutboxExecutor::apply(IMAPSession& session, const OutboxItem& item) {
    const OutboxMessageRef& ref = item.operation.message();
    if (!ref.uid) return OutboxResult::uidUnknown();
    const auto folder = store_.folder(ref.folderID);
    if (!folder) return OutboxResult::failed(rejected(OutboxText::messageGone));
    session.select(folder->path);
    const UIDSet uid(ref.uid->value);
    IMAPSearchCriteria criteria;
    criteria.uids(uid);
    if (session.search(criteria).isEmpty())
        return OutboxResult::failed(rejected(OutboxText::messageGone));

    const auto moveTo = [&](const FolderRecord& destination) {
        const IMAPCopyResult copy = session.move(uid, destination.path);
        if (!copy.destinationUIDs.isEmpty())
            store_.bindMovedMessage(ref.messageID, destination.id,
                                    IMAPUID(copy.destinationUIDs.ranges.front().lower));
    };
    switch (item.operation.kind()) {
        case OutboxOperation::Kind::setFlags: {
            const FlagChange& change = item.operation.flags();
            const auto add = imapFlags(change.addSystem, change.addKeywords);
            const auto remove = imapFlags(change.removeSystem, change.removeKeywords);
            if (!add.empty()) session.store(uid, IMAPFlagOperation::add, add);
            if (!remove.empty()) session.store(uid, IMAPFlagOperation::remove, remove);
            break;
        }
        case OutboxOperation::Kind::move: {
            const auto destination = store_.folder(item.operation.destination());
            if (!destination) return OutboxResult::failed(rejected(OutboxText::destinationMissing));
            moveTo(*destination);
            break;
        }
        default: {
            std::optional<FolderRecord> trash;
            for (auto& f : store_.folders(item.accountID))
                if (f.role == FolderRole::trash) trash = std::move(f);
            if (trash && trash->id != folder->id) {
                session.move(uid, trash->path);
            } else {
                session.store(uid, IMAPFlagOperation::add, {"\\Deleted"});
                session.expunge(uid);
            }
            // The Trash copy, if any, comes in with the next sync.
            store_.purgeMessage(ref.messageID);
            break;
        }
    }
    return OutboxResult::done();
}

}  // namespace mailcore
