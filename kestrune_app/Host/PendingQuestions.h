// Questions the application puts to the user while it waits: send and write
// confirmations and the undo-send window.
//
// Only the person can say yes. Open questions live in this object's memory,
// inside the running `serve`; a yes comes either from the terminal running
// `serve` (answerTyped) or, from another terminal, with the question's
// one-time code (answer), which `serve` shows next to the question and which
// is kept nowhere else: not in a file, not in the listing, not in any log.
// After `maxWrongCodes` wrong codes the question is declined. "no" and
// "undo" need no code: they only ever stop something.
//
// Each open question also leaves a record "<id>.json" (mode 0600, without
// the code) in a private directory, only so that a question cut short by a
// crash is known at the next start: withdrawPrevious() turns every record
// left by an earlier run into "<id>.expired", and hands back what the
// records carried (a send that was waiting, for instance, to be kept as a
// draft). No file is ever read as an answer.
//
// Thread-safe: the open questions are guarded by lock_; asking threads wait
// on a condition variable. Deadlines are measured with the injected clock.
#pragma once

#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "KestruneMCPKit/Taint/MCPConfirmation.h"
#include "MailCore/Common/Clock.h"
#include "MailCore/Common/Json.h"

namespace kestrune {

struct PendingQuestion {
    std::string id;
    std::string kind;    // "send", "write", "undo"
    std::string text;    // what is shown to the user (display-safe)
    double expires = 0;  // seconds since 1970
};

// How a question ended for the thread that asked it.
struct QuestionEnd {
    enum class Kind { answered, timedOut, withdrawn };
    Kind kind = Kind::timedOut;
    std::string answer;  // "yes", "no" or "undo" when answered
};

// What an answer did, for the person who gave it.
struct AnswerReply {
    bool ok = false;
    bool expired = false;  // the question belonged to a run that stopped
    std::string message;
};

class PendingQuestions {
public:
    static constexpr const char* yes = "yes";
    static constexpr const char* no = "no";
    static constexpr const char* undo = "undo";
    static constexpr int maxWrongCodes = 3;
    static constexpr const char* expiredText = "expired: Kestrune stopped before it was answered";

    // `say` receives lines for the terminal running `serve` (answers given
    // elsewhere, wrong codes); `newCode` makes one-time codes (random when
    // empty). `wake` bounds how long a waiting thread goes without looking
    // at the clock.
    PendingQuestions(std::filesystem::path directory, mailcore::Clock clock = {},
                     std::function<void(const std::string&)> say = {},
                     std::function<std::string()> newCode = {},
                     std::chrono::milliseconds wake = std::chrono::milliseconds(50));

    // Called by `show` with the question and its one-time code (empty for
    // questions that take no yes).
    using Show = std::function<void(const PendingQuestion&, const std::string& code)>;
    // Acts on an answer on the asking thread before the answerer is replied
    // to; returns the reply text (an undo says whether it happened).
    using Act = std::function<std::string(const std::string& answer)>;

    // Opens a question, hands it to `show`, waits up to `timeout` for an
    // answer, runs `act` on it and closes the question. `record` is kept in
    // the question's file until it closes (see withdrawPrevious).
    QuestionEnd ask(const std::string& kind, const std::string& text,
                    std::chrono::milliseconds timeout, const Show& show,
                    const mailcore::Json* record = nullptr, const Act& act = {});

    // The open questions, oldest first.
    std::vector<PendingQuestion> open() const;

    // An answer from another terminal. A yes needs the question's code.
    AnswerReply answer(const std::string& id, const std::string& answer,
                       const std::optional<std::string>& code);

    // An answer typed in the terminal running `serve`: "yes", "no" or "undo"
    // (or "y", "n", "u"), then the question's id, which may be left out while
    // only one question is open. Returns what to show there.
    std::string answerTyped(const std::string& line);

    // At start: the records of questions an earlier run left open, which
    // become expired. Returns their records.
    std::vector<mailcore::Json> withdrawPrevious();

    // At stop: every open question ends as withdrawn, and later asks too;
    // their records stay for the next start's withdrawPrevious.
    void withdrawAll();

    // Whether `id` names a question of a run that stopped (its record was
    // withdrawn, or is left by a run that is not serving any more).
    static bool leftByStoppedRun(const std::filesystem::path& directory, const std::string& id);

    const std::filesystem::path& directory() const { return directory_; }

private:
    struct Entry;
    AnswerReply settle(const std::shared_ptr<Entry>& entry, const std::string& answer,
                       std::unique_lock<std::mutex>& lock);

    std::filesystem::path directory_;
    mailcore::Clock clock_;
    std::function<void(const std::string&)> say_;
    std::function<std::string()> newCode_;
    std::chrono::milliseconds wake_;

    mutable std::mutex lock_;
    std::condition_variable changed_;
    std::map<std::string, std::shared_ptr<Entry>> open_;  // guarded by lock_
    bool withdrawn_ = false;                              // guarded by lock_
};

// The confirmation as lines of text for a terminal.
std::string renderDisplay(const mcpkit::MCPConfirmationDisplay& display);

// MCPSendConfirming answered through PendingQuestions. Only "yes" confirms;
// "no" declines; no answer in time, or a stop, is timedOut. A new message
// waiting for its yes is recorded so that a crash keeps it as a draft.
class FileConfirmer : public mcpkit::MCPSendConfirming {
public:
    FileConfirmer(std::shared_ptr<PendingQuestions> questions, PendingQuestions::Show show);

    mcpkit::MCPConfirmOutcome confirmWrite(const mcpkit::MCPWriteRequest& request,
                                           std::chrono::seconds timeout) override;
    mcpkit::MCPConfirmOutcome confirmSend(const mcpkit::MCPSendRequest& request,
                                          std::chrono::seconds timeout) override;

private:
    mcpkit::MCPConfirmOutcome ask(const std::string& kind,
                                  const mcpkit::MCPConfirmationDisplay& display,
                                  std::chrono::seconds timeout, const mailcore::Json* record);

    std::shared_ptr<PendingQuestions> questions_;
    PendingQuestions::Show show_;
};

}  // namespace kestrune
