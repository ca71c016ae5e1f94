// LocalDelivery: the outbox executor for accounts whose mail lives only in
// this store (the demonstration account and imported Maildir or mbox
// accounts). Such an account has no server, so the outbox's work is done
// locally:
//   - flag changes, moves and deletions are already applied to the store and
//     complete at once;
//   - a draft save files the draft, composed as a real message, in the
//     account's Drafts folder, replacing the copy saved before it (copies are
//     matched by the draft's Message-ID);
//   - a send on a demo account is delivered into the account's own Sent
//     folder: the composed message is filed there, its Drafts copies and its
//     draft record are removed, all in one transaction. A send that is
//     carried out twice (after a crash) finds its Sent copy and files nothing
//     more. Sends of server accounts never get here (the send executor
//     submits them); those of other accounts, which have no outgoing
//     server, fail for good with "no account configured".
//
// Thread-safe: every step is one store transaction.
#pragma once

#include <memory>

#include "MailCore/Common/Clock.h"
#include "MailCore/Engine/OutboxExecutor.h"
#include "MailCore/Store/SQLiteMailStore.h"

namespace kestrune {

class LocalDelivery : public mailcore::OutboxExecutor {
public:
    explicit LocalDelivery(std::shared_ptr<mailcore::SQLiteMailStore> store,
                           mailcore::Clock clock = mailcore::systemClock());

    mailcore::OutboxResult execute(const mailcore::OutboxItem& item) override;
    mailcore::SentState verifySent(const mailcore::OutboxItem& item) override;

    // The messages of `account` in its folder with `role` that carry
    // `messageID`.
    std::vector<mailcore::MessageID> copiesIn(const std::string& account, mailcore::FolderRole role,
                                              const mailcore::InternetMessageID& messageID);

private:
    mailcore::OutboxResult saveDraft(const mailcore::OutboxItem& item);
    mailcore::OutboxResult send(const mailcore::OutboxItem& item);

    std::shared_ptr<mailcore::SQLiteMailStore> store_;
    mailcore::Clock clock_;
};

// The message as it is filed (and would be submitted): RFC 5322 text.
// Drafts keep their Bcc.
std::string composeOutgoing(const mailcore::OutgoingMessage& message, mailcore::Date date,
                            bool asDraft);

}  // namespace kestrune
