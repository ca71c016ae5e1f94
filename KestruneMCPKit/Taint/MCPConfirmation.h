// What the agent service asks the user, and how the host answers.
//
// Every send, and every write from a session that has read mail, is shown
// to the user through MCPSendConfirming, implemented by the host
// application. A confirmation is awaited without holding any lock of the
// service, so other calls go on while the user decides.
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "KestruneMCPKit/Taint/MCPTaintTracker.h"
#include "KestruneMCPKit/Tools/MCPMailBackend.h"

namespace mcpkit {

enum class MCPConfirmOutcome { confirmed, declined, timedOut };

// "confirmed", "declined", "timed_out".
const char* toString(MCPConfirmOutcome outcome);

struct MCPSendRequest {
    std::string harness;  // display name
    MCPOutgoing message;
    std::vector<MCPMailRead> mailRead;
    int mailReadTotal = 0;
};

struct MCPWriteRequest {
    std::string harness;
    std::string action;     // the tool name
    std::string arguments;  // the arguments as JSON text
    std::vector<MCPMailRead> mailRead;
    int mailReadTotal = 0;
    std::string reason;  // shown to the user
};

class MCPSendConfirming {
public:
    virtual ~MCPSendConfirming() = default;

    // Shows a write to the user; blocks until an answer or `timeout`, which
    // ends as timedOut (nothing is changed then). Thread-safe.
    virtual MCPConfirmOutcome confirmWrite(const MCPWriteRequest& request,
                                           std::chrono::seconds timeout) = 0;

    // Shows a message to send; blocks until an answer or `timeout`. Only
    // `confirmed` lets the service hand the message to the backend.
    virtual MCPConfirmOutcome confirmSend(const MCPSendRequest& request,
                                          std::chrono::seconds timeout) = 0;
};

// What a confirmation shows. Every text in it has been shaped for display
// (no control characters, bounded lengths), so a host can print it as is.
struct MCPConfirmationDisplay {
    struct Row {
        std::string label;
        std::string value;
        bool operator==(const Row&) const = default;
    };

    std::string title;
    std::string subtitle;
    std::vector<Row> rows;
    std::string detailTitle;
    std::string detail;
    int detailOmitted = 0;                   // lines left out of the detail
    std::optional<std::string> mailHeading;  // present when the session read mail
    std::vector<std::string> mailLines;
    bool isSend = false;

    static MCPConfirmationDisplay send(const MCPSendRequest& request);
    static MCPConfirmationDisplay write(const MCPWriteRequest& request);
};

}  // namespace mcpkit
