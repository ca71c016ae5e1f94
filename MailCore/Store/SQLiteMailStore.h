// SQLiteMailStore: every account, folder, message, body, attachment, thread,
// draft and queued operation of the mail engine in one SQLite database.
//
// Thread-safety: every operation takes the store's lock, so operations run
// one at a time; a write is one "BEGIN IMMEDIATE" transaction, so readers
// (here or in another process) never see half of it. The busy timeout of
// 5000 ms covers other processes holding the write lock.
//
// The operations are spread over several files by concern:
//   SQLiteMailStore.cpp            opening, accounts, settings, folders
//   SQLiteMailStore+Messages.cpp   upsertSync, threading, moves, deletes
//   SQLiteMailStore+Bodies.cpp     bodies, attachments, eviction
//   SQLiteMailStore+Queries.cpp    message lists, thread messages, search
// Further groups (the outbox, drafts) live in their own
// SQLiteMailStore+<Group>.cpp and use `write` / `read` and the protected
// helpers below.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "MailCore/Common/Clock.h"
#include "MailCore/Common/Json.h"
#include "MailCore/Common/MailError.h"
#include "MailCore/Store/MessageRecords.h"
#include "MailCore/Store/OutboxRecords.h"
#include "MailCore/Store/SQLiteDatabase.h"
#include "MailCore/Store/StoreTypes.h"

namespace mailcore {

// A flag change reported by the server for a message it already has.
struct FlagUpdate {
    IMAPUID uid;
    MessageFlags flags;
    std::optional<ModSeq> modSeq;
};

class SQLiteMailStore {
public:
    static constexpr std::int64_t newestSchemaVersion = 3;

    // Opens (creating and migrating as needed) the store. Throws MailError:
    // storage(schemaNewerThanSupported, "database schema <n> is newer than
    // supported 3"), "cannot create database directory", "cannot read the
    // database in a read-only folder", migrationFailed, or a mapped SQLite
    // error. A folder that cannot be written gives a read-only store.
    explicit SQLiteMailStore(const StoreLocation& location, Date now = systemClock()());
    ~SQLiteMailStore();
    SQLiteMailStore(const SQLiteMailStore&) = delete;
    SQLiteMailStore& operator=(const SQLiteMailStore&) = delete;

    bool isReadOnly() const { return readOnly_; }

    // When set, only a message whose subject carries a reply or forward
    // prefix ("Re:", "AW:", ...) may join a thread by subject; a message
    // without one and without known references starts a new thread even if
    // the same people used the same subject before. Off by default.
    void setSubjectFallbackForRepliesOnly(bool on);
    std::int64_t schemaVersion();
    std::vector<AppliedMigration> appliedMigrations();
    // Closes the connection; later operations fail with "store is closed".
    void close();

    // Runs `body` inside one "BEGIN IMMEDIATE" transaction and returns its
    // result; any error rolls the whole write back and is thrown again. A
    // write started inside another write joins it.
    template <class Body>
    auto write(Body&& body) -> std::invoke_result_t<Body, SQLiteDatabase&>;
    // Runs `body` under the store's lock without an explicit transaction.
    template <class Body>
    auto read(Body&& body) -> std::invoke_result_t<Body, SQLiteDatabase&>;

    // ---- Accounts (config is the encoded account configuration) ----
    void saveAccount(const AccountID& id, const Json& config, Date createdAt);
    std::optional<Json> accountConfig(const AccountID& id);
    std::vector<Json> accountConfigs();  // by creation, then insertion order
    bool accountExists(const AccountID& id);
    // Removes the account and, by cascade, everything that belongs to it.
    void removeAccount(const AccountID& id);

    // ---- Store-wide settings ----
    std::optional<Blob> setting(const std::string& key);
    void setSetting(const std::string& key, const std::optional<Blob>& value);
    void removeSetting(const std::string& key);

    // ---- Folders ----
    // Brings the account's folders in line with a server listing: new
    // folders are inserted, listed ones updated (a role chosen by the user
    // stays), unlisted ones removed. Returns the account's folders. Fails
    // with "account not found".
    std::vector<FolderRecord> applyFolderListing(const AccountID& account,
                                                 const std::vector<FolderListing>& listing);
    FolderID createFolder(const AccountID& account, const FolderListing& listing);
    std::optional<FolderRecord> folder(FolderID id);
    std::vector<FolderRecord> folders(const AccountID& account);
    void setFolderRole(FolderID id, FolderRole role);
    void resetFolderRole(FolderID id);
    void removeFolder(FolderID id);
    // The server renamed the folder to `listing.path`: its messages, counts and sync cursor
    // stay. Fails with "folder not found".
    void renameFolder(FolderID id, const FolderListing& listing);
    void saveSyncCursor(FolderID id, const FolderSyncCursor& cursor);
    // A new UIDVALIDITY: drops every message with a server copy in the
    // folder (pending local moves stay), cleans up emptied threads, stores
    // the new value in the cursor.
    void resetFolder(FolderID id, UIDValidity newUIDValidity);

    // ---- Messages ----
    // Files a batch of headers from the server, in one transaction: new
    // messages are threaded and inserted, known ones (same folder and UID)
    // updated; search rows, references and participants follow; touched
    // folders get their counts recomputed. Returns the id of each message,
    // in batch order.
    std::vector<MessageID> upsertSync(const std::vector<MessageIndexFields>& batch);
    // Flag changes from the server. Local flags waiting in the outbox win;
    // only the modification sequence is stored then.
    void applyServerFlags(FolderID folder, const std::vector<FlagUpdate>& updates);
    // Messages the server no longer has (expunged).
    void removeMessages(FolderID folder, const std::vector<IMAPUID>& uids);
    // Removes one message and everything hanging off it.
    void purgeMessage(MessageID id);
    std::optional<MessageListRow> message(MessageID id);
    std::optional<MessageIndexFields> messageFields(MessageID id);
    // Sets the local flags of a message (a user's change, before the server
    // hears of it).
    void setLocalFlags(MessageID id, const MessageFlags& flags);

    // The current id of a thread: itself, or the survivor it was merged
    // into. Fails with "thread not found".
    ThreadID resolveThread(ThreadID id);

    // Local moves and deletes (the server catches up through the outbox).
    // Fails with "folder not found", "cannot move across accounts".
    void moveLocally(MessageID id, FolderID destination);
    // The moved message's server copy was found: bind it, folding in a
    // duplicate row that sync may have filed meanwhile.
    void bindMovedMessage(MessageID id, FolderID folder, IMAPUID uid);
    void deleteLocally(MessageID id);

    // ---- Bodies and attachments ----
    void saveBody(MessageID id, const StoredBody& body);
    // Several bodies in one transaction.
    void saveBodies(const std::vector<std::pair<MessageID, StoredBody>>& bodies);
    std::optional<StoredBody> body(MessageID id);
    void replaceAttachments(MessageID id, const std::vector<AttachmentInfo>& attachments);
    std::vector<AttachmentInfo> attachments(MessageID id);
    void setAttachmentCachedPath(MessageID id, const PartID& part,
                                 const std::optional<std::string>& path);
    // The non-inline attachments of all threads, newest message first.
    std::vector<std::pair<ThreadID, std::vector<AttachmentInfo>>> threadAttachments();
    std::int64_t bodyBytes();
    // Returns the number of bodies removed.
    std::int64_t evictBodies(const BodyEvictionPolicy& policy);

    // ---- Lists and search ----
    MessagePage messages(const MessageQuery& query);
    // The messages of a thread, oldest first, at most 500.
    std::vector<MessageListRow> threadMessages(ThreadID thread);
    std::vector<SearchHit> search(const SearchQuery& query);

    // ---- Outbox and drafts (SQLiteMailStore+Outbox.cpp, +Drafts.cpp) ----
    // Queues an operation (state queued, no attempts, `notBefore` defaulting
    // to `now`) and returns the item. A flag change folds into the message's
    // queued setFlags and a draft save replaces the draft's queued save; the
    // item returned is then that one. Fails with "account not found", or
    // "message has a pending delete" for work on a message being deleted.
    OutboxItem enqueue(const AccountID& account, const OutboxOperation& operation, Date now,
                       std::optional<Date> notBefore = std::nullopt);
    OutboxItem enqueueFlags(const AccountID& account, const OutboxMessageRef& message,
                            const FlagChange& change, Date now);
    bool hasPendingDelete(const AccountID& account, MessageID message);
    std::vector<DecodedOutboxRow> queuedItems(const AccountID& account, MessageID message);
    std::optional<DecodedOutboxRow> pendingSend(const AccountID& account, const DraftID& draft);
    std::optional<DecodedOutboxRow> queuedDraftSave(const AccountID& account, const DraftID& draft);
    void rewriteOutboxPayload(const OutboxItemID& id, const OutboxOperation& operation);
    // Queued items whose time has come and that no older item on the same
    // message or draft still waits for; earliest `notBefore` first.
    std::vector<DecodedOutboxRow> dueItems(Date now, const std::optional<AccountID>& account,
                                           int limit);
    // The conditional claim: false when another worker took the item.
    bool markInFlight(const OutboxItemID& id);
    // dueItems and markInFlight in one transaction: the first due item this
    // caller managed to claim (state inFlight, attempt counted), if any.
    std::optional<DecodedOutboxRow> claimNextDue(Date now, const std::optional<AccountID>& account,
                                                 int scanLimit = 16);
    void complete(const OutboxItemID& id);
    // `counts`: whether the failed attempt counts against the attempt limit;
    // when it does not, the claim's increment is taken back.
    void retryLater(const OutboxItemID& id, Date notBefore, const MailError& error, bool counts);
    void failPermanently(const OutboxItemID& id, const MailError& error, bool counts);
    // Puts an in-flight item back untouched; false when it was not in flight.
    bool release(const OutboxItemID& id, Date notBefore);
    // Records a stage on an in-flight item; false when it was not in flight.
    bool recordProgress(const OutboxItemID& id, const MailError& progress);
    // The user's retry of a failed item; false when the item is not failed.
    // Fails with "outbox item not found".
    bool retryFailed(const OutboxItemID& id, Date now);
    void reschedule(const OutboxItemID& id, Date notBefore);
    // Fails with "item is in flight" or "outbox item not found".
    void cancel(const OutboxItemID& id);
    // Launch recovery: every in-flight item is queued again, attempt count
    // unchanged; in-flight sends are marked "the message may have been sent"
    // first. Returns the recovered items as they now are.
    std::vector<DecodedOutboxRow> recoverInFlight();
    std::optional<DecodedOutboxRow> outboxItem(const OutboxItemID& id);
    // By creation, then insertion order.
    std::vector<DecodedOutboxRow> outboxItems(const std::optional<AccountID>& account);
    std::vector<DecodedOutboxRow> outboxItemsTargeting(FolderID folder);
    // Removes a queued send and saves `draft` in one transaction (a held send
    // kept as a draft). Fails with "item is in flight", "outbox item not found".
    void convertSendToDraft(const OutboxItemID& id, const DraftRecord& draft);
    void saveDraft(const DraftRecord& draft);
    std::optional<DraftRecord> draft(const DraftID& id);
    std::vector<DraftRecord> drafts(const std::optional<AccountID>& account);  // newest first
    void deleteDraft(const DraftID& id);

protected:
    // Helpers for operations running inside `write` (the caller holds the lock).
    static void recomputeFolderCounts(SQLiteDatabase& db, FolderID folder);
    static ThreadID resolveThread(SQLiteDatabase& db, ThreadID id);
    // Removes the messages matching `condition` (SQL over the bare
    // `messages` columns, with `values`): their queued outbox operations,
    // draft references, search rows, the rows, emptied threads, and the
    // counts of their folders.
    static void removeMessagesWhere(SQLiteDatabase& db, const std::string& condition,
                                    const std::vector<SQLValue>& values);
    static void deleteThreadIfEmpty(SQLiteDatabase& db, ThreadID thread);
    static void cleanUpAccountThreads(SQLiteDatabase& db, const AccountID& account);
    static ThreadID assignThread(SQLiteDatabase& db, const MessageIndexFields& fields,
                                 const std::vector<std::string>& participants,
                                 bool subjectFallbackForRepliesOnly = false);
    static void mergeThreads(SQLiteDatabase& db, const std::set<std::int64_t>& absorbed,
                             ThreadID into, const AccountID& account);

    SQLiteDatabase& database();

private:
    std::recursive_mutex lock_;
    std::unique_ptr<SQLiteDatabase> db_;
    bool readOnly_ = false;
    int writeDepth_ = 0;                          // guarded by lock_
    bool subjectFallbackForRepliesOnly_ = false;  // guarded by lock_
};

template <class Body>
auto SQLiteMailStore::write(Body&& body) -> std::invoke_result_t<Body, SQLiteDatabase&> {
    std::lock_guard<std::recursive_mutex> guard(lock_);
    SQLiteDatabase& db = database();
    if (writeDepth_ > 0) return body(db);
    db.execute("BEGIN IMMEDIATE");
    ++writeDepth_;
    struct DepthGuard {
        int& depth;
        ~DepthGuard() { --depth; }
    } depthGuard{writeDepth_};
    try {
        if constexpr (std::is_void_v<std::invoke_result_t<Body, SQLiteDatabase&>>) {
            body(db);
            db.execute("COMMIT");
        } else {
            auto result = body(db);
            db.execute("COMMIT");
            return result;
        }
    } catch (...) {
        try {
            if (db.isOpen()) db.execute("ROLLBACK");
        } catch (const MailError&) {
        }
        throw;
    }
}

template <class Body>
auto SQLiteMailStore::read(Body&& body) -> std::invoke_result_t<Body, SQLiteDatabase&> {
    std::lock_guard<std::recursive_mutex> guard(lock_);
    return body(database());
}

}  // namespace mailcore
