// StorageIndexer: keeps the full-text table `message_search` (columns
// subject, sender, recipients, snippet, body; rowid = messages.id) in step
// with the messages. Runs inside the caller's write transaction.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "MailCore/Store/SQLiteDatabase.h"
#include "MailCore/Store/StoreTypes.h"

namespace mailcore {

struct StorageIndexer {
    // Writes the row of message `id`. Without a body, the body already
    // indexed for the message is kept.
    static void index(SQLiteDatabase& db, MessageID id, const std::string& subject,
                      const std::vector<MailAddress>& from, const std::vector<MailAddress>& to,
                      const std::vector<MailAddress>& cc, const std::optional<std::string>& snippet,
                      const std::optional<std::string>& body);

    // Rewrites the row with a new body, taking the header columns from `messages`.
    static void reindex(SQLiteDatabase& db, MessageID id, const std::string& body);

    // Empties the table and indexes every stored message with its body.
    static void rebuildAll(SQLiteDatabase& db);

    static void remove(SQLiteDatabase& db, MessageID id);

    // The text indexed for an address list: "Name email, Name email".
    static std::string addressText(const std::vector<MailAddress>& addresses);
};

}  // namespace mailcore
