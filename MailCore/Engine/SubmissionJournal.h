// SubmissionJournal: how far each send got with the SMTP server, kept in the
// store's database (table submission_journal, created when first needed) so
// that it survives a crash. It is what lets a send be resumed without being
// sent twice:
//   no entry      the end of the message was never written: nothing can
//                 have been delivered, the send may be tried again;
//   endWritten    the end of the message was about to be written and no
//                 reply was recorded: the outcome is unknown;
//   accepted      the server took the message; only filing it in Sent may
//                 remain.
// Entries hold the submitted bytes, so that the Sent copy is the message
// that went out. Entries of items no longer in the outbox are removed by
// prune().
//
// Thread-safe: every operation is one store transaction.
#pragma once

#include <optional>
#include <string>

#include "MailCore/Store/SQLiteMailStore.h"

namespace mailcore {

class SubmissionJournal {
public:
    enum class Stage { endWritten, accepted };
    struct Entry {
        Stage stage = Stage::endWritten;
        std::string message;  // the submitted RFC 5322 text
    };

    explicit SubmissionJournal(SQLiteMailStore& store);

    std::optional<Entry> entry(const OutboxItemID& item);
    void record(const OutboxItemID& item, Stage stage, const std::string& message);
    void forget(const OutboxItemID& item);
    // Removes the entries of items that are no longer in the outbox.
    void prune();

private:
    SQLiteMailStore& store_;
};

}  // namespace mailcore
