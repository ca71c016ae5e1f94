#include "kestrune_app/Host/LocalDelivery.h"

#include "MailCore/MIME/OutgoingComposer.h"
#include "kestrune_app/Host/MailIngest.h"

namespace kestrune {

using namespace mailcore;

namespace {

MailError noOutgoingServer() {
    return MailError::unsupportedCapability(std::string(OutboxText::noAccountConfigured));
}

MailError accountGone() {
    return MailError::storage(StorageFailureKind::notFound,
                              std::string(OutboxText::accountNotFound));
}

}  // namespace

std::string composeOutgoing(const OutgoingMessage& message, Date date, bool asDraft) {
    return buildOutgoing(message, date, asDraft).data;
}

LocalDelivery::LocalDelivery(std::shared_ptr<SQLiteMailStore> store, Clock clock)
    : store_(std::move(store)), clock_(std::move(clock)) {}

std::vector<MessageID> LocalDelivery::copiesIn(const std::string& account, FolderRole role,
                                               const InternetMessageID& messageID) {
    const FolderID folder = folderWithRole(*store_, account, role);
    return store_->read([&](SQLiteDatabase& db) {
        return db.query<MessageID>(
            "SELECT id FROM messages WHERE account_id = ? AND folder_id = ? AND message_id_key = ?",
            {account, folder.value, messageID.normalizedKey()},
            [](const SQLRow& row) { return row.id<MessageID>(0); });
    });
}

OutboxResult LocalDelivery::execute(const OutboxItem& item) {
    switch (item.operation.kind()) {
        case OutboxOperation::Kind::setFlags:
        case OutboxOperation::Kind::move:
        case OutboxOperation::Kind::deleteMessage:
            // The store already holds the change and there is no server copy.
            return OutboxResult::done();
        case OutboxOperation::Kind::saveDraft:
            return saveDraft(item);
        case OutboxOperation::Kind::send:
            return send(item);
    }
    return OutboxResult::done();
}

OutboxResult LocalDelivery::saveDraft(const OutboxItem& item) {
    const auto& save = item.operation.draftSave();
    if (!hostAccount(*store_, item.accountID.value)) return OutboxResult::failed(accountGone());
    const Date now = clock_();
    const std::string raw = composeOutgoing(save.message, now, true);
    store_->write([&](SQLiteDatabase&) {
        if (save.message.messageID) {
            for (const auto& id :
                 copiesIn(item.accountID.value, FolderRole::drafts, *save.message.messageID))
                store_->purgeMessage(id);
        }
        MessageFlags flags;
        flags.system = MessageFlags::seen | MessageFlags::draft;
        fileMessage(*store_, item.accountID.value,
                    folderWithRole(*store_, item.accountID.value, FolderRole::drafts), raw, flags,
                    now);
    });
    return OutboxResult::done();
}

OutboxResult LocalDelivery::send(const OutboxItem& item) {
    const auto& payload = item.operation.sendPayload();
    const auto account = hostAccount(*store_, item.accountID.value);
    if (!account) return OutboxResult::failed(accountGone());
    if (!account->demo) return OutboxResult::failed(noOutgoingServer());
    if (!payload.message.messageID)
        return OutboxResult::failed(MailError::protocolViolation(ProtocolIssueKind::invalidInput,
                                                                 "message has no Message-ID"));
    const auto& messageID = *payload.message.messageID;
    const Date now = clock_();
    const std::string raw = composeOutgoing(payload.message, now, false);
    store_->write([&](SQLiteDatabase&) {
        if (copiesIn(account->email, FolderRole::sent, messageID).empty()) {
            MessageFlags flags;
            flags.system = MessageFlags::seen;
            fileMessage(*store_, account->email,
                        folderWithRole(*store_, account->email, FolderRole::sent), raw, flags, now);
        }
        for (const auto& id : copiesIn(account->email, FolderRole::drafts, messageID))
            store_->purgeMessage(id);
        if (payload.draftID) store_->deleteDraft(*payload.draftID);
    });
    return OutboxResult::done();
}

SentState LocalDelivery::verifySent(const OutboxItem& item) {
    const auto& payload = item.operation.sendPayload();
    const auto account = hostAccount(*store_, item.accountID.value);
    if (!account || !account->demo || !payload.message.messageID) return SentState::notSent;
    return copiesIn(account->email, FolderRole::sent, *payload.message.messageID).empty()
               ? SentState::notSent
               : SentState::sent;
}

}  // namespace kestrune
