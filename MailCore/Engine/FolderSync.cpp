#include "MailCore/Engine/FolderSync.h"

#include <algorithm>
#include <map>
#include <set>

#include "MailCore/MIME/MessageIngestor.h"

namespace mailcore {
namespace {

std::string upper(std::string text) {
    for (char& ch : text)
        if (ch >= 'a' && ch <= 'z') ch = static_cast<char>(ch - 'a' + 'A');
    return text;
}

std::string lower(std::string text) {
    for (char& ch : text)
        if (ch >= 'A' && ch <= 'Z') ch = static_cast<char>(ch - 'A' + 'a');
    return text;
}

std::optional<std::string> parameter(const std::vector<std::pair<std::string, std::string>>& list,
                                     std::string_view name) {
    for (const auto& [key, value] : list)
        if (upper(key) == name) return value;
    return std::nullopt;
}

void collectAttachments(const IMAPBodyStructure& part, const std::string& partID,
                        std::vector<AttachmentInfo>& out) {
    if (part.isMultipart()) {
        for (std::size_t i = 0; i < part.parts.size(); ++i) {
            const std::string child = std::to_string(i + 1);
            collectAttachments(part.parts[i], partID.empty() ? child : partID + "." + child, out);
        }
        return;
    }
    const std::string disposition = upper(part.disposition.value_or(""));
    auto filename = parameter(part.dispositionParameters, "FILENAME");
    if (!filename) filename = parameter(part.parameters, "NAME");
    const bool isText = upper(part.type) == "TEXT";
    if (isText && disposition != "ATTACHMENT" && !filename) return;  // body text
    AttachmentInfo info;
    info.partID = PartID(partID.empty() ? "1" : partID);
    info.filename = filename.value_or(upper(part.type) == "MESSAGE" ? "message.eml" : "untitled");
    info.mimeType = lower(part.type + "/" + part.subtype);
    // BODYSTRUCTURE gives the encoded size; base64 carries 3 bytes in 4.
    const auto encoded = static_cast<std::int64_t>(part.size);
    info.size = upper(part.encoding) == "BASE64" ? encoded / 4 * 3 : encoded;
    info.contentID = part.id;
    info.isInline = disposition == "INLINE" || (disposition.empty() && part.id.has_value());
    out.push_back(std::move(info));
}

bool contains(const UIDSet& set, UIDValue uid) {
    for (const auto& r : set.ranges)
        if (uid >= r.lower && (!r.upper || uid <= *r.upper)) return true;
    return false;
}

// Every UID of a set that has no open end, ascending.
std::vector<UIDValue> expand(const UIDSet& set) {
    std::vector<UIDValue> out;
    for (const auto& r : set.ranges) {
        const UIDValue last = r.upper.value_or(r.lower);
        for (std::uint64_t uid = r.lower; uid <= last; ++uid)
            out.push_back(static_cast<UIDValue>(uid));
    }
    std::sort(out.begin(), out.end());
    out.erase(std::unique(out.begin(), out.end()), out.end());
    return out;
}

// The UIDs from `from` to `to` (both included) the server holds.
std::vector<UIDValue> serverUIDs(IMAPSession& session, UIDValue from, UIDValue to) {
    if (from > to) return {};
    IMAPSearchCriteria criteria;
    criteria.uids(UIDSet::fromRanges({UIDRange{from, to}}));
    std::vector<UIDValue> uids = expand(session.search(criteria));
    // "n:m" may name the last message even when it lies outside.
    std::erase_if(uids, [&](UIDValue uid) { return uid < from || uid > to; });
    return uids;
}

}  // namespace

MessageFlags messageFlags(const std::vector<std::string>& imapFlags) {
    static const std::map<std::string, MessageFlags::System> system{
        {"\\SEEN", MessageFlags::seen},
        {"\\ANSWERED", MessageFlags::answered},
        {"\\FLAGGED", MessageFlags::flagged},
        {"\\DELETED", MessageFlags::deleted},
        {"\\DRAFT", MessageFlags::draft}};
    MessageFlags flags;
    for (const auto& flag : imapFlags) {
        if (flag.starts_with("\\")) {
            auto it = system.find(upper(flag));
            if (it != system.end()) flags.system |= it->second;
        } else if (!flag.empty()) {
            flags.keywords.push_back(flag);
        }
    }
    std::sort(flags.keywords.begin(), flags.keywords.end());
    return flags;
}

std::vector<AttachmentInfo> attachmentsOf(const IMAPBodyStructure& structure) {
    std::vector<AttachmentInfo> out;
    collectAttachments(structure, "", out);
    return out;
}

struct FolderSync::Pass {
    FolderRecord folder;  // its cursor follows what has been filed
    FolderSyncReport report;
    FolderProgress progress;
    std::stop_token stop;
    bool qresync = false;
    bool modSeqs = false;
};

FolderSync::FolderSync(SQLiteMailStore& store, IMAPSession& session, SyncTuning tuning,
                       ProgressHandler progress, Clock clock)
    : store_(store),
      session_(session),
      tuning_(tuning),
      progress_(std::move(progress)),
      clock_(std::move(clock)) {
    if (tuning_.fetchChunk < 1) tuning_.fetchChunk = 1;
}

FolderSyncReport FolderSync::sync(const FolderRecord& folder, SyncDepth depth,
                                  std::stop_token stop) {
    Pass pass{folder, {}, {folder.path, 0, 0}, std::move(stop)};
    FolderSyncCursor& cursor = pass.folder.cursor;
    IMAPSelectOptions options;
    const bool known = cursor.uidValidity && cursor.uidNext;
    pass.modSeqs = session_.capabilities().has("CONDSTORE") || session_.isEnabled("QRESYNC");
    if (session_.isEnabled("QRESYNC") && known && cursor.highestModSeq) {
        options.qresync =
            IMAPQResyncState{cursor.uidValidity->value, cursor.highestModSeq->value, {}};
    } else if (session_.capabilities().has("CONDSTORE")) {
        options.condstore = true;
    }
    const IMAPSelectedFolder selected = session_.select(folder.path, options);
    pass.qresync = options.qresync.has_value();

    if (cursor.uidValidity && cursor.uidValidity->value != selected.uidValidity) {
        store_.resetFolder(folder.id, UIDValidity(selected.uidValidity));
        cursor = FolderSyncCursor{};
        pass.report.reset = true;
    }
    if (!cursor.uidNext) {
        // The first pass: everything below UIDNEXT is older mail, filed
        // newest first; what arrives later comes from UIDNEXT up.
        UIDValue next = selected.uidNext.value_or(0);
        if (next == 0) {
            const auto all = serverUIDs(session_, 1, UINT32_MAX);
            next = all.empty() ? 1 : all.back() + 1;
        }
        cursor.uidValidity = UIDValidity(selected.uidValidity);
        cursor.uidNext = IMAPUID(next);
        cursor.lowestSyncedUID = IMAPUID(next);
        if (selected.highestModSeq) cursor.highestModSeq = ModSeq(*selected.highestModSeq);
        cursor.serverExists = selected.exists;
        store_.saveSyncCursor(folder.id, cursor);
    } else {
        applyChanges(pass, selected);
        fetchNew(pass, selected);
    }
    fetchOlder(pass, depth);
    if (!pass.stop.stop_requested()) prefetchBodies(pass);
    cursor.serverExists = selected.exists;
    cursor.lastSyncedAt = clock_();
    store_.saveSyncCursor(folder.id, cursor);
    return pass.report;
}

std::vector<UIDValue> FolderSync::storedUIDs(FolderID folder) {
    return store_.read([&](SQLiteDatabase& db) {
        return db.query<UIDValue>(
            "SELECT uid FROM messages WHERE folder_id = ? AND uid IS NOT NULL ORDER BY uid",
            {folder}, [](const SQLRow& row) { return static_cast<UIDValue>(row.int64(0)); });
    });
}

void FolderSync::applyChanges(Pass& pass, const IMAPSelectedFolder& selected) {
    FolderSyncCursor& cursor = pass.folder.cursor;
    const UIDValue next = cursor.uidNext->value;
    const UIDValue lowest = cursor.lowestSyncedUID.value_or(*cursor.uidNext).value;
    std::vector<FlagUpdate> updates;
    const auto collect = [&](const IMAPFetchData& d) {
        if (!d.uid || !d.flags || *d.uid >= next) return;
        std::optional<ModSeq> modSeq;
        if (d.modSeq) modSeq = ModSeq(*d.modSeq);
        updates.push_back({IMAPUID(*d.uid), messageFlags(*d.flags), modSeq});
    };
    std::vector<UIDValue> gone;
    const bool condstore = selected.highestModSeq && cursor.highestModSeq;
    if (pass.qresync) {
        for (const auto& d : selected.changed) collect(d);
        if (!selected.vanished.isEmpty())
            for (UIDValue uid : storedUIDs(pass.folder.id))
                if (contains(selected.vanished, uid)) gone.push_back(uid);
    } else {
        if (next > lowest) {
            IMAPFetchRequest request;
            request.flags = true;
            request.modSeq = pass.modSeqs;
            if (condstore) request.changedSince = cursor.highestModSeq->value;
            if (!condstore || *selected.highestModSeq != cursor.highestModSeq->value)
                session_.fetch(UIDSet::fromRanges({UIDRange{lowest, next - 1}}), request, collect);
        }
        // Expunges: the stored UIDs the server no longer lists.
        const auto stored = storedUIDs(pass.folder.id);
        if (!stored.empty()) {
            const auto onServer = serverUIDs(session_, stored.front(), stored.back());
            std::set_difference(stored.begin(), stored.end(), onServer.begin(), onServer.end(),
                                std::back_inserter(gone));
        }
    }
    if (!updates.empty()) store_.applyServerFlags(pass.folder.id, updates);
    if (!gone.empty()) {
        std::vector<IMAPUID> uids;
        for (UIDValue uid : gone) uids.push_back(IMAPUID(uid));
        store_.removeMessages(pass.folder.id, uids);
    }
    pass.report.flagUpdates += static_cast<std::int64_t>(updates.size());
    pass.report.removed += static_cast<std::int64_t>(gone.size());
    if (selected.highestModSeq) cursor.highestModSeq = ModSeq(*selected.highestModSeq);
    store_.saveSyncCursor(pass.folder.id, cursor);
}

void FolderSync::fetchNew(Pass& pass, const IMAPSelectedFolder& selected) {
    FolderSyncCursor& cursor = pass.folder.cursor;
    const UIDValue next = cursor.uidNext->value;
    if (selected.uidNext && *selected.uidNext <= next) return;
    if (selected.exists == 0) return;
    const auto uids = serverUIDs(session_, next, UINT32_MAX);
    pass.progress.total += static_cast<std::int64_t>(uids.size());
    const auto ids =
        fetchAndFile(pass, uids, [](FolderSyncCursor& c, const std::vector<UIDValue>& batch) {
            c.uidNext = IMAPUID(std::max(c.uidNext->value, batch.back() + 1));
        });
    pass.report.newMessages.insert(pass.report.newMessages.end(), ids.begin(), ids.end());
    if (selected.uidNext && *selected.uidNext > cursor.uidNext->value &&
        !pass.stop.stop_requested())
        cursor.uidNext = IMAPUID(*selected.uidNext);
}

void FolderSync::fetchOlder(Pass& pass, SyncDepth depth) {
    FolderSyncCursor& cursor = pass.folder.cursor;
    const UIDValue lowest = cursor.lowestSyncedUID.value_or(*cursor.uidNext).value;
    const auto storedCount = [&] {
        return store_.read([&](SQLiteDatabase& db) {
            return db
                .scalarInt("SELECT COUNT(*) FROM messages WHERE folder_id = ? AND uid IS NOT NULL",
                           {pass.folder.id})
                .value_or(0);
        });
    };
    if (lowest <= 1) {
        cursor.initialWindowComplete = true;
        return;
    }
    std::int64_t wanted = INT64_MAX;
    if (depth == SyncDepth::window) {
        wanted = tuning_.initialWindow - storedCount();
        if (wanted <= 0) {
            cursor.initialWindowComplete = true;
            return;
        }
    }
    std::vector<UIDValue> uids = serverUIDs(session_, 1, lowest - 1);
    std::reverse(uids.begin(), uids.end());
    const bool everything = static_cast<std::int64_t>(uids.size()) <= wanted;
    if (!everything) uids.resize(static_cast<std::size_t>(wanted));
    pass.progress.total += static_cast<std::int64_t>(uids.size());
    const std::int64_t window = tuning_.initialWindow;
    std::int64_t filed = storedCount();
    fetchAndFile(pass, uids, [&](FolderSyncCursor& c, const std::vector<UIDValue>& batch) {
        filed += static_cast<std::int64_t>(batch.size());
        c.lowestSyncedUID = IMAPUID(batch.back());
        if (filed >= window) c.initialWindowComplete = true;
    });
    if (everything && !pass.stop.stop_requested()) {
        // Nothing older is left on the server.
        cursor.lowestSyncedUID = IMAPUID(1);
        cursor.initialWindowComplete = true;
    } else if (!pass.stop.stop_requested()) {
        cursor.initialWindowComplete = true;
    }
}

void FolderSync::prefetchBodies(Pass& pass) {
    if (tuning_.prefetchBodies <= 0) return;
    std::map<UIDValue, MessageID> wanted;
    store_.read([&](SQLiteDatabase& db) {
        db.forEachRow(
            "SELECT id, uid FROM (SELECT id, uid, body_state, size FROM messages "
            "WHERE folder_id = ? AND uid IS NOT NULL ORDER BY uid DESC LIMIT ?) "
            "WHERE body_state = 'notFetched' AND size <= ?",
            {pass.folder.id, tuning_.prefetchBodies, tuning_.prefetchMaxBytes},
            [&](const SQLRow& row) {
                wanted.emplace(static_cast<UIDValue>(row.int64(1)), row.id<MessageID>(0));
                return true;
            });
    });
    if (wanted.empty()) return;
    std::vector<UIDValue> uids;
    for (const auto& [uid, id] : wanted) uids.push_back(uid);
    IMAPFetchRequest request;
    request.sections = {""};
    std::vector<std::pair<MessageID, PreparedMessage>> fetched;
    session_.fetch(UIDSet::fromUIDs(uids), request, [&](const IMAPFetchData& d) {
        const std::string* raw = d.section("");
        if (!d.uid || !raw || raw->empty() || !wanted.count(*d.uid)) return;
        pass.report.bytesFetched += static_cast<std::int64_t>(raw->size());
        IncomingMessage incoming{pass.folder.id, IMAPUID(*d.uid), {}, std::nullopt, std::nullopt};
        fetched.emplace_back(
            wanted.at(*d.uid),
            prepareMessage(parser_.parse(*raw), pass.folder.accountID, incoming, clock_()));
    });
    store_.write([&](SQLiteDatabase&) {
        for (auto& [id, prepared] : fetched) {
            if (!store_.message(id)) continue;  // removed meanwhile
            store_.saveBody(id, prepared.body);
            store_.replaceAttachments(id, prepared.attachments);
        }
    });
}

std::vector<MessageID> FolderSync::fetchAndFile(
    Pass& pass, const std::vector<UIDValue>& uids,
    const std::function<void(FolderSyncCursor&, const std::vector<UIDValue>&)>& advance) {
    IMAPFetchRequest request;
    request.flags = true;
    request.internalDate = true;
    request.size = true;
    request.bodyStructure = true;
    request.modSeq = pass.modSeqs;
    request.sections = {"HEADER"};
    const auto chunk = static_cast<std::size_t>(tuning_.fetchChunk);
    const FolderRecord& folder = pass.folder;
    std::vector<MessageID> filedIDs;
    for (std::size_t start = 0; start < uids.size(); start += chunk) {
        if (pass.stop.stop_requested()) break;
        const std::vector<UIDValue> batch(
            uids.begin() + static_cast<std::ptrdiff_t>(start),
            uids.begin() + static_cast<std::ptrdiff_t>(std::min(uids.size(), start + chunk)));
        std::map<UIDValue, std::pair<MessageIndexFields, std::vector<AttachmentInfo>>> fetched;
        session_.fetch(UIDSet::fromUIDs(batch), request, [&](const IMAPFetchData& d) {
            const std::string* header = d.section("HEADER");
            if (!d.uid || !header) return;
            pass.report.bytesFetched += static_cast<std::int64_t>(header->size());
            const ParsedMessage parsed = parser_.parse(header->empty() ? "\r\n" : *header);
            MessageIndexFields f;
            f.accountID = folder.accountID;
            f.folderID = folder.id;
            f.uid = IMAPUID(*d.uid);
            f.threading = threadingKeys(parsed);
            f.subject = parsed.subject;
            f.from = parsed.from;
            f.to = parsed.to;
            f.cc = parsed.cc;
            f.replyTo = parsed.replyTo;
            f.internalDate = d.internalDate;
            f.date = parsed.date.value_or(d.internalDate.value_or(clock_()));
            f.flags = messageFlags(d.flags.value_or(std::vector<std::string>{}));
            f.size = static_cast<std::int64_t>(d.size.value_or(0));
            if (d.modSeq) f.modSeq = ModSeq(*d.modSeq);
            std::vector<AttachmentInfo> attachments;
            if (d.bodyStructure) attachments = attachmentsOf(*d.bodyStructure);
            f.hasAttachments = std::any_of(attachments.begin(), attachments.end(),
                                           [](const AttachmentInfo& a) { return !a.isInline; });
            fetched[*d.uid] = {std::move(f), std::move(attachments)};
        });
        FolderSyncCursor next = folder.cursor;
        advance(next, batch);
        std::vector<MessageIndexFields> fields;
        std::vector<std::vector<AttachmentInfo>> attachments;
        for (auto& [uid, message] : fetched) {
            fields.push_back(std::move(message.first));
            attachments.push_back(std::move(message.second));
        }
        const auto ids = store_.write([&](SQLiteDatabase&) {
            auto filed = store_.upsertSync(fields);
            for (std::size_t i = 0; i < filed.size(); ++i)
                if (!attachments[i].empty()) store_.replaceAttachments(filed[i], attachments[i]);
            store_.saveSyncCursor(folder.id, next);
            return filed;
        });
        pass.folder.cursor = next;
        filedIDs.insert(filedIDs.end(), ids.begin(), ids.end());
        pass.report.added += static_cast<std::int64_t>(ids.size());
        pass.progress.done += static_cast<std::int64_t>(batch.size());
        if (progress_) progress_(pass.progress);
    }
    return filedIDs;
}

}  // namespace mailcore
