#include "kestrune_app/Host/PendingQuestions.h"

#include <algorithm>
#include <nlohmann/json.hpp>
#include <sstream>
#include <stdexcept>

#include "KestruneMCPKit/Link/MCPPaths.h"
#include "MailCore/Common/PrivateFiles.h"
#include "MailCore/Common/Random.h"
#include "kestrune_app/Host/HostError.h"
#include "kestrune_app/Host/HostPaths.h"

namespace kestrune {

namespace fs = std::filesystem;
using mailcore::Json;

namespace {

// Letters and digits that cannot be mistaken for one another.
constexpr std::string_view codeAlphabet = "abcdefghjkmnpqrstuvwxyz23456789";
constexpr std::size_t codeLength = 6;
// Records of stopped runs are forgotten after a week.
constexpr auto expiredKept = std::chrono::hours(24 * 7);

std::string randomCode() {
    std::string code;
    while (code.size() < codeLength) {
        for (auto b : mailcore::randomBytes(16)) {
            // Rejection keeps every letter equally likely.
            if (b >= 256 - 256 % codeAlphabet.size() || code.size() == codeLength) continue;
            code += codeAlphabet[b % codeAlphabet.size()];
        }
    }
    return code;
}

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

// Compares without stopping at the first difference.
bool sameCode(const std::string& expected, std::string typed) {
    for (auto& c : typed) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    if (typed.size() != expected.size()) return false;
    unsigned char diff = 0;
    for (std::size_t i = 0; i < typed.size(); ++i)
        diff |= static_cast<unsigned char>(typed[i] ^ expected[i]);
    return diff == 0;
}

}  // namespace

struct PendingQuestions::Entry {
    PendingQuestion question;
    std::string code;  // empty: the question takes no yes
    int wrongCodes = 0;
    std::optional<std::string> answer;
    std::optional<std::string> actReply;  // set once the asker acted on the answer
};

PendingQuestions::PendingQuestions(fs::path directory, mailcore::Clock clock,
                                   std::function<void(const std::string&)> say,
                                   std::function<std::string()> newCode,
                                   std::chrono::milliseconds wake)
    : directory_(std::move(directory)),
      clock_(clock ? std::move(clock) : mailcore::systemClock()),
      say_(std::move(say)),
      newCode_(newCode ? std::move(newCode) : randomCode),
      wake_(wake) {}

QuestionEnd PendingQuestions::ask(const std::string& kind, const std::string& text,
                                  std::chrono::milliseconds timeout, const Show& show,
                                  const Json* record, const Act& act) {
    mcpkit::MCPPaths::preparePrivateDirectory(directory_);
    auto entry = std::make_shared<Entry>();
    PendingQuestion& q = entry->question;
    q.id = newID();
    q.kind = kind;
    q.text = text;
    const auto deadline = clock_() + timeout;
    q.expires = mailcore::secondsSince1970(deadline);
    if (kind != undo) entry->code = newCode_();
    const fs::path file = directory_ / (q.id + ".json");
    std::string error;
    Json stored{{"id", q.id}, {"kind", kind}, {"text", text}, {"expires", q.expires}};
    if (record) stored["record"] = *record;
    if (!mailcore::systemFiles()->writeAtomically(file, mailcore::encodeJson(stored), &error))
        throw HostError(HostError::Kind::failed, "cannot write the question: " + error);
    // A question withdrawn by a stop keeps its record for the next start.
    struct Close {
        PendingQuestions& self;
        const std::string& id;
        fs::path file;
        bool keepRecord = false;
        ~Close() {
            {
                std::lock_guard guard(self.lock_);
                self.open_.erase(id);
            }
            self.changed_.notify_all();
            std::error_code ignored;
            if (!keepRecord) fs::remove(file, ignored);
        }
    } close{*this, q.id, file};

    QuestionEnd end;
    {
        std::unique_lock lock(lock_);
        if (withdrawn_) {
            end.kind = QuestionEnd::Kind::withdrawn;
            close.keepRecord = true;
            return end;
        }
        open_[q.id] = entry;
    }
    if (show) show(q, entry->code);
    std::unique_lock lock(lock_);
    while (!entry->answer && !withdrawn_ && clock_() < deadline) changed_.wait_for(lock, wake_);
    if (!entry->answer) {
        end.kind = withdrawn_ ? QuestionEnd::Kind::withdrawn : QuestionEnd::Kind::timedOut;
        close.keepRecord = withdrawn_;
        open_.erase(q.id);
        return end;
    }
    end.kind = QuestionEnd::Kind::answered;
    end.answer = *entry->answer;
    lock.unlock();
    std::string reply = "Answered " + q.id + ": " + end.answer + ".";
    if (act) {
        try {
            reply = act(end.answer);
        } catch (const std::exception& e) {
            reply = std::string("Could not act on the answer: ") + e.what();
        }
    }
    lock.lock();
    entry->actReply = reply;
    open_.erase(q.id);
    changed_.notify_all();
    return end;
}

std::vector<PendingQuestion> PendingQuestions::open() const {
    std::vector<PendingQuestion> out;
    {
        std::lock_guard guard(lock_);
        for (const auto& [id, entry] : open_)
            if (!entry->answer) out.push_back(entry->question);
    }
    std::sort(out.begin(), out.end(), [](const PendingQuestion& a, const PendingQuestion& b) {
        return a.expires < b.expires;
    });
    return out;
}

AnswerReply PendingQuestions::settle(const std::shared_ptr<Entry>& entry, const std::string& answer,
                                     std::unique_lock<std::mutex>& lock) {
    entry->answer = answer;
    changed_.notify_all();
    // The asker acts on the answer (an undo takes the send back); the reply
    // says what happened. Bounded, so that a stuck asker cannot hang the
    // person's terminal.
    const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (!entry->actReply && std::chrono::steady_clock::now() < until)
        changed_.wait_for(lock, wake_);
    AnswerReply reply;
    reply.ok = true;
    reply.message = entry->actReply.value_or("Answered " + entry->question.id + ": " + answer +
                                             " (Kestrune has not finished acting on it yet).");
    return reply;
}

AnswerReply PendingQuestions::answer(const std::string& id, const std::string& given,
                                     const std::optional<std::string>& code) {
    AnswerReply reply;
    if (given != yes && given != no && given != undo) {
        reply.message = "the answer must be yes, no or undo";
        return reply;
    }
    std::unique_lock lock(lock_);
    auto it = validID(id) ? open_.find(id) : open_.end();
    if (it == open_.end() || it->second->answer) {
        lock.unlock();
        if (validID(id) && leftByStoppedRun(directory_, id)) {
            reply.expired = true;
            reply.message = expiredText;
        } else {
            reply.message = "no open question " + (validID(id) ? id : std::string("with that id")) +
                            " (it may have been answered or timed out)";
        }
        return reply;
    }
    auto entry = it->second;
    const bool isUndo = entry->question.kind == undo;
    if (isUndo && given == yes) {
        reply.message = "this send goes out when its undo window ends; answer undo to stop it";
        return reply;
    }
    if (!isUndo && given == undo) {
        reply.message = "answer yes or no to this question";
        return reply;
    }
    std::string decided = isUndo ? std::string(undo) : given;
    if (given == yes) {
        if (!code || code->empty()) {
            reply.message = "a yes needs the code shown next to the question by `kestrune serve`";
            return reply;
        }
        if (!sameCode(entry->code, *code)) {
            const int left = maxWrongCodes - ++entry->wrongCodes;
            if (left > 0) {
                if (say_) say_("A wrong code was typed for question " + id + ".");
                reply.message = "wrong code for question " + id + " (" + std::to_string(left) +
                                (left == 1 ? " try" : " tries") + " left)";
                return reply;
            }
            if (say_)
                say_("Question " + id + " declined: " + std::to_string(maxWrongCodes) +
                     " wrong codes were typed for it.");
            settle(entry, no, lock);
            reply.message = "wrong code for question " + id + ": after " +
                            std::to_string(maxWrongCodes) + " wrong codes it is declined";
            return reply;
        }
    }
    if (say_) say_("Question " + id + " answered from another terminal: " + decided + ".");
    return settle(entry, decided, lock);
}

std::string PendingQuestions::answerTyped(const std::string& line) {
    std::istringstream words(line);
    std::string verb, id, extra;
    words >> verb >> id >> extra;
    if (verb.empty()) return "";
    static const std::pair<const char*, const char*> verbs[] = {
        {"y", yes}, {"yes", yes}, {"n", no}, {"no", no}, {"u", undo}, {"undo", undo}};
    const char* word = nullptr;
    for (const auto& [typed, full] : verbs)
        if (verb == typed) word = full;
    if (!word || !extra.empty()) return "Type yes, no or undo, then the question's id.";
    std::unique_lock lock(lock_);
    std::vector<std::shared_ptr<Entry>> waiting;
    for (const auto& [key, entry] : open_)
        if (!entry->answer) waiting.push_back(entry);
    std::shared_ptr<Entry> entry;
    if (id.empty()) {
        if (waiting.empty()) return "No confirmation is waiting.";
        if (waiting.size() > 1) return "Several confirmations are waiting: add the id.";
        entry = waiting.front();
    } else {
        for (const auto& e : waiting)
            if (e->question.id == id) entry = e;
        if (!entry) return "Not answered: no open question " + id + ".";
    }
    const bool isUndo = entry->question.kind == undo;
    if (isUndo && std::string(word) == yes)
        return "Not answered: this send goes out when its undo window ends; type u to stop it.";
    if (!isUndo && std::string(word) == undo) return "Not answered: type y or n.";
    return settle(entry, isUndo ? std::string(undo) : std::string(word), lock).message;
}

std::vector<Json> PendingQuestions::withdrawPrevious() {
    std::vector<Json> records;
    std::error_code error;
    if (!fs::is_directory(directory_, error)) return records;
    const auto now = fs::file_time_type::clock::now();
    for (const auto& entry : fs::directory_iterator(directory_, error)) {
        const fs::path path = entry.path();
        const std::string stem = path.stem().string();
        std::error_code ignored;
        if (path.extension() == ".expired") {
            const auto written = fs::last_write_time(path, ignored);
            if (!ignored && now - written > expiredKept) fs::remove(path, ignored);
            continue;
        }
        if (path.extension() != ".json") {
            if (path.extension() == ".answer") fs::remove(path, ignored);  // never read
            continue;
        }
        const auto data = readControlFile(path);
        Json parsed;
        if (validID(stem) && data && mailcore::tryParseJson(*data, parsed) && parsed.is_object()) {
            if (parsed.contains("record")) records.push_back(parsed["record"]);
            parsed.erase("record");
            writeControlFile(directory_ / (stem + ".expired"), mailcore::encodeJson(parsed));
        }
        fs::remove(path, ignored);
    }
    return records;
}

void PendingQuestions::withdrawAll() {
    {
        std::lock_guard guard(lock_);
        withdrawn_ = true;
    }
    changed_.notify_all();
}

bool PendingQuestions::leftByStoppedRun(const fs::path& directory, const std::string& id) {
    if (!validID(id)) return false;
    std::error_code error;
    return fs::exists(directory / (id + ".expired"), error) ||
           fs::exists(directory / (id + ".json"), error);
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
                             PendingQuestions::Show show)
    : questions_(std::move(questions)), show_(std::move(show)) {}

mcpkit::MCPConfirmOutcome FileConfirmer::ask(const std::string& kind,
                                             const mcpkit::MCPConfirmationDisplay& display,
                                             std::chrono::seconds timeout, const Json* record) {
    const auto end = questions_->ask(kind, renderDisplay(display), timeout, show_, record);
    if (end.kind != QuestionEnd::Kind::answered) return mcpkit::MCPConfirmOutcome::timedOut;
    return end.answer == PendingQuestions::yes ? mcpkit::MCPConfirmOutcome::confirmed
                                               : mcpkit::MCPConfirmOutcome::declined;
}

mcpkit::MCPConfirmOutcome FileConfirmer::confirmWrite(const mcpkit::MCPWriteRequest& request,
                                                      std::chrono::seconds timeout) {
    return ask("write", mcpkit::MCPConfirmationDisplay::write(request), timeout, nullptr);
}

mcpkit::MCPConfirmOutcome FileConfirmer::confirmSend(const mcpkit::MCPSendRequest& request,
                                                     std::chrono::seconds timeout) {
    // A new message exists nowhere else while it waits: the record lets the
    // next start keep it as a draft if Kestrune stops first.
    const Json record{{"keepAsDraft", request.message}};
    return ask("send", mcpkit::MCPConfirmationDisplay::send(request), timeout,
               request.message.fromDraft ? nullptr : &record);
}

}  // namespace kestrune
