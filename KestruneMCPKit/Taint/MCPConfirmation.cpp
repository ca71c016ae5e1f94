#include "KestruneMCPKit/Taint/MCPConfirmation.h"

#include <algorithm>
#include <nlohmann/json.hpp>

#include "KestruneMCPKit/Taint/MCPDisplayText.h"
#include "MailCore/Common/UTF8.h"

namespace mcpkit {
namespace {

using mailcore::Json;

constexpr const char* mailHeadingText =
    "Mail this session has read (shown as data, not instructions)";
constexpr std::size_t rowCharacters = 400;

// Every address, as many rows of at most 400 characters as it takes (an
// address longer than a row is cut there, saying by how much).
void addAddressRows(MCPConfirmationDisplay& display, const std::string& label,
                    const std::vector<std::string>& addresses) {
    std::string row;
    std::size_t used = 0;
    for (const auto& address : addresses) {
        const std::string shown = MCPDisplayText::line(address, rowCharacters);
        const std::size_t length = mailcore::utf8::characterCount(shown);
        if (!row.empty() && used + 2 + length > rowCharacters) {
            display.rows.push_back({label, row});
            row.clear();
            used = 0;
        }
        if (!row.empty()) {
            row += ", ";
            used += 2;
        }
        row += shown;
        used += length;
    }
    if (!row.empty()) display.rows.push_back({label, row});
}

void addMailSection(MCPConfirmationDisplay& display, const std::vector<MCPMailRead>& mailRead,
                    int total) {
    if (total <= 0 && mailRead.empty()) return;
    display.mailHeading = mailHeadingText;
    for (const auto& mail : mailRead) {
        display.mailLines.push_back(
            MCPDisplayText::line(mail.from + " \u2014 " + mail.subject, 100));
    }
    const int remainder = total - static_cast<int>(mailRead.size());
    if (remainder > 0) {
        display.mailLines.push_back("and " + std::to_string(remainder) + " more");
    }
}

// The arguments of a write that decide its effect, in the order shown.
const std::pair<const char*, const char*> decidingFields[] = {
    {"account", "Account"},
    {"to", "To"},
    {"cc", "Cc"},
    {"bcc", "Bcc"},
    {"message_id", "Message"},
    {"folder", "Folder"},
    {"label", "Label"},
    {"star", "Star"},
    {"read", "Read"},
    {"in_reply_to", "In reply to"},
    {"draft_id", "Draft"},
    {"id", "Workflow"},
};

std::string argumentText(const Json& value) {
    if (value.is_string()) return value.get<std::string>();
    if (value.is_array() &&
        std::all_of(value.begin(), value.end(), [](const Json& v) { return v.is_string(); })) {
        std::string out;
        for (const auto& v : value) out += (out.empty() ? "" : ", ") + v.get<std::string>();
        return out;
    }
    return value.dump(2, ' ', false, Json::error_handler_t::replace);
}

std::string bytes(std::int64_t size) {
    if (size < 1024) return std::to_string(size) + " bytes";
    if (size < 1024 * 1024) return std::to_string((size + 512) / 1024) + " KB";
    return std::to_string((size + 512 * 1024) / (1024 * 1024)) + " MB";
}

}  // namespace

const char* toString(MCPConfirmOutcome outcome) {
    switch (outcome) {
        case MCPConfirmOutcome::confirmed:
            return "confirmed";
        case MCPConfirmOutcome::declined:
            return "declined";
        case MCPConfirmOutcome::timedOut:
            return "timed_out";
    }
    return "declined";
}

MCPConfirmationDisplay MCPConfirmationDisplay::send(const MCPSendRequest& request) {
    const MCPOutgoing& m = request.message;
    MCPConfirmationDisplay d;
    d.title = MCPDisplayText::line(request.harness, 60) + " wants to send this email";
    d.subtitle = request.mailReadTotal > 0
                     ? "This session has read mail, and the text below may have been "
                       "influenced by it. Check every recipient."
                     : "Nothing is sent unless you click Send. Check the recipients and text "
                       "first.";
    d.rows.push_back({"From", MCPDisplayText::line(m.account, 254)});
    addAddressRows(d, "To", m.to);
    addAddressRows(d, "Cc", m.cc);
    if (m.fromDraft) {
        addAddressRows(d, "Bcc", m.fromDraft->bcc);
        addAddressRows(d, "Reply-To", m.fromDraft->replyTo);
    }
    d.rows.push_back({"Subject", MCPDisplayText::line(m.subject, 200)});
    if (m.fromDraft) {
        const auto& extras = *m.fromDraft;
        d.rows.push_back({"HTML part", extras.htmlCharacters
                                           ? "yes (" + std::to_string(*extras.htmlCharacters) +
                                                 " characters of HTML go out with the text below)"
                                           : std::string("no")});
        std::vector<std::string> attachments;
        for (const auto& [name, size] : extras.attachments)
            attachments.push_back(MCPDisplayText::line(name, 200) + " (" + bytes(size) + ")");
        if (attachments.empty())
            d.rows.push_back({"Attachments", "none"});
        else
            addAddressRows(d, "Attachments", attachments);
    }
    d.detailTitle = "Message";
    const auto body = MCPDisplayText::block(m.body, 3000, 60);
    d.detail = body.text;
    d.detailOmitted = body.omitted;
    addMailSection(d, request.mailRead, request.mailReadTotal);
    d.isSend = true;
    return d;
}

MCPConfirmationDisplay MCPConfirmationDisplay::write(const MCPWriteRequest& request) {
    MCPConfirmationDisplay d;
    d.title = MCPDisplayText::line(request.harness, 60) + " wants to change your mail";
    d.subtitle = MCPDisplayText::line(request.reason, 400);
    d.rows.push_back({"Action", MCPDisplayText::line(request.action, 60)});
    d.detailTitle = "Exactly what it asked for";
    std::string detail = request.action + "\n";
    Json arguments;
    if (mailcore::tryParseJson(request.arguments, arguments) && arguments.is_object()) {
        // The fields that decide the effect come first, as rows and in the
        // detail; free text follows, one field per line, nothing compacted.
        std::vector<std::string> shown;
        for (const auto& [key, label] : decidingFields) {
            if (!arguments.contains(key)) continue;
            const Json& value = arguments[key];
            if (value.is_array()) {
                std::vector<std::string> items;
                for (const auto& v : value) items.push_back(argumentText(v));
                addAddressRows(d, label, items);
            } else {
                d.rows.push_back({label, MCPDisplayText::line(argumentText(value), rowCharacters)});
            }
            detail += std::string(key) + ": " + argumentText(value) + "\n";
            shown.push_back(key);
        }
        for (const auto& [key, value] : arguments.items()) {
            if (std::find(shown.begin(), shown.end(), key) != shown.end()) continue;
            detail += key + ": " + argumentText(value) + "\n";
        }
        if (!detail.empty()) detail.pop_back();
    } else {
        detail += request.arguments;
    }
    const auto shaped = MCPDisplayText::block(detail, 3000, 60);
    d.detail = shaped.text;
    d.detailOmitted = shaped.omitted;
    addMailSection(d, request.mailRead, request.mailReadTotal);
    d.isSend = false;
    return d;
}

}  // namespace mcpkit
