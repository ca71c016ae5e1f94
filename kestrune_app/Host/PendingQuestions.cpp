#include "kestrune_app/Host/PendingQuestions.h"

#include <algorithm>
#include <nlohmann/json.hpp>
#include <sstream>
#include <stdexcept>
#include <thread>

#include "KestruneMCPKit/Link/MCPPaths.h"
#include "MailCore/Common/Clock.h"
#include "MailCore/Common/Random.h"
#include "kestrune_app/Host/HostPaths.h"

namespace kestrune {

namespace fs = std::filesystem;
using mailcore::Json;

namespace {

std::string newID() {
    static const char digits[] = "0123456789abcdef";
    std::string id;
    for (auto b : mailcore::randomBytes(4)) {
        id += digits[b >> 4];
        id += digits[b & 15];
    }
    return id;
}

bool validID(const std::string& id) {
    return id.size() == 8 && std::all_of(id.begin(), id.end(), [](char c) {
               return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f');
           });
}

}  // namespace

PendingQuestions::PendingQuestions(fs::path directory, std::chrono::milliseconds pollInterval)
    : directory_(std::move(directory)), poll_(pollInterval) {}

std::optional<std::string> PendingQuestions::ask(
    const std::string& kind, const std::string& text, std::chrono::milliseconds timeout,
    const std::function<void(const PendingQuestion&)>& show) {
    mcpkit::MCPPaths::preparePrivateDirectory(directory_);
    PendingQuestion q;
    q.id = newID();
    q.kind = kind;
    q.text = text;
    const auto deadline = std::chrono::system_clock::now() + timeout;
    q.expires = mailcore::secondsSince1970(deadline);
    const fs::path question = directory_ / (q.id + ".json");
    const fs::path answerFile = directory_ / (q.id + ".answer");
    std::string error;
    if (!writeControlFile(
            question,
            mailcore::encodeJson(
                Json{{"id", q.id}, {"kind", kind}, {"text", text}, {"expires", q.expires}}),
            &error))
        throw std::runtime_error("cannot write the question: " + error);
    if (show) show(q);
    std::optional<std::string> result;
    while (true) {
        if (auto answer = readControlFile(answerFile)) {
            result = *answer;
            break;
        }
        const auto now = std::chrono::system_clock::now();
        if (now >= deadline) break;
        std::this_thread::sleep_for(
            std::min<std::chrono::system_clock::duration>(poll_, deadline - now));
    }
    std::error_code ignored;
    fs::remove(question, ignored);
    fs::remove(answerFile, ignored);
    return result;
}

std::vector<PendingQuestion> PendingQuestions::open() const {
    std::vector<PendingQuestion> out;
    std::error_code error;
    if (!fs::is_directory(directory_, error)) return out;
    for (const auto& entry : fs::directory_iterator(directory_, error)) {
        if (entry.path().extension() != ".json") continue;
        auto data = readControlFile(entry.path());
        Json parsed;
        if (!data || !mailcore::tryParseJson(*data, parsed) || !parsed.is_object()) continue;
        const Json* json = &parsed;
        PendingQuestion q;
        q.id = json->value("id", "");
        q.kind = json->value("kind", "");
        q.text = json->value("text", "");
        q.expires = json->value("expires", 0.0);
        if (validID(q.id)) out.push_back(q);
    }
    std::sort(out.begin(), out.end(), [](const PendingQuestion& a, const PendingQuestion& b) {
        return a.expires < b.expires;
    });
    return out;
}

bool PendingQuestions::answer(const std::string& id, const std::string& answer,
                              std::string& error) const {
    if (answer != yes && answer != no && answer != undo) {
        error = "the answer must be yes, no or undo";
        return false;
    }
    if (!validID(id) || !fs::exists(directory_ / (id + ".json"))) {
        error = "no open question " + id + " (it may have been answered or timed out)";
        return false;
    }
    std::string writeError;
    if (!writeControlFile(directory_ / (id + ".answer"), answer, &writeError)) {
        error = "cannot record the answer: " + writeError;
        return false;
    }
    return true;
}

std::string PendingQuestions::answerTyped(const std::string& line) const {
    std::istringstream words(line);
    std::string verb, id, extra;
    words >> verb >> id >> extra;
    if (verb.empty()) return "";
    static const std::pair<const char*, const char*> verbs[] = {
        {"y", yes}, {"yes", yes}, {"n", no}, {"no", no}, {"u", undo}, {"undo", undo}};
    const char* answerWord = nullptr;
    for (const auto& [typed, word] : verbs)
        if (verb == typed) answerWord = word;
    if (!answerWord || !extra.empty()) return "Type yes, no or undo, then the question's id.";
    if (id.empty()) {
        const auto waiting = open();
        if (waiting.empty()) return "No confirmation is waiting.";
        if (waiting.size() > 1) return "Several confirmations are waiting: add the id.";
        id = waiting.front().id;
    }
    std::string error;
    if (!answer(id, answerWord, error)) return "Not answered: " + error + ".";
    return "Answered " + id + ": " + answerWord + ".";
}

std::string renderDisplay(const mcpkit::MCPConfirmationDisplay& d) {
    std::string out = d.title + "\n";
    if (!d.subtitle.empty()) out += d.subtitle + "\n";
    for (const auto& row : d.rows) out += "  " + row.label + ": " + row.value + "\n";
    if (!d.detail.empty() || !d.detailTitle.empty()) {
        out += d.detailTitle + "\n";
        std::size_t start = 0;
        while (start <= d.detail.size()) {
            const auto end = d.detail.find('\n', start);
            out +=
                "  | " +
                d.detail.substr(start, end == std::string::npos ? std::string::npos : end - start) +
                "\n";
            if (end == std::string::npos) break;
            start = end + 1;
        }
        if (d.detailOmitted > 0) out += "  (" + std::to_string(d.detailOmitted) + " more lines)\n";
    }
    if (d.mailHeading) {
        out += *d.mailHeading + "\n";
        for (const auto& line : d.mailLines) out += "  - " + line + "\n";
    }
    return out;
}

FileConfirmer::FileConfirmer(std::shared_ptr<PendingQuestions> questions,
                             std::function<void(const PendingQuestion&)> show)
    : questions_(std::move(questions)), show_(std::move(show)) {}

mcpkit::MCPConfirmOutcome FileConfirmer::ask(const std::string& kind,
                                             const mcpkit::MCPConfirmationDisplay& display,
                                             std::chrono::seconds timeout) {
    const auto answer = questions_->ask(kind, renderDisplay(display), timeout, show_);
    if (!answer) return mcpkit::MCPConfirmOutcome::timedOut;
    return *answer == PendingQuestions::yes ? mcpkit::MCPConfirmOutcome::confirmed
                                            : mcpkit::MCPConfirmOutcome::declined;
}

mcpkit::MCPConfirmOutcome FileConfirmer::confirmWrite(const mcpkit::MCPWriteRequest& request,
                                                      std::chrono::seconds timeout) {
    return ask("write", mcpkit::MCPConfirmationDisplay::write(request), timeout);
}

mcpkit::MCPConfirmOutcome FileConfirmer::confirmSend(const mcpkit::MCPSendRequest& request,
                                                     std::chrono::seconds timeout) {
    return ask("send", mcpkit::MCPConfirmationDisplay::send(request), timeout);
}

}  // namespace kestrune
