// The records that flow in and out of the message index: what the sync
// engine hands the store for one message, and the rows of lists and search.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "MailCore/Common/Clock.h"
#include "MailCore/Store/StoreTypes.h"
#include "MailCore/Store/ThreadingKeys.h"

namespace mailcore {

// One message's headers as the sync engine hands them to `upsertSync`.
struct MessageIndexFields {
    AccountID accountID;
    FolderID folderID;
    std::optional<IMAPUID> uid;
    ThreadingKeys threading;
    std::string subject;
    std::vector<MailAddress> from;
    std::vector<MailAddress> to;
    std::vector<MailAddress> cc;
    std::vector<MailAddress> replyTo;
    Date date{};
    std::optional<Date> internalDate;
    MessageFlags flags;
    std::int64_t size = 0;
    bool hasAttachments = false;
    std::optional<std::string> snippet;
    std::optional<ModSeq> modSeq;
};

// One row of a message list or search result.
struct MessageListRow {
    MessageID id;
    ThreadID threadID;
    AccountID accountID;
    FolderID folderID;
    std::optional<MailAddress> from;  // the first From address
    std::string subject;
    std::optional<std::string> snippet;
    Date date{};
    MessageFlags flags;
    bool hasAttachments = false;
    LocalState localState = LocalState::synced;
    // Thread-collapsed lists only: the thread's matching and unread counts.
    std::optional<std::int64_t> threadMessageCount;
    std::optional<std::int64_t> threadUnreadCount;
};

// The date and id of the last row of the previous page.
struct PageCursor {
    Date date{};
    MessageID id;
    bool operator==(const PageCursor&) const = default;
};

struct MessageQuery {
    std::optional<AccountID> accountID;
    std::optional<FolderID> folderID;
    std::optional<FolderRole> role;  // used when no folder is given
    bool unreadOnly = false;
    bool flaggedOnly = false;
    bool attachmentsOnly = false;
    bool collapseThreads = false;
    int pageSize = 50;
    std::optional<PageCursor> cursor;
};

struct MessagePage {
    std::vector<MessageListRow> rows;
    std::optional<PageCursor> nextCursor;  // set when the page is full
};

struct SearchQuery {
    std::string text;
    std::optional<AccountID> accountID;
    std::optional<FolderID> folderID;
    bool attachmentsOnly = false;
    int limit = 50;
};

struct SearchHit {
    MessageListRow row;
    double rank = 0;  // bm25 score; lower is better
    std::optional<std::string> excerpt;
};

}  // namespace mailcore
