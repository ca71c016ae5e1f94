#include "kestrune_app/Host/MailIngest.h"

#include <algorithm>
#include <fstream>
#include <sstream>

#include <nlohmann/json.hpp>
#include <stdexcept>

#include "MailCore/MIME/MessageParser.h"

namespace kestrune {

using namespace mailcore;

namespace {

std::optional<HostAccount> accountFromConfig(const Json& config) {
    if (!config.is_object()) return std::nullopt;
    auto email = config.find("email");
    if (email == config.end() || !email->is_string()) return std::nullopt;
    HostAccount a;
    a.email = email->get<std::string>();
    a.label = config.value("label", a.email);
    a.demo = config.value("demo", false);
    return a;
}

std::vector<MailAddress> addresses(const std::vector<MIMEAddress>& list) {
    std::vector<MailAddress> out;
    out.reserve(list.size());
    for (const auto& a : list) out.push_back({a.name, a.email});
    return out;
}

std::string bracketed(const std::vector<std::string>& ids) {
    std::string out;
    for (const auto& id : ids) out += "<" + id + "> ";
    return out;
}

std::string readFile(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) throw std::runtime_error("cannot read " + path.string());
    std::ostringstream s;
    s << in.rdbuf();
    return s.str();
}

}  // namespace

std::optional<HostAccount> hostAccount(SQLiteMailStore& store, const std::string& email) {
    auto config = store.accountConfig(AccountID(email));
    if (!config) return std::nullopt;
    return accountFromConfig(*config);
}

std::vector<HostAccount> hostAccounts(SQLiteMailStore& store) {
    std::vector<HostAccount> out;
    for (const auto& config : store.accountConfigs()) {
        if (auto a = accountFromConfig(config)) out.push_back(*a);
    }
    return out;
}

HostAccount ensureAccount(SQLiteMailStore& store, const HostAccount& account, Date now) {
    if (account.email.find('@') == std::string::npos || account.email.size() > 320)
        throw std::invalid_argument("not a mail address: " + account.email);
    if (auto existing = hostAccount(store, account.email)) return *existing;
    return store.write([&](SQLiteDatabase&) {
        Json config{{"email", account.email},
                    {"label", account.label.empty() ? account.email : account.label},
                    {"demo", account.demo}};
        store.saveAccount(AccountID(account.email), config, now);
        const std::pair<const char*, FolderRole> folders[] = {{"INBOX", FolderRole::inbox},
                                                              {"Sent", FolderRole::sent},
                                                              {"Drafts", FolderRole::drafts},
                                                              {"Archive", FolderRole::archive},
                                                              {"Trash", FolderRole::trash}};
        for (const auto& [path, role] : folders) {
            FolderListing listing;
            listing.path = path;
            listing.delimiter = "/";
            listing.serverRole = role;
            store.createFolder(AccountID(account.email), listing);
        }
        return *accountFromConfig(config);
    });
}

FolderID folderWithRole(SQLiteMailStore& store, const std::string& account, FolderRole role) {
    for (const auto& f : store.folders(AccountID(account))) {
        if (f.role == role) return f.id;
    }
    throw std::runtime_error("account " + account + " has no " + std::string(rawValue(role)) +
                             " folder");
}

MessageID fileMessage(SQLiteMailStore& store, const std::string& account, FolderID folder,
                      std::string_view raw, const MessageFlags& flags, Date now) {
    static const MessageParser parser;
    const ParsedMessage parsed = parser.parse(raw);

    MessageIndexFields f;
    f.accountID = AccountID(account);
    f.folderID = folder;
    f.threading = ThreadingKeys::fromHeaders(parsed.messageID ? "<" + *parsed.messageID + ">" : "",
                                             bracketed(parsed.inReplyTo),
                                             bracketed(parsed.references), parsed.subject);
    f.subject = parsed.subject;
    f.from = addresses(parsed.from);
    f.to = addresses(parsed.to);
    f.cc = addresses(parsed.cc);
    f.replyTo = addresses(parsed.replyTo);
    f.date = parsed.date.value_or(now);
    f.internalDate = now;
    f.flags = flags;
    f.size = parsed.size;
    f.hasAttachments = parsed.hasAttachments;
    f.snippet = parsed.snippet;

    StoredBody body;
    body.text = parsed.text;
    body.html = parsed.html;
    body.isTruncated = parsed.isTruncated;
    body.fetchedAt = now;
    body.bytes = parsed.size;

    std::vector<AttachmentInfo> attachments;
    for (const auto& a : parsed.attachments) {
        AttachmentInfo info;
        info.partID = PartID(a.partID);
        info.filename = a.filename;
        info.mimeType = a.mimeType;
        info.size = a.size;
        info.contentID = a.contentID;
        info.isInline = a.isInline;
        attachments.push_back(info);
    }
    return store.write([&](SQLiteDatabase&) {
        const MessageID id = store.upsertSync({f}).front();
        store.saveBody(id, body);
        if (!attachments.empty()) store.replaceAttachments(id, attachments);
        return id;
    });
}

ImportResult importMaildir(SQLiteMailStore& store, const std::string& account,
                           const std::filesystem::path& dir, Date now) {
    namespace fs = std::filesystem;
    if (!fs::is_directory(dir / "cur") && !fs::is_directory(dir / "new"))
        throw std::runtime_error(dir.string() + " is not a Maildir (no cur/ or new/)");
    const FolderID inbox = folderWithRole(store, account, FolderRole::inbox);
    std::vector<fs::path> files;
    for (const char* sub : {"cur", "new"}) {
        std::error_code error;
        if (!fs::is_directory(dir / sub)) continue;
        for (const auto& entry : fs::directory_iterator(dir / sub, error)) {
            if (entry.is_regular_file()) files.push_back(entry.path());
        }
    }
    std::sort(files.begin(), files.end());
    ImportResult result;
    for (const auto& file : files) {
        try {
            const std::string raw = readFile(file);
            if (raw.empty()) {
                ++result.skipped;
                continue;
            }
            MessageFlags flags;
            const std::string name = file.filename().string();
            const auto info = name.find(":2,");
            if (info != std::string::npos) {
                const std::string letters = name.substr(info + 3);
                if (letters.find('S') != std::string::npos) flags.system |= MessageFlags::seen;
                if (letters.find('F') != std::string::npos) flags.system |= MessageFlags::flagged;
                if (letters.find('R') != std::string::npos) flags.system |= MessageFlags::answered;
            }
            fileMessage(store, account, inbox, raw, flags, now);
            ++result.imported;
        } catch (const std::exception&) {
            ++result.skipped;
        }
    }
    return result;
}

std::vector<std::string> splitMbox(std::string_view text) {
    std::vector<std::string> out;
    std::string current;
    bool inMessage = false;
    std::size_t pos = 0;
    while (pos < text.size()) {
        std::size_t end = text.find('\n', pos);
        std::string_view line =
            text.substr(pos, end == std::string_view::npos ? std::string_view::npos : end - pos + 1);
        pos = end == std::string_view::npos ? text.size() : end + 1;
        if (line.starts_with("From ")) {
            if (inMessage && !current.empty()) out.push_back(std::move(current));
            current.clear();
            inMessage = true;
            continue;
        }
        if (!inMessage) continue;
        // ">From ", ">>From " ... lose one quoting level.
        std::size_t quotes = 0;
        while (quotes < line.size() && line[quotes] == '>') ++quotes;
        if (quotes > 0 && line.substr(quotes).starts_with("From ")) line.remove_prefix(1);
        current.append(line);
    }
    if (inMessage && !current.empty()) out.push_back(std::move(current));
    return out;
}

ImportResult importMbox(SQLiteMailStore& store, const std::string& account,
                        const std::filesystem::path& file, Date now) {
    if (!std::filesystem::is_regular_file(file))
        throw std::runtime_error(file.string() + " is not a file");
    const std::string text = readFile(file);
    const FolderID inbox = folderWithRole(store, account, FolderRole::inbox);
    ImportResult result;
    for (const auto& raw : splitMbox(text)) {
        try {
            if (raw.find_first_not_of("\r\n") == std::string::npos) {
                ++result.skipped;
                continue;
            }
            fileMessage(store, account, inbox, raw, MessageFlags{}, now);
            ++result.imported;
        } catch (const std::exception&) {
            ++result.skipped;
        }
    }
    return result;
}

}  // namespace kestrune
