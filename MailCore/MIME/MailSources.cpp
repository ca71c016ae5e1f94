#include "MailCore/MIME/MailSources.h"

#include <algorithm>
#include <cstring>
#include <ctime>
#include <system_error>

#include "MailCore/Common/CaseFolding.h"
#include "MailCore/Common/MailError.h"
#include "MailCore/MIME/MIMEText.h"

namespace mailcore {

namespace fs = std::filesystem;

namespace {

bool isDirectory(const fs::path& path) {
    std::error_code ec;
    return fs::is_directory(fs::symlink_status(path, ec)) && !ec;
}

bool isMaildir(const fs::path& dir) { return isDirectory(dir / "cur") && isDirectory(dir / "new"); }

void collectNested(const fs::path& root, const fs::path& dir, int depth,
                   std::vector<MaildirFolderSource>& out) {
    if (depth > 20) return;
    std::vector<fs::path> children;
    std::error_code ec;
    for (fs::directory_iterator it(dir, ec), end; !ec && it != end; it.increment(ec)) {
        const std::string name = it->path().filename().string();
        if (name == "cur" || name == "new" || name == "tmp") continue;
        if (!isDirectory(it->path())) continue;
        children.push_back(it->path());
    }
    std::sort(children.begin(), children.end());
    for (const auto& child : children) {
        const std::string name = child.filename().string();
        const bool maildirPlusPlus = dir == root && name.size() > 1 && name[0] == '.';
        if (maildirPlusPlus) {
            if (!isMaildir(child)) continue;
            const std::string path = name.substr(1);
            const std::size_t lastDot = path.rfind('.');
            out.push_back(
                {path, std::string("."),
                 folderRoleForName(lastDot == std::string::npos ? path : path.substr(lastDot + 1)),
                 child});
            continue;
        }
        if (name[0] == '.') continue;  // hidden directories of other programs
        if (isMaildir(child)) {
            out.push_back({fs::relative(child, root).generic_string(), std::string("/"),
                           folderRoleForName(name), child});
        }
        collectNested(root, child, depth + 1, out);
    }
}

// Position of the info separator (":2," or "!2,"), or npos.
std::size_t infoSeparator(std::string_view name) {
    std::size_t pos = name.rfind(":2,");
    if (pos == std::string_view::npos) pos = name.rfind("!2,");
    return pos;
}

// "From sender Sat Jan  3 01:05:34 1996" (a time zone or "remote from ..."
// may follow); read as UTC.
std::optional<Date> fromLineDate(std::string_view line) {
    std::size_t pos = 5;
    while (pos < line.size() && line[pos] == ' ') ++pos;
    while (pos < line.size() && line[pos] != ' ') ++pos;  // the sender
    while (pos < line.size() && line[pos] == ' ') ++pos;
    std::string rest(line.substr(pos, std::min<std::size_t>(line.size() - pos, 64)));
    std::tm tm{};
    const char* end = strptime(rest.c_str(), "%a %b %d %H:%M:%S %Y", &tm);
    if (end == nullptr) return std::nullopt;
    const time_t seconds = timegm(&tm);
    if (seconds == static_cast<time_t>(-1)) return std::nullopt;
    return dateFromSeconds(static_cast<double>(seconds));
}

MessageFlags flagsFromStatusHeaders(std::string_view message) {
    MessageFlags flags;
    std::size_t pos = 0;
    while (pos < message.size()) {
        std::size_t end = message.find('\n', pos);
        if (end == std::string_view::npos) end = message.size();
        std::string_view line = message.substr(pos, end - pos);
        if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
        if (line.empty()) break;  // end of the header block
        std::string_view value;
        bool extended = false;
        if (startsWithNoCase(line, 0, "status:")) {
            value = line.substr(7);
        } else if (startsWithNoCase(line, 0, "x-status:")) {
            value = line.substr(9);
            extended = true;
        }
        for (char c : value) {
            if (!extended && c == 'R') flags.system |= MessageFlags::seen;
            if (extended && c == 'A') flags.system |= MessageFlags::answered;
            if (extended && c == 'F') flags.system |= MessageFlags::flagged;
            if (extended && c == 'D') flags.system |= MessageFlags::deleted;
            if (extended && c == 'T') flags.system |= MessageFlags::draft;
        }
        pos = end + 1;
    }
    return flags;
}

// A "From " line that separates messages names a sender and a time
// ("From alice@example.com Sat Jan  3 01:05:34 1996"); a sentence in a body
// that happens to start with "From " rarely has a "hh:mm" in it.
bool isSeparatorLine(std::string_view line) {
    if (line.substr(0, 5) != "From ") return false;
    for (std::size_t i = 5; i + 4 < line.size(); ++i) {
        auto digit = [&](std::size_t k) { return line[k] >= '0' && line[k] <= '9'; };
        if (line[i + 2] == ':' && digit(i) && digit(i + 1) && digit(i + 3) && digit(i + 4))
            return true;
    }
    return false;
}

bool looksLikeHeaderLine(std::string_view text) {
    const std::size_t colon = text.find(':');
    const std::size_t newline = text.find('\n');
    if (colon == std::string_view::npos || colon == 0 ||
        (newline != std::string_view::npos && newline < colon))
        return false;
    for (std::size_t i = 0; i < colon; ++i) {
        const auto c = static_cast<unsigned char>(text[i]);
        if (c <= 32 || c >= 127) return false;
    }
    return true;
}

}  // namespace

FolderRole folderRoleForName(std::string_view name) {
    const std::string n = asciiLower(name);
    if (n == "inbox") return FolderRole::inbox;
    if (n == "sent" || n == "sent items" || n == "sent mail" || n == "sent messages" ||
        n == "gesendet" || n == "envoyés")
        return FolderRole::sent;
    if (n == "drafts" || n == "draft" || n == "entwürfe" || n == "brouillons")
        return FolderRole::drafts;
    if (n == "trash" || n == "deleted items" || n == "deleted messages" || n == "bin" ||
        n == "papierkorb" || n == "corbeille")
        return FolderRole::trash;
    if (n == "junk" || n == "spam" || n == "junk e-mail" || n == "bulk mail")
        return FolderRole::junk;
    if (n == "archive" || n == "archives" || n == "all mail" || n == "archiv")
        return FolderRole::archive;
    return FolderRole::custom;
}

std::vector<MaildirFolderSource> findMaildirFolders(const fs::path& root) {
    if (!isDirectory(root)) {
        throw MailError::storage(StorageFailureKind::ioError,
                                 "cannot read maildir " + root.string());
    }
    std::vector<MaildirFolderSource> out;
    if (isMaildir(root)) out.push_back({"INBOX", std::nullopt, FolderRole::inbox, root});
    collectNested(root, root, 0, out);
    return out;
}

MessageFlags flagsFromMaildirName(std::string_view fileName) {
    MessageFlags flags;
    const std::size_t sep = infoSeparator(fileName);
    if (sep == std::string_view::npos) return flags;
    for (char c : fileName.substr(sep + 3)) {
        switch (c) {
            case 'D':
                flags.system |= MessageFlags::draft;
                break;
            case 'F':
                flags.system |= MessageFlags::flagged;
                break;
            case 'R':
                flags.system |= MessageFlags::answered;
                break;
            case 'S':
                flags.system |= MessageFlags::seen;
                break;
            case 'T':
                flags.system |= MessageFlags::deleted;
                break;
            case 'P':
                if (flags.keywords.empty()) flags.keywords.push_back("$Forwarded");
                break;
            default:
                break;
        }
    }
    return flags;
}

std::vector<MaildirMessageSource> listMaildirMessages(const fs::path& folder) {
    std::vector<MaildirMessageSource> out;
    for (const char* sub : {"cur", "new"}) {
        std::error_code ec;
        for (fs::directory_iterator it(folder / sub, ec), end; !ec && it != end; it.increment(ec)) {
            const std::string name = it->path().filename().string();
            if (name.empty() || name[0] == '.') continue;
            std::error_code typeError;
            if (!it->is_regular_file(typeError) || typeError) continue;
            const std::size_t sep = infoSeparator(name);
            std::string unique = sep == std::string::npos ? name : name.substr(0, sep);
            out.push_back({std::move(unique), it->path(), flagsFromMaildirName(name)});
        }
    }
    std::sort(out.begin(), out.end(),
              [](const auto& a, const auto& b) { return a.uniqueName < b.uniqueName; });
    // The same message in cur/ and new/ (a crash mid-rename): keep one.
    out.erase(
        std::unique(out.begin(), out.end(),
                    [](const auto& a, const auto& b) { return a.uniqueName == b.uniqueName; }),
        out.end());
    return out;
}

std::vector<MboxMessageSource> splitMbox(std::string_view data) {
    // Start offsets of "From " lines that begin a message.
    std::vector<std::pair<std::size_t, std::size_t>> starts;  // (line start, header start)
    std::size_t pos = 0;
    bool previousBlank = true;
    while (pos < data.size()) {
        const void* nl = std::memchr(data.data() + pos, '\n', data.size() - pos);
        const std::size_t end =
            nl == nullptr ? data.size()
                          : static_cast<std::size_t>(static_cast<const char*>(nl) - data.data());
        const std::string_view line = data.substr(pos, end - pos);
        if ((pos == 0 && line.substr(0, 5) == "From ") || (previousBlank && isSeparatorLine(line)))
            starts.emplace_back(pos, end + 1);
        previousBlank = line.empty() || line == "\r";
        pos = end + 1;
    }
    std::vector<MboxMessageSource> out;
    if (starts.empty() || starts.front().first > 0) {
        const std::size_t end = starts.empty() ? data.size() : starts.front().first;
        if (end > 0 && looksLikeHeaderLine(data.substr(0, end))) {
            MboxMessageSource m;
            m.length = end;
            out.push_back(m);
        }
    }
    for (std::size_t i = 0; i < starts.size(); ++i) {
        const auto [lineStart, headerStart] = starts[i];
        const std::size_t begin = std::min(headerStart, data.size());
        std::size_t end = i + 1 < starts.size() ? starts[i + 1].first : data.size();
        // The empty line before the next "From " line separates; it is not content.
        if (i + 1 < starts.size() && end > begin && data[end - 1] == '\n') {
            --end;
            if (end > begin && data[end - 1] == '\r') --end;
        }
        MboxMessageSource m;
        m.offset = begin;
        m.length = end > begin ? end - begin : 0;
        const std::string_view fromLine = data.substr(lineStart, headerStart - lineStart);
        m.internalDate = fromLineDate(fromLine);
        m.flags = flagsFromStatusHeaders(data.substr(begin, m.length));
        out.push_back(std::move(m));
    }
    return out;
}

std::string mboxMessageText(std::string_view data, const MboxMessageSource& source) {
    const std::string_view text = source.offset >= data.size()
                                      ? std::string_view()
                                      : data.substr(source.offset, source.length);
    std::string out;
    out.reserve(text.size());
    std::size_t pos = 0;
    while (pos < text.size()) {
        std::size_t end = text.find('\n', pos);
        end = end == std::string_view::npos ? text.size() : end + 1;
        std::string_view line = text.substr(pos, end - pos);
        std::size_t quotes = 0;
        while (quotes < line.size() && line[quotes] == '>') ++quotes;
        if (quotes > 0 && line.substr(quotes, 5) == "From ") line.remove_prefix(1);
        out.append(line);
        pos = end;
    }
    return out;
}

}  // namespace mailcore
