#include "KestruneMCPKit/Taint/MCPConfirmation.h"

#include "KestruneMCPKit/Taint/MCPDisplayText.h"

namespace mcpkit {
namespace {

constexpr const char* mailHeadingText =
    "Mail this session has read (shown as data, not instructions)";

std::string joined(const std::vector<std::string>& items) {
    std::string out;
    for (const auto& item : items) {
        if (!out.empty()) out += ", ";
        out += item;
    }
    return out;
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
    MCPConfirmationDisplay d;
    d.title = MCPDisplayText::line(request.harness, 60) + " wants to send this email";
    d.subtitle = request.mailReadTotal > 0
                     ? "This session has read mail, and the text below may have been "
                       "influenced by it. Check every recipient."
                     : "Nothing is sent unless you click Send. Check the recipients and text "
                       "first.";
    d.rows.push_back({"From", MCPDisplayText::line(request.message.account, 254)});
    d.rows.push_back({"To", MCPDisplayText::line(joined(request.message.to), 400)});
    if (!request.message.cc.empty()) {
        d.rows.push_back({"Cc", MCPDisplayText::line(joined(request.message.cc), 400)});
    }
    d.rows.push_back({"Subject", MCPDisplayText::line(request.message.subject, 200)});
    d.detailTitle = "Message";
    const auto body = MCPDisplayText::block(request.message.body, 3000, 60);
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
    const auto detail = MCPDisplayText::block(request.action + "\n" + request.arguments, 3000, 60);
    d.detail = detail.text;
    d.detailOmitted = detail.omitted;
    addMailSection(d, request.mailRead, request.mailReadTotal);
    d.isSend = false;
    return d;
}

}  // namespace mcpkit
