// FolderSync: brings one folder of the store in line with the same folder
// on the server, over a signed-in IMAP session.
//
// Each pass selects the folder and then, in this order:
// - a new UIDVALIDITY drops the folder's messages (the store's reset) and
//   the folder is synced afresh;
// - on a folder synced before: flag changes and expunges since the last
//   pass (CONDSTORE/QRESYNC: what changed since the stored HIGHESTMODSEQ and
//   what VANISHED; without them: every stored message's flags and the
//   server's UIDs compared with the stored ones), then the mail that arrived
//   since (UIDs from the stored UIDNEXT up);
// - older mail, newest first, down from the lowest UID synced so far: only
//   the folder's newest `initialWindow` messages in a window pass, all of it
//   in a full pass.
// Headers, flags, sizes, dates and the attachment structure of each message
// are fetched (BODY.PEEK[HEADER] and BODYSTRUCTURE) and filed in batches of
// `fetchChunk`; each batch and the cursor that covers it are one store
// transaction, so a pass stopped at any point (even by SIGKILL) resumes
// where it stopped, without fetching or filing a message twice.
//
// Not thread-safe: one FolderSync runs on its caller's thread over a session
// nobody else uses.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <stop_token>
#include <string>
#include <vector>

#include "MailCore/IMAP/IMAPSession.h"
#include "MailCore/MIME/MessageParser.h"
#include "MailCore/Store/SQLiteMailStore.h"

namespace mailcore {

struct SyncTuning {
    // Newest messages per folder fetched before any folder's older mail.
    std::int64_t initialWindow = 500;
    // Messages per FETCH and per store transaction.
    std::int64_t fetchChunk = 250;
    // false: QRESYNC is never enabled, and expunges are found by comparing
    // UIDs (for servers whose QRESYNC misbehaves).
    bool qresync = true;
    // The newest messages per folder whose whole text is fetched (body,
    // snippet, attachments), each at most `prefetchMaxBytes`.
    std::int64_t prefetchBodies = 50;
    std::int64_t prefetchMaxBytes = 1024 * 1024;
};

// How far a pass goes into the older mail.
enum class SyncDepth { window, full };

// Progress of one pass, reported after every filed batch.
struct FolderProgress {
    std::string folder;
    std::int64_t done = 0;   // messages filed in this pass
    std::int64_t total = 0;  // messages this pass means to file
};

// What a pass did.
struct FolderSyncReport {
    std::int64_t added = 0;              // new messages filed
    std::int64_t flagUpdates = 0;        // flag changes applied
    std::int64_t removed = 0;            // expunged messages dropped
    std::int64_t bytesFetched = 0;       // header bytes received
    bool reset = false;                  // the folder's UIDVALIDITY had changed
    std::vector<MessageID> newMessages;  // ids of mail that arrived since the last pass
};

class FolderSync {
public:
    using ProgressHandler = std::function<void(const FolderProgress&)>;

    FolderSync(SQLiteMailStore& store, IMAPSession& session, SyncTuning tuning = {},
               ProgressHandler progress = {}, Clock clock = systemClock());

    // One pass over `folder` (a row of the store). Throws the session's and
    // the store's MailErrors; what was filed before the error stays filed.
    // `stop` is checked between batches (the pass then ends early, cursor
    // saved).
    FolderSyncReport sync(const FolderRecord& folder, SyncDepth depth, std::stop_token stop = {});

private:
    struct Pass;
    void applyChanges(Pass& pass, const IMAPSelectedFolder& selected);
    void fetchNew(Pass& pass, const IMAPSelectedFolder& selected);
    void fetchOlder(Pass& pass, SyncDepth depth);
    void prefetchBodies(Pass& pass);
    // Fetches `uids` in batches, in the order given, and files each batch
    // with the cursor `advance` makes for it; returns the filed messages.
    std::vector<MessageID> fetchAndFile(
        Pass& pass, const std::vector<UIDValue>& uids,
        const std::function<void(FolderSyncCursor&, const std::vector<UIDValue>&)>& advance);
    std::vector<UIDValue> storedUIDs(FolderID folder);

    SQLiteMailStore& store_;
    IMAPSession& session_;
    SyncTuning tuning_;
    ProgressHandler progress_;
    Clock clock_;
    MessageParser parser_;
};

// The store's flags for IMAP flags: system flags by their names (any case),
// every other flag not starting with "\" a keyword; \Recent and unknown
// system flags are left out.
MessageFlags messageFlags(const std::vector<std::string>& imapFlags);

// The attachments a BODYSTRUCTURE describes: parts with an attachment
// disposition, or non-text leaves with a file name; inline parts with a
// Content-ID (pictures in HTML) count as inline resources.
std::vector<AttachmentInfo> attachmentsOf(const IMAPBodyStructure& structure);

}  // namespace mailcore
