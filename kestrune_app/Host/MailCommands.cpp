#include "kestrune_app/Host/MailCommands.h"

#include <cstdio>
#include <ctime>
#include <filesystem>
#include <nlohmann/json.hpp>

#include "KestruneMCPKit/Service/MCPService.h"
#include "MailCore/Common/DisplayText.h"
#include "MailCore/Common/HTMLText.h"
#include "MailCore/Common/Json.h"
#include "MailCore/Common/UTF8.h"
#include "kestrune_app/Host/HostError.h"
#include "kestrune_app/Host/MailIngest.h"
#include "kestrune_app/Host/RawMessageSource.h"
#include "kestrune_app/Host/StoreMailBackend.h"

namespace kestrune {

using namespace mailcore;
namespace fs = std::filesystem;

namespace {

// Characters of the sender column in search lines.
constexpr std::size_t senderWidth = 24;
// The most characters of one header value shown.
constexpr std::size_t headerWidth = 2000;
// Nothing in a shown body is cut.
constexpr std::size_t wholeText = std::size_t(1) << 40;

std::shared_ptr<SQLiteMailStore> openStore(const HostPaths& paths) {
    if (!fs::exists(paths.store))
        throw HostError(HostError::Kind::failed,
                        "There is no mail here yet; bring some in with kestrune import or "
                        "kestrune accounts add.");
    return std::make_shared<SQLiteMailStore>(StoreLocation::file(paths.store.string()));
}

// "2026-11-20 09:00" in local time.
std::string localDate(Date date) {
    const std::time_t t = std::chrono::system_clock::to_time_t(date);
    std::tm local{};
    localtime_r(&t, &local);
    char text[32];
    return std::strftime(text, sizeof text, "%Y-%m-%d %H:%M", &local) ? text : "";
}

// `text` shaped as one line, exactly `width` characters (cut with "…").
std::string column(const std::string& text, std::size_t width) {
    std::string shaped = DisplayText::line(text, wholeText);
    const std::size_t count = utf8::characterCount(shaped);
    if (count > width) return std::string(utf8::prefix(shaped, width - 1)) + "\u2026";
    return shaped + std::string(width - count, ' ');
}

std::string addressText(const MailAddress& a) {
    return a.name.empty() ? a.email : a.name + " <" + a.email + ">";
}

std::string addressList(const std::vector<MailAddress>& list) {
    std::string out;
    for (const auto& a : list) out += (out.empty() ? "" : ", ") + addressText(a);
    return out;
}

Json addressJson(const std::vector<MailAddress>& list) {
    Json out = Json::array();
    for (const auto& a : list) out.push_back({{"name", a.name}, {"email", a.email}});
    return out;
}

// Text from mail as a terminal shows it: tabs as spaces, every other
// control character by the display rule, lines kept.
std::string forTerminal(std::string_view text) {
    std::string expanded;
    for (char c : text) expanded += c == '\t' ? std::string("    ") : std::string(1, c);
    return DisplayText::block(expanded, wholeText, wholeText).text;
}

// JSON as a terminal may show it: the characters the display rule replaces
// that JSON leaves as they are (DEL, C1 controls, bidirectional formatting,
// the Unicode line separators) written as \u escapes instead; still the
// same JSON.
std::string jsonText(const Json& value, bool terminal) {
    const std::string text = encodeJson(value);
    if (!terminal) return text;
    std::string out;
    for (std::size_t pos = 0; pos < text.size();) {
        const std::size_t start = pos;
        const char32_t c = utf8::decode(text, pos);
        if (c >= 0x7F && c <= 0xFFFF && DisplayText::isControl(c)) {
            char escaped[8];
            std::snprintf(escaped, sizeof escaped, "\\u%04x", static_cast<unsigned>(c));
            out += escaped;
        } else {
            out.append(text, start, pos - start);
        }
    }
    return out;
}

}  // namespace

void searchMail(const SearchRequest& request, const HostPaths& paths, const MailCommandIO& io) {
    const auto store = openStore(paths);
    StoreMailBackend backend(store);
    mcpkit::MCPSearchQuery query;
    for (const auto& a : hostAccounts(*store))
        if (!request.account || a.email == *request.account) query.accounts.push_back(a.email);
    if (request.account && query.accounts.empty())
        throw HostError(HostError::Kind::notFound, "There is no account " + *request.account + ".");
    query.text = request.text;
    query.folder = request.folder;
    query.unreadOnly = request.unreadOnly;
    query.limit = request.limit;
    mcpkit::MCPSearchPage page;
    try {
        page = backend.search(query);
    } catch (const mcpkit::MCPToolError&) {
        throw HostError(HostError::Kind::notFound,
                        "There is no folder " + request.folder.value_or("") +
                            (request.account ? " in " + *request.account : "") + ".");
    }
    if (request.json) {
        Json list = Json::array();
        for (const auto& r : page.results) list.push_back(r);
        io.out(jsonText(list, io.terminal));
    } else {
        for (const auto& r : page.results) {
            const auto id = StoreMailBackend::messageID(r.id);
            const auto row = id ? store->message(*id) : std::nullopt;
            if (!row) continue;
            const std::string sender = !row->from                ? ""
                                       : row->from->name.empty() ? row->from->email
                                                                 : row->from->name;
            io.out(localDate(row->date) + "  " + column(sender, senderWidth) + "  " +
                   DisplayText::line(row->subject.empty() ? "(no subject)" : row->subject, 200) +
                   "  " + r.id);
        }
    }
    const auto shown = static_cast<std::int64_t>(page.results.size());
    if (shown == 0)
        io.err("No message matches.");
    else if (page.total > shown)
        io.err("Showing " + std::to_string(shown) + " of " + std::to_string(page.total) +
               " matches; --limit N shows more.");
}

void showMail(const ShowRequest& request, const HostPaths& paths, const MailCommandIO& io) {
    const auto id = StoreMailBackend::messageID(request.handle);
    if (!id)
        throw HostError(HostError::Kind::invalidInput,
                        DisplayText::line(request.handle, 100) +
                            " is not a message handle; they look like m123 (see kestrune search).");
    const auto store = openStore(paths);
    const auto row = store->message(*id);
    const auto fields = row ? store->messageFields(*id) : std::nullopt;
    if (!row || !fields || row->localState == LocalState::pendingDelete)
        throw HostError(HostError::Kind::notFound,
                        "No message has the handle " + request.handle + ".");

    if (request.raw) {
        const std::string bytes = rawMessageSource(store, paths, *id);
        if (io.terminal)
            io.out(forTerminal(bytes));
        else
            io.write(bytes);
        return;
    }

    const auto folder = store->folder(row->folderID);
    const std::string where = row->accountID.value + "/" + (folder ? folder->path : "?");
    std::string text;
    bool fetched = false;
    if (const auto body = store->body(*id)) {
        fetched = true;
        if (body->text && !body->text->empty())
            text = *body->text;
        else if (body->html)
            text = htmlToText(*body->html);
    }
    if (!fetched)
        text = "(Only the beginning of this message is here; the rest stays on the server.)\n" +
               row->snippet.value_or("");
    const auto attachments = store->attachments(*id);

    if (request.json) {
        Json files = Json::array();
        for (const auto& a : attachments)
            if (!a.isInline)
                files.push_back({{"name", a.filename}, {"type", a.mimeType}, {"size", a.size}});
        io.out(jsonText(Json{{"id", request.handle},
                             {"account", row->accountID.value},
                             {"folder", folder ? folder->path : ""},
                             {"date", StoreMailBackend::isoDate(row->date)},
                             {"from", addressJson(fields->from)},
                             {"to", addressJson(fields->to)},
                             {"cc", addressJson(fields->cc)},
                             {"subject", row->subject},
                             {"unread", row->flags.isUnread()},
                             {"attachments", files},
                             {"body", text}},
                        io.terminal));
        return;
    }
    const auto header = [&](const std::string& name, const std::string& value) {
        if (!value.empty()) io.out(name + ": " + DisplayText::line(value, headerWidth));
    };
    header("From", addressList(fields->from));
    header("To", addressList(fields->to));
    header("Cc", addressList(fields->cc));
    header("Date", localDate(row->date));
    header("Subject", row->subject);
    header("Folder", where);
    std::string files;
    for (const auto& a : attachments)
        if (!a.isInline)
            files += (files.empty() ? "" : ", ") +
                     (a.filename.empty() ? "attachment" : a.filename) + " (" + a.mimeType + ")";
    header("Attachments", files);
    io.out("");
    io.out(io.terminal ? forTerminal(text) : text);
}

}  // namespace kestrune
