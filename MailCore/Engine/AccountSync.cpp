#include "MailCore/Engine/AccountSync.h"

#include <algorithm>
#include <map>
#include <set>

namespace mailcore {
namespace {

std::string lower(std::string text) {
    for (char& ch : text)
        if (ch >= 'A' && ch <= 'Z') ch = static_cast<char>(ch - 'A' + 'a');
    return text;
}

// The last part of a folder's name ("Sent Items" of "INBOX/Sent Items").
std::string leafName(const IMAPMailbox& mailbox) {
    if (!mailbox.delimiter) return mailbox.name;
    const auto at = mailbox.name.rfind(*mailbox.delimiter);
    return at == std::string::npos ? mailbox.name : mailbox.name.substr(at + 1);
}

std::optional<FolderRole> roleOfName(const IMAPMailbox& mailbox) {
    static const std::map<std::string, FolderRole> names{{"sent", FolderRole::sent},
                                                         {"sent items", FolderRole::sent},
                                                         {"sent messages", FolderRole::sent},
                                                         {"sent mail", FolderRole::sent},
                                                         {"drafts", FolderRole::drafts},
                                                         {"draft", FolderRole::drafts},
                                                         {"trash", FolderRole::trash},
                                                         {"deleted items", FolderRole::trash},
                                                         {"deleted messages", FolderRole::trash},
                                                         {"bin", FolderRole::trash},
                                                         {"junk", FolderRole::junk},
                                                         {"spam", FolderRole::junk},
                                                         {"junk e-mail", FolderRole::junk},
                                                         {"junk email", FolderRole::junk},
                                                         {"archive", FolderRole::archive},
                                                         {"archives", FolderRole::archive}};
    auto it = names.find(lower(leafName(mailbox)));
    if (it == names.end()) return std::nullopt;
    return it->second;
}

int syncOrder(FolderRole role) {
    switch (role) {
        case FolderRole::inbox:
            return 0;
        case FolderRole::sent:
            return 1;
        case FolderRole::drafts:
            return 2;
        case FolderRole::flagged:
        case FolderRole::archive:
        case FolderRole::custom:
            return 3;
        case FolderRole::trash:
        case FolderRole::junk:
            return 4;
    }
    return 3;
}

}  // namespace

FolderRole roleOfSpecialUse(const IMAPMailbox& mailbox) {
    if (lower(mailbox.name) == "inbox") return FolderRole::inbox;
    static const std::map<std::string, FolderRole> uses{
        {"\\sent", FolderRole::sent},       {"\\drafts", FolderRole::drafts},
        {"\\trash", FolderRole::trash},     {"\\junk", FolderRole::junk},
        {"\\archive", FolderRole::archive}, {"\\flagged", FolderRole::flagged}};
    if (mailbox.specialUse) {
        auto it = uses.find(lower(*mailbox.specialUse));
        if (it != uses.end()) return it->second;
    }
    return FolderRole::custom;
}

std::vector<FolderListing> foldersFromListing(const std::vector<IMAPMailbox>& mailboxes) {
    std::vector<FolderListing> out;
    std::vector<const IMAPMailbox*> kept;
    std::set<FolderRole> taken;
    for (const auto& m : mailboxes) {
        if (!m.isSelectable()) continue;
        FolderListing l;
        l.path = m.name;
        if (m.delimiter) l.delimiter = std::string(1, *m.delimiter);
        l.serverRole = roleOfSpecialUse(m);
        l.attributes = m.attributes;
        if (l.serverRole != FolderRole::custom) taken.insert(l.serverRole);
        out.push_back(std::move(l));
        kept.push_back(&m);
    }
    for (std::size_t i = 0; i < out.size(); ++i) {
        if (out[i].serverRole != FolderRole::custom) continue;
        auto role = roleOfName(*kept[i]);
        if (role && taken.insert(*role).second) out[i].serverRole = *role;
    }
    return out;
}

AccountSync::AccountSync(SQLiteMailStore& store, AccountID account, SyncTuning tuning,
                         FolderSync::ProgressHandler progress, Clock clock)
    : store_(store),
      account_(std::move(account)),
      tuning_(tuning),
      progress_(std::move(progress)),
      clock_(std::move(clock)) {}

std::vector<FolderRecord> AccountSync::followFolders(IMAPSession& session) {
    const std::vector<FolderListing> listing = foldersFromListing(session.list());
    std::set<std::string> listed;
    for (const auto& l : listing) listed.insert(l.path);
    std::map<std::string, FolderRecord> stored;
    std::vector<FolderRecord> gone;
    for (auto& f : store_.folders(account_)) {
        if (!listed.count(f.path) && f.cursor.uidValidity) gone.push_back(f);
        stored.emplace(f.path, std::move(f));
    }
    // A folder renamed on the server keeps its UIDVALIDITY under its new
    // name: move the stored folder over instead of fetching it again.
    for (const auto& l : listing) {
        if (gone.empty()) break;
        if (stored.count(l.path)) continue;
        const IMAPFolderStatus status = session.status(l.path);
        if (!status.uidValidity) continue;
        auto it = std::find_if(gone.begin(), gone.end(), [&](const FolderRecord& f) {
            return f.cursor.uidValidity->value == *status.uidValidity;
        });
        if (it == gone.end()) continue;
        store_.renameFolder(it->id, l);
        gone.erase(it);
    }
    std::vector<FolderRecord> folders = store_.applyFolderListing(account_, listing);
    std::stable_sort(folders.begin(), folders.end(),
                     [](const FolderRecord& a, const FolderRecord& b) {
                         return syncOrder(a.role) < syncOrder(b.role);
                     });
    return folders;
}

AccountSyncReport AccountSync::run(IMAPSession& session, SyncDepth depth, std::stop_token stop) {
    if (tuning_.qresync && session.capabilities().has("QRESYNC") && !session.isEnabled("QRESYNC"))
        session.enable({"QRESYNC"});
    AccountSyncReport report;
    const std::vector<FolderRecord> folders = followFolders(session);
    report.folders = static_cast<std::int64_t>(folders.size());
    FolderSync folderSync(store_, session, tuning_, progress_, clock_);
    const auto pass = [&](SyncDepth passDepth) {
        for (const auto& listed : folders) {
            if (stop.stop_requested()) return;
            // The cursor as filed by the previous pass.
            const auto folder = store_.folder(listed.id);
            if (!folder) continue;
            const FolderSyncReport r = folderSync.sync(*folder, passDepth, stop);
            report.added += r.added;
            report.flagUpdates += r.flagUpdates;
            report.removed += r.removed;
            report.bytesFetched += r.bytesFetched;
            if (r.reset) ++report.foldersReset;
            report.newMessages.insert(report.newMessages.end(), r.newMessages.begin(),
                                      r.newMessages.end());
        }
    };
    pass(SyncDepth::window);
    if (depth == SyncDepth::full) pass(SyncDepth::full);
    return report;
}

}  // namespace mailcore
