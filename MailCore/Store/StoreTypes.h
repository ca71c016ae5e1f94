// Identifier types and the plain records that the mail store reads and
// writes. Every identifier is a thin wrapper around its raw value so that a
// folder id can never be passed where a message id is expected.
#pragma once

#include <compare>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "MailCore/Common/Clock.h"

namespace mailcore {

template <class Tag, class Raw>
struct Identifier {
    Raw value{};

    Identifier() = default;
    explicit Identifier(Raw raw) : value(std::move(raw)) {}
    auto operator<=>(const Identifier&) const = default;
    bool operator==(const Identifier&) const = default;
};

// Text identifiers.
using AccountID = Identifier<struct AccountIDTag, std::string>;
using DraftID = Identifier<struct DraftIDTag, std::string>;
using OutboxItemID = Identifier<struct OutboxItemIDTag, std::string>;
using PartID = Identifier<struct PartIDTag, std::string>;
// Integer identifiers.
using FolderID = Identifier<struct FolderIDTag, std::int64_t>;
using MessageID = Identifier<struct MessageIDTag, std::int64_t>;
using ThreadID = Identifier<struct ThreadIDTag, std::int64_t>;
using IMAPUID = Identifier<struct IMAPUIDTag, std::uint32_t>;
using UIDValidity = Identifier<struct UIDValidityTag, std::uint32_t>;
using ModSeq = Identifier<struct ModSeqTag, std::uint64_t>;

// IMAP system flags and keywords. A message is unread when neither `seen`
// nor `draft` is set.
struct MessageFlags {
    enum System : std::int64_t {
        seen = 1,
        answered = 2,
        flagged = 4,
        deleted = 8,
        draft = 16,
    };
    std::int64_t system = 0;
    std::vector<std::string> keywords;

    bool has(System flag) const { return (system & flag) != 0; }
    bool isUnread() const { return (system & (seen | draft)) == 0; }
    bool operator==(const MessageFlags&) const = default;
};

// One mail address as kept in the address columns: {"name":..,"email":..}.
struct MailAddress {
    std::string name;  // display name, may be empty
    std::string email;
    bool operator==(const MailAddress&) const = default;
};

// Raw values: "inbox", "sent", "drafts", "trash", "archive", "junk",
// "flagged", "custom".
enum class FolderRole { inbox, sent, drafts, trash, archive, junk, flagged, custom };
std::string_view rawValue(FolderRole role);
// Unknown texts give `custom`.
FolderRole folderRoleFromRaw(std::string_view raw);

// The sync cursor of a folder.
struct FolderSyncCursor {
    std::optional<UIDValidity> uidValidity;
    std::optional<IMAPUID> uidNext;
    std::optional<ModSeq> highestModSeq;
    std::optional<IMAPUID> lowestSyncedUID;
    bool initialWindowComplete = false;
    std::optional<std::int64_t> serverExists;
    std::optional<Date> lastSyncedAt;
    bool operator==(const FolderSyncCursor&) const = default;
};

// A mailbox of an account as the server lists it.
struct FolderListing {
    std::string path;
    std::optional<std::string> delimiter;
    FolderRole serverRole = FolderRole::custom;
    std::vector<std::string> attributes;
};

// One row of `folders`.
struct FolderRecord {
    FolderID id;
    AccountID accountID;
    std::string path;
    std::optional<std::string> delimiter;
    FolderRole role = FolderRole::custom;
    bool roleOverride = false;
    std::vector<std::string> attributes;
    FolderSyncCursor cursor;
    std::int64_t unreadCount = 0;
    std::int64_t totalCount = 0;
};

enum class BodyState { notFetched, partial, complete };
std::string_view rawValue(BodyState state);

enum class LocalState { synced, pendingMove, pendingDelete };
std::string_view rawValue(LocalState state);
LocalState localStateFromRaw(std::string_view raw);

// The fetched body of a message.
struct StoredBody {
    std::optional<std::string> text;
    std::optional<std::string> html;
    std::optional<std::vector<std::uint8_t>> structure;  // encoded body structure
    bool isTruncated = false;
    Date fetchedAt{};
    std::int64_t bytes = 0;
};

// One attachment of a message.
struct AttachmentInfo {
    PartID partID;
    std::string filename;
    std::string mimeType;
    std::int64_t size = 0;
    std::optional<std::string> contentID;
    bool isInline = false;
    std::optional<std::string> cachedPath;
    bool operator==(const AttachmentInfo&) const = default;
};

// Which bodies `evictBodies` removes: those fetched before `fetchedBefore`
// (when given), then the oldest others while the total exceeds
// `maxTotalBytes` (when given). Bodies of flagged messages stay when
// `keepFlagged` is set.
struct BodyEvictionPolicy {
    std::optional<Date> fetchedBefore;
    std::optional<std::int64_t> maxTotalBytes;
    bool keepFlagged = true;
};

// One row of `schema_migrations`.
struct AppliedMigration {
    std::int64_t version = 0;
    std::string name;
    Date appliedAt{};
};

// Where the store lives: a database file, or memory only.
struct StoreLocation {
    std::optional<std::string> filePath;  // none: in memory

    static StoreLocation file(std::string path) { return StoreLocation{std::move(path)}; }
    static StoreLocation inMemory() { return StoreLocation{}; }
};

}  // namespace mailcore

template <class Tag, class Raw>
struct std::hash<mailcore::Identifier<Tag, Raw>> {
    std::size_t operator()(const mailcore::Identifier<Tag, Raw>& id) const noexcept {
        return std::hash<Raw>{}(id.value);
    }
};
