// AccountSync: one sync of a whole account over one signed-in IMAP session.
//
// A run lists the server's folders and follows them in the store: new
// folders are added, a folder the server renamed keeps its messages (found
// by its UIDVALIDITY under the new name), folders gone from the server are
// removed with their messages. Roles come from the special-use attributes
// first; a role no folder announces goes to the first folder with a
// well-known name for it ("Sent Items", "Deleted Messages", "Spam", ...).
// Then every selectable folder, the inbox first, gets a window pass (its
// newest mail), and, unless only the window is asked for, a full pass
// (its older mail) after all windows are done. See FolderSync for a pass.
//
// Not thread-safe: a run uses its caller's thread and the session given.
#pragma once

#include <functional>
#include <stop_token>
#include <string>
#include <vector>

#include "MailCore/Engine/FolderSync.h"
#include "MailCore/IMAP/IMAPSession.h"
#include "MailCore/Store/SQLiteMailStore.h"

namespace mailcore {

struct AccountSyncReport {
    std::int64_t folders = 0;
    std::int64_t added = 0;
    std::int64_t flagUpdates = 0;
    std::int64_t removed = 0;
    std::int64_t bytesFetched = 0;
    std::int64_t foldersReset = 0;
    // Mail that arrived since the previous run (not the first filling of a
    // folder).
    std::vector<MessageID> newMessages;
};

// The role a folder's listing suggests: its special-use attribute, INBOX,
// else nothing (custom). Well-known names are applied by foldersFromListing.
FolderRole roleOfSpecialUse(const IMAPMailbox& mailbox);

// The store's listing for a server listing: selectable folders only, roles
// by special use first, then by well-known names for roles still free.
std::vector<FolderListing> foldersFromListing(const std::vector<IMAPMailbox>& mailboxes);

class AccountSync {
public:
    AccountSync(SQLiteMailStore& store, AccountID account, SyncTuning tuning = {},
                FolderSync::ProgressHandler progress = {}, Clock clock = systemClock());

    // Enables QRESYNC when offered, follows the folder list, and syncs every
    // folder (`depth` window: newest mail only). Throws the session's and
    // the store's MailErrors. `stop` is checked between batches.
    AccountSyncReport run(IMAPSession& session, SyncDepth depth = SyncDepth::full,
                          std::stop_token stop = {});

    // Lists the server's folders and brings the store's folders in line;
    // returns them in the order they are synced (inbox first).
    std::vector<FolderRecord> followFolders(IMAPSession& session);

private:
    SQLiteMailStore& store_;
    AccountID account_;
    SyncTuning tuning_;
    FolderSync::ProgressHandler progress_;
    Clock clock_;
};

}  // namespace mailcore
