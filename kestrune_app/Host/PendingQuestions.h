// Questions the application puts to the user while it waits: send and write
// confirmations and the undo-send window. Each open question is a private
// file "<id>.json" (mode 0600) in a private directory; the user answers from
// any terminal with `kestrune confirm yes|no|undo <id>`, which writes
// "<id>.answer". The asking thread polls for the answer until its deadline
// and then removes both files, so an unanswered question leaves nothing
// behind and a late answer changes nothing.
//
// Thread-safe: every question has its own files; nothing is shared in memory.
#pragma once

#include <chrono>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "KestruneMCPKit/Taint/MCPConfirmation.h"
#include "MailCore/Common/Json.h"

namespace kestrune {

struct PendingQuestion {
    std::string id;
    std::string kind;    // "send", "write", "undo"
    std::string text;    // what is shown to the user
    double expires = 0;  // seconds since 1970
};

class PendingQuestions {
public:
    // The answers a question can get.
    static constexpr const char* yes = "yes";
    static constexpr const char* no = "no";
    static constexpr const char* undo = "undo";

    explicit PendingQuestions(
        std::filesystem::path directory,
        std::chrono::milliseconds pollInterval = std::chrono::milliseconds(50));

    // Opens a question, hands it to `show`, waits up to `timeout` for an
    // answer and closes it. None when no answer came in time.
    std::optional<std::string> ask(const std::string& kind, const std::string& text,
                                   std::chrono::milliseconds timeout,
                                   const std::function<void(const PendingQuestion&)>& show);

    // The open questions, oldest first.
    std::vector<PendingQuestion> open() const;

    // Records an answer. False with `error` set when no such question is open
    // or the answer is not one of yes, no, undo.
    bool answer(const std::string& id, const std::string& answer, std::string& error) const;

    // An answer typed in the terminal running the application: "yes", "no"
    // or "undo" (or "y", "n", "u"), followed by the question's id, which may
    // be left out while only one question is open. Returns what to show the
    // user: the answer taken or why it was not.
    std::string answerTyped(const std::string& line) const;

    const std::filesystem::path& directory() const { return directory_; }

private:
    std::filesystem::path directory_;
    std::chrono::milliseconds poll_;
};

// The confirmation as lines of text for a terminal.
std::string renderDisplay(const mcpkit::MCPConfirmationDisplay& display);

// MCPSendConfirming answered through PendingQuestions. Only "yes" confirms;
// "no" declines; no answer in time is timedOut.
class FileConfirmer : public mcpkit::MCPSendConfirming {
public:
    FileConfirmer(std::shared_ptr<PendingQuestions> questions,
                  std::function<void(const PendingQuestion&)> show);

    mcpkit::MCPConfirmOutcome confirmWrite(const mcpkit::MCPWriteRequest& request,
                                           std::chrono::seconds timeout) override;
    mcpkit::MCPConfirmOutcome confirmSend(const mcpkit::MCPSendRequest& request,
                                          std::chrono::seconds timeout) override;

private:
    mcpkit::MCPConfirmOutcome ask(const std::string& kind,
                                  const mcpkit::MCPConfirmationDisplay& display,
                                  std::chrono::seconds timeout);

    std::shared_ptr<PendingQuestions> questions_;
    std::function<void(const PendingQuestion&)> show_;
};

}  // namespace kestrune
