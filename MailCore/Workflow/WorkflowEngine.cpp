#include "MailCore/Workflow/WorkflowEngine.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <functional>
#include <iterator>
#include <map>
#include <nlohmann/json.hpp>
#include <set>

#include "MailCore/Common/CaseFolding.h"
#include "MailCore/Common/Random.h"
#include "MailCore/Workflow/WorkflowAI.h"
#include "MailCore/Workflow/WorkflowText.h"

namespace mailcore {

namespace {

constexpr std::chrono::seconds hour{3600};
constexpr const char* receivedFilter =
    "m.local_state != 'pendingDelete' AND (m.flags_system & 24) = 0 AND m.folder_id NOT IN "
    "(SELECT id FROM folders WHERE role IN ('sent', 'drafts', 'trash'))";

std::int64_t seconds(Date d) {
    return std::chrono::duration_cast<std::chrono::seconds>(d.time_since_epoch()).count();
}

bool isActive(const StoredWorkflow& w) { return w.approved && w.status == WorkflowStatus::active; }

bool watchesAccount(const WorkflowSpec& spec, const std::string& account) {
    if (spec.accounts.empty()) return true;
    const std::string lower = asciiLower(account);
    return std::any_of(spec.accounts.begin(), spec.accounts.end(),
                       [&](const std::string& a) { return asciiLower(a) == lower; });
}

bool hasCondition(const WorkflowSpec& spec, std::initializer_list<const char*> types) {
    return std::any_of(spec.conditions.begin(), spec.conditions.end(), [&](const auto& c) {
        return std::any_of(types.begin(), types.end(), [&](const char* t) { return c.type == t; });
    });
}

bool hasAction(const WorkflowSpec& spec, const char* type) {
    return std::any_of(spec.actions.begin(), spec.actions.end(),
                       [&](const WorkflowAction& a) { return a.type == type; });
}

std::string firstName(const std::string& name) {
    const auto space = name.find(' ');
    return space == std::string::npos ? name : name.substr(0, space);
}

std::string senderName(const std::string& from) {
    const auto open = from.rfind('<');
    if (open == std::string::npos || open == 0) return WorkflowMatcher::senderAddress(from);
    std::string name = from.substr(0, open);
    while (!name.empty() && (name.back() == ' ' || name.back() == '"')) name.pop_back();
    while (!name.empty() && (name.front() == ' ' || name.front() == '"')) name.erase(name.begin());
    return name.empty() ? WorkflowMatcher::senderAddress(from) : name;
}

// Fills {{name}} placeholders; unknown names stay as written (validation
// refuses them before a workflow can be approved).
std::string fillTemplate(const std::string& text,
                         const std::map<std::string, std::string>& values) {
    std::string out;
    std::size_t pos = 0;
    while (true) {
        const auto open = text.find("{{", pos);
        const auto close = open == std::string::npos ? open : text.find("}}", open + 2);
        if (close == std::string::npos) break;
        std::string name = text.substr(open + 2, close - open - 2);
        name.erase(0, name.find_first_not_of(" \t"));
        name.erase(name.find_last_not_of(" \t") + 1);
        out += text.substr(pos, open - pos);
        const auto it = values.find(name);
        out += it == values.end() ? text.substr(open, close + 2 - open) : it->second;
        pos = close + 2;
    }
    return out + text.substr(pos);
}

// One line appended to a private extract file (0600 in a 0700 directory).
void appendLine(const std::filesystem::path& path, const std::string& text) {
    std::error_code error;
    std::filesystem::create_directories(path.parent_path(), error);
    ::chmod(path.parent_path().c_str(), 0700);
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    if (fd < 0) throw MailError::storage(StorageFailureKind::ioError, "cannot open extract file");
    const ssize_t written = ::write(fd, text.data(), text.size());
    ::close(fd);
    if (written != static_cast<ssize_t>(text.size()))
        throw MailError::storage(StorageFailureKind::ioError, "cannot write extract file");
}

std::string plural(std::int64_t n, const char* word) {
    return fmt::format("{} {}{}", n, word, n == 1 ? "" : "s");
}

}  // namespace

struct WorkflowEngine::Cursor {
    std::int64_t lastMessageID = 0;
    std::optional<Date> lastScheduledAt;
    std::int64_t failures = 0;
    std::optional<std::string> pauseReason;
};

struct WorkflowEngine::Budget {
    std::int64_t effects = 0;
    std::int64_t drafts = 0;
};

struct WorkflowEngine::RunTally {
    std::int64_t examined = 0;
    std::int64_t matched = 0;
    std::int64_t effects = 0;
    std::int64_t cappedMessages = 0;
    std::int64_t draftsCapped = 0;
    std::vector<std::string> notes;
    std::optional<std::string> failure;
};

WorkflowEngine::WorkflowEngine(SQLiteMailStore& store, WorkflowStore& workflows, Clock clock,
                               WorkflowEngineOptions options, WorkflowAuditSink* audit,
                               std::shared_ptr<AIProvider> ai)
    : store_(store),
      workflows_(workflows),
      clock_(std::move(clock)),
      options_(std::move(options)),
      audit_(audit),
      ai_(std::move(ai)),
      mail_(store) {}

std::vector<StoredWorkflow> WorkflowEngine::workflowsInOrder() {
    auto all = workflows_.all();
    std::stable_sort(all.begin(), all.end(), [](const StoredWorkflow& a, const StoredWorkflow& b) {
        return a.createdAt < b.createdAt;
    });
    return all;
}

WorkflowEngine::Cursor WorkflowEngine::cursorFor(const StoredWorkflow& workflow,
                                                 std::int64_t newest) {
    return store_.write([&](SQLiteDatabase& db) {
        auto found = db.queryOne<Cursor>(
            "SELECT last_message_id, last_scheduled_at, failures, pause_reason FROM "
            "workflow_cursors WHERE workflow_id = ?",
            {workflow.id}, [](const SQLRow& r) {
                return Cursor{r.int64(0), r.optionalDate(1), r.int64(2), r.optionalText(3)};
            });
        if (found) return *found;
        Cursor fresh{newest, clock_(), 0, std::nullopt};
        db.run(
            "INSERT INTO workflow_cursors(workflow_id, last_message_id, last_scheduled_at) "
            "VALUES (?, ?, ?)",
            {workflow.id, newest, *fresh.lastScheduledAt});
        return fresh;
    });
}

void WorkflowEngine::saveCursor(const std::string& id, const Cursor& c) {
    store_.write([&](SQLiteDatabase& db) {
        db.run(
            "UPDATE workflow_cursors SET last_message_id = MAX(last_message_id, ?), "
            "last_scheduled_at = ?, failures = ?, pause_reason = ? WHERE workflow_id = ?",
            {c.lastMessageID, c.lastScheduledAt, c.failures, c.pauseReason, id});
    });
}

WorkflowEngine::Budget WorkflowEngine::budgetFor(const std::string& workflowID, Date now) {
    return store_.read([&](SQLiteDatabase& db) {
        return db
            .queryOne<Budget>(
                "SELECT COUNT(*), COALESCE(SUM(is_draft), 0) FROM workflow_effects "
                "WHERE workflow_id = ? AND at > ?",
                {workflowID, now - hour},
                [](const SQLRow& r) {
                    return Budget{r.int64(0), r.int64(1)};
                })
            .value_or(Budget{});
    });
}

void WorkflowEngine::audit(const StoredWorkflow& w, const std::string& kind,
                           const std::string& account, const std::string& outcome,
                           const std::string& summary) {
    if (!audit_) return;
    try {
        audit_->record(
            {w.id, w.spec.name, w.author, w.authorName, kind, account, outcome, summary});
    } catch (const std::exception&) {
        // The audit log keeps its own write errors; a run never fails for it.
    }
}

std::string WorkflowEngine::myName(const std::string& account) {
    if (const auto config = store_.accountConfig(AccountID(account));
        config && config->is_object()) {
        const auto label = config->find("label");
        if (label != config->end() && label->is_string() && !label->get<std::string>().empty() &&
            label->get<std::string>().find('@') == std::string::npos)
            return label->get<std::string>();
    }
    return account.substr(0, account.find('@'));
}

void WorkflowEngine::prime() {
    std::lock_guard guard(lock_);
    const std::int64_t newest = store_.read([](SQLiteDatabase& db) {
        return db.scalarInt("SELECT COALESCE(MAX(id), 0) FROM messages").value_or(0);
    });
    for (const auto& w : workflowsInOrder()) cursorFor(w, newest);
}

bool WorkflowEngine::matchesMessage(const StoredWorkflow& w, WorkflowMatcher::FoldedMessage& folded,
                                    MessageID id, RunTally& tally) {
    const WorkflowMailMessage& m = folded.message();
    WorkflowMatcher::MatchContext context;
    context.ownAddresses = ownAddresses_;
    context.classified = [&](const WorkflowCondition& c) {
        if (!ai_) {
            if (tally.notes.empty() || tally.notes.back() != "no AI provider")
                tally.notes.push_back("no AI provider");
            return false;
        }
        const std::string key = WorkflowAI::conditionKey(c);
        const auto cached = store_.read([&](SQLiteDatabase& db) {
            return db.scalarInt(
                "SELECT verdict FROM ai_judgements WHERE message_id = ? AND condition_key = ?",
                {id, key});
        });
        if (cached) return *cached != 0;
        const auto judgement = WorkflowAI::classify(*ai_, c, m);  // throws AIProviderError
        store_.write([&](SQLiteDatabase& db) {
            db.run(
                "INSERT OR REPLACE INTO ai_judgements(message_id, condition_key, verdict, reason, "
                "judged_at) VALUES (?, ?, ?, ?, ?)",
                {id, key, judgement.matches, judgement.reason, clock_()});
        });
        return judgement.matches;
    };
    return WorkflowMatcher::matches(w.spec, folded, context);
}

bool WorkflowEngine::act(const StoredWorkflow& w, const WorkflowMailMessage& message, MessageID id,
                         const std::string& ledgerKey, Budget& budget, RunTally& tally,
                         std::optional<std::int64_t>) {
    const WorkflowLimits& limits = options_.limits;
    const Date now = clock_();
    const auto& actions = w.spec.actions;
    const auto needed = static_cast<std::int64_t>(actions.size());
    if (budget.effects + needed > limits.effectsPerHour) {
        ++tally.cappedMessages;
        return false;
    }
    const auto fields = store_.messageFields(id);
    if (!fields) return false;
    const std::string account = fields->accountID.value;
    const std::string me = myName(account);
    const std::map<std::string, std::string> values{
        {"sender_name", senderName(message.from)},
        {"sender_first_name", firstName(senderName(message.from))},
        {"sender_email", WorkflowMatcher::senderAddress(message.from)},
        {"subject", message.subject},
        {"my_name", me},
        {"my_first_name", firstName(me)}};

    // Work that must happen outside the store's transaction: the model's
    // reply text, and the lines for extract files.
    std::optional<std::string> replyText;
    bool draftAllowed = budget.drafts + 1 <= limits.draftsPerHour;
    for (const WorkflowAction& a : actions) {
        if (a.type != "draft_reply") continue;
        if (!draftAllowed) {
            ++tally.draftsCapped;
        } else if (a.templateText) {
            replyText = fillTemplate(*a.templateText, values);
        } else if (a.instruction) {
            if (!ai_) {
                tally.notes.push_back("no AI provider: instruction drafts are not made");
            } else {
                replyText = WorkflowAI::writeReply(*ai_, *a.instruction, message, me);
            }
        }
    }
    struct Effect {
        std::string kind;
        bool draft = false;
        std::string detail;
    };
    std::vector<Effect> effects;
    std::vector<std::pair<std::filesystem::path, std::string>> lines;

    const bool claimed = store_.write([&](SQLiteDatabase& db) {
        if (db.run("INSERT OR IGNORE INTO workflow_ledger(workflow_id, subject, handled_at) "
                   "VALUES (?, ?, ?)",
                   {w.id, ledgerKey, now}) == 0)
            return false;
        FlagChange change;
        auto output = [&](const char* kind, const std::string& title, const std::string& body,
                          std::optional<Date> due) {
            db.run(
                "INSERT INTO workflow_outputs(workflow_id, kind, message_id, title, body, "
                "created_at, due_at) VALUES (?, ?, ?, ?, ?, ?, ?)",
                {w.id, kind, id, title, body, now, due});
        };
        for (const WorkflowAction& a : actions) {
            if (a.type == "apply_label") {
                change.addKeywords.push_back(a.label);
                effects.push_back({a.type, false, "label \"" + a.label + "\""});
            } else if (a.type == "mark_read") {
                change.addSystem |= MessageFlags::seen;
                effects.push_back({a.type, false, "marked read"});
            } else if (a.type == "star") {
                change.addSystem |= MessageFlags::flagged;
                effects.push_back({a.type, false, "starred"});
            } else if (a.type == "remind") {
                output("reminder", "Reminder: " + message.subject, "", now + 24 * hour);
                effects.push_back({a.type, false, "reminder in 24 hours"});
            } else if (a.type == "notify") {
                output("notification", w.spec.name, fillTemplate(a.message, values), std::nullopt);
                effects.push_back({a.type, false, "notification"});
            } else if (a.type == "show_notice") {
                output("notice", fillTemplate(a.title, values), fillTemplate(a.body, values),
                       std::nullopt);
                effects.push_back({a.type, false, "notice"});
            } else if (a.type == "add_to_collection") {
                output("collection", a.collection, message.subject, std::nullopt);
                effects.push_back({a.type, false, "collection \"" + a.collection + "\""});
            } else if (a.type == "draft_reply" && replyText) {
                DraftRecord draft;
                draft.id = DraftID(makeUUID());
                draft.accountID = fields->accountID;
                draft.sourceMessageID = id;
                draft.updatedAt = now;
                auto& out = draft.message;
                out.from = {{me, account}};
                out.to = fields->replyTo.empty() ? fields->from : fields->replyTo;
                out.subject = asciiLower(message.subject).rfind("re:", 0) == 0
                                  ? message.subject
                                  : "Re: " + message.subject;
                out.textBody = *replyText;
                const auto at = account.rfind('@');
                out.messageID = InternetMessageID::normalizing(
                    makeUUID() + "@" +
                    (at == std::string::npos ? "kestrune.local" : account.substr(at + 1)));
                if (const auto& parent = fields->threading.messageID) {
                    out.inReplyTo = {*parent};
                    out.references = fields->threading.references;
                    out.references.push_back(*parent);
                }
                store_.saveDraft(draft);
                store_.enqueue(draft.accountID, OutboxOperation::saveDraft(draft.id, out), now);
                effects.push_back({a.type, true, "reply draft kept for the person"});
            } else if (a.type == "extract") {
                Json line = Json::object();
                line["workflow"] = w.spec.name;
                line["message_id"] = message.id;
                line["extracted_at"] = secondsSince1970(now);
                for (const std::string& f : a.fields) {
                    const std::string name = asciiLower(f);
                    if (name == "from" || name == "sender")
                        line[f] = message.from;
                    else if (name == "sender_name")
                        line[f] = senderName(message.from);
                    else if (name == "sender_email" || name == "email")
                        line[f] = WorkflowMatcher::senderAddress(message.from);
                    else if (name == "to" || name == "recipients")
                        line[f] = message.to;
                    else if (name == "subject")
                        line[f] = message.subject;
                    else if (name == "date")
                        line[f] = message.date;
                    else if (name == "account")
                        line[f] = message.account;
                    else if (name == "folder")
                        line[f] = message.folder;
                    else if (name == "snippet" || name == "summary")
                        line[f] = message.snippet;
                    else if (name == "attachments") {
                        Json names = Json::array();
                        for (const auto& att : message.attachments) names.push_back(att.name);
                        line[f] = std::move(names);
                    } else
                        line[f] = nullptr;
                }
                lines.emplace_back(options_.extractDirectory / (a.file + ".jsonl"),
                                   encodeJson(line) + "\n");
                effects.push_back({a.type, false, "extract to " + a.file + ".jsonl"});
            }
        }
        if (!change.addKeywords.empty() || change.addSystem != 0) {
            const auto row = store_.message(id);
            store_.setLocalFlags(id, change.appliedTo(row->flags));
            OutboxMessageRef ref;
            ref.messageID = id;
            ref.folderID = fields->folderID;
            ref.uid = fields->uid;
            ref.internetMessageID = fields->threading.messageID;
            store_.enqueueFlags(fields->accountID, ref, change, now);
        }
        for (const Effect& e : effects)
            db.run(
                "INSERT INTO workflow_effects(workflow_id, at, kind, message_id, is_draft, detail) "
                "VALUES (?, ?, ?, ?, ?, ?)",
                {w.id, now, e.kind, id, e.draft, e.detail});
        // Last, so that a file that cannot be written takes the whole
        // message's work back and it is tried again at the next pass.
        for (const auto& [path, text] : lines) appendLine(path, text);
        return true;
    });
    if (!claimed) return false;
    for (const Effect& e : effects) {
        ++budget.effects;
        if (e.draft) ++budget.drafts;
        ++tally.effects;
        audit(w, "effect", account, "ok", e.detail + " on " + message.id);
    }
    return true;
}

void WorkflowEngine::finishRun(const StoredWorkflow& w, const std::string& trigger, RunTally& tally,
                               WorkflowPassSummary& summary) {
    const Date now = clock_();
    std::string outcome = "ok";
    std::vector<std::string> parts;
    if (tally.failure) {
        outcome = "failed";
        parts.push_back(*tally.failure);
    }
    if (tally.cappedMessages > 0 || tally.draftsCapped > 0) {
        if (!tally.failure) outcome = "capped";
        if (tally.cappedMessages > 0)
            parts.push_back(fmt::format(
                "Reached {} effects this hour: {} left alone; it acts again once the hour has "
                "passed",
                options_.limits.effectsPerHour, plural(tally.cappedMessages, "matching message")));
        if (tally.draftsCapped > 0)
            parts.push_back(fmt::format("Reached {} drafts this hour: {} not made",
                                        options_.limits.draftsPerHour,
                                        plural(tally.draftsCapped, "draft")));
    }
    std::set<std::string> seen;
    for (const auto& note : tally.notes)
        if (seen.insert(note).second) parts.push_back(note);
    std::string detail;
    for (const auto& p : parts) detail += (detail.empty() ? "" : "; ") + p;
    store_.write([&](SQLiteDatabase& db) {
        db.run(
            "INSERT INTO workflow_runs(workflow_id, trigger, started_at, examined, matched, "
            "effects, outcome, detail) VALUES (?, ?, ?, ?, ?, ?, ?, ?)",
            {w.id, trigger, now, tally.examined, tally.matched, tally.effects, outcome, detail});
    });
    audit(
        w, "run", "", outcome,
        fmt::format("{} run: {} examined, {} matched, {}{}", trigger, tally.examined, tally.matched,
                    plural(tally.effects, "effect"), detail.empty() ? "" : " (" + detail + ")"));
    ++summary.runs;
    summary.effects += static_cast<int>(tally.effects);
    if (outcome == "capped") ++summary.capped;
    if (outcome == "failed") ++summary.failed;
}

namespace {

// Counts a failure against the workflow and pauses it after too many.
void countFailure(bool failed, std::int64_t& failures, int limit, const std::string& reason,
                  const std::function<void(const std::string&)>& pause) {
    if (!failed) {
        failures = 0;
        return;
    }
    if (++failures >= limit)
        pause(
            fmt::format("Paused after {} failed runs in a row. Last error: {}", failures, reason));
}

}  // namespace

WorkflowPassSummary WorkflowEngine::messagesArrived() {
    std::lock_guard guard(lock_);
    WorkflowPassSummary summary;
    ownAddresses_ = mail_.ownAddresses();
    const std::int64_t newest = store_.read([](SQLiteDatabase& db) {
        return db.scalarInt("SELECT COALESCE(MAX(id), 0) FROM messages").value_or(0);
    });
    struct Active {
        StoredWorkflow w;
        Cursor cursor;
        Budget budget;
        RunTally tally;
        bool stopped = false;
    };
    std::vector<Active> active;
    WorkflowStoreMail::Parts parts{false, false, false};
    for (auto& w : workflowsInOrder()) {
        Cursor cursor = cursorFor(w, newest);
        if (!isActive(w)) {
            if (cursor.lastMessageID < newest) {
                cursor.lastMessageID = newest;
                saveCursor(w.id, cursor);
            }
            continue;
        }
        if (cursor.pauseReason) {  // the person resumed it
            cursor.pauseReason.reset();
            cursor.failures = 0;
            saveCursor(w.id, cursor);
        }
        if (w.spec.trigger.type != "new_message" || cursor.lastMessageID >= newest) continue;
        parts.body = parts.body || hasCondition(w.spec, {"body", "text", "classified"}) ||
                     hasAction(w.spec, "draft_reply");
        parts.attachments = parts.attachments || hasCondition(w.spec, {"attachment_kind"}) ||
                            hasAction(w.spec, "extract");
        parts.thread = parts.thread || hasCondition(w.spec, {"in_thread"});
        const Budget budget = budgetFor(w.id, clock_());
        active.push_back({std::move(w), cursor, budget, {}, false});
    }
    if (active.empty()) return summary;
    std::int64_t from = newest;
    for (const auto& a : active) from = std::min(from, a.cursor.lastMessageID);

    const int batch = std::max(1, options_.messagesPerBatch);
    while (from < newest) {
        const auto ids = store_.read([&](SQLiteDatabase& db) {
            return db.query<std::int64_t>(
                std::string("SELECT m.id FROM messages m WHERE m.id > ? AND m.id <= ? AND ") +
                    receivedFilter + " ORDER BY m.id LIMIT ?",
                {from, newest, batch}, [](const SQLRow& r) { return r.int64(0); });
        });
        if (ids.empty()) break;
        for (const std::int64_t raw : ids) {
            const MessageID id(raw);
            std::optional<WorkflowMailMessage> message;
            std::optional<WorkflowMatcher::FoldedMessage> folded;
            bool loaded = false;
            for (Active& a : active) {
                if (a.stopped || a.cursor.lastMessageID >= raw) continue;
                if (!loaded) {
                    message = mail_.load(id, parts);
                    if (message) folded.emplace(*message);
                    loaded = true;
                }
                if (!message || !watchesAccount(a.w.spec, message->account)) {
                    a.cursor.lastMessageID = raw;
                    continue;
                }
                ++a.tally.examined;
                try {
                    if (matchesMessage(a.w, *folded, id, a.tally)) {
                        ++a.tally.matched;
                        act(a.w, *message, id, "m" + std::to_string(raw), a.budget, a.tally,
                            std::nullopt);
                    }
                    a.cursor.lastMessageID = raw;
                } catch (const MailError& e) {
                    a.tally.failure = e.detail();
                    a.stopped = true;
                } catch (const std::exception& e) {
                    a.tally.failure = e.what();
                    a.stopped = true;
                }
            }
        }
        from = ids.back();
    }
    for (Active& a : active) {
        if (!a.stopped) a.cursor.lastMessageID = newest;
        countFailure(a.tally.failure.has_value(), a.cursor.failures, options_.failuresBeforePause,
                     a.tally.failure.value_or(""), [&](const std::string& reason) {
                         a.cursor.pauseReason = reason;
                         workflows_.pause(a.w.id, clock_());
                         audit(a.w, "run", "", "paused", reason);
                     });
        saveCursor(a.w.id, a.cursor);
        if (a.tally.examined > 0 || a.tally.failure)
            finishRun(a.w, "new_message", a.tally, summary);
    }
    return summary;
}

void WorkflowEngine::digest(const StoredWorkflow& w, Cursor& cursor, Date scheduledAt,
                            Budget& budget, RunTally& tally) {
    const Date now = clock_();
    const std::int64_t newest = store_.read([](SQLiteDatabase& db) {
        return db.scalarInt("SELECT COALESCE(MAX(id), 0) FROM messages").value_or(0);
    });
    const auto ids = store_.read([&](SQLiteDatabase& db) {
        return db.query<std::int64_t>(
            std::string("SELECT m.id FROM messages m WHERE m.id > ? AND m.id <= ? AND ") +
                receivedFilter + " ORDER BY m.date DESC, m.id DESC LIMIT 5000",
            {cursor.lastMessageID, newest}, [](const SQLRow& r) { return r.int64(0); });
    });
    const bool needBody = hasCondition(w.spec, {"body", "text", "classified"});
    std::vector<WorkflowMailMessage> included;
    std::int64_t more = 0;
    for (const std::int64_t raw : ids) {
        const auto m =
            mail_.load(MessageID(raw), {needBody, hasCondition(w.spec, {"attachment_kind"}),
                                        hasCondition(w.spec, {"in_thread"})});
        if (!m || !watchesAccount(w.spec, m->account)) continue;
        ++tally.examined;
        WorkflowMatcher::FoldedMessage folded(*m);
        if (!matchesMessage(w, folded, MessageID(raw), tally)) continue;
        ++tally.matched;
        if (static_cast<int>(included.size()) < options_.limits.maxDigestMessages)
            included.push_back(*m);
        else
            ++more;
    }
    cursor.lastMessageID = newest;
    if (included.empty()) {
        tally.notes.push_back("no new messages for the digest");
        return;
    }
    if (budget.effects + 1 > options_.limits.effectsPerHour) {
        ++tally.cappedMessages;
        return;
    }
    std::vector<std::string> accounts = w.spec.accounts;
    if (accounts.empty()) accounts = mail_.accountKeys();
    const std::string account = accounts.empty() ? included.front().account : accounts.front();
    const std::string title = hasAction(w.spec, "digest")
                                  ? std::find_if(w.spec.actions.begin(), w.spec.actions.end(),
                                                 [](const auto& a) { return a.type == "digest"; })
                                        ->title
                                  : w.spec.name;
    std::string body =
        fmt::format("{}: {} since the last digest.\n\n", title, plural(tally.matched, "message"));
    for (const auto& m : included)
        body +=
            "- " +
            (m.sentAt ? WorkflowMatcher::localTimestamp(*m.sentAt, options_.utcOffset).substr(0, 16)
                      : m.date) +
            "  " + m.from + "\n  " + m.subject + "\n";
    if (more > 0) body += fmt::format("\n(and {} more not shown)\n", more);
    const std::string key = "s" + std::to_string(seconds(scheduledAt));
    const bool made = store_.write([&](SQLiteDatabase& db) {
        if (db.run("INSERT OR IGNORE INTO workflow_ledger(workflow_id, subject, handled_at) "
                   "VALUES (?, ?, ?)",
                   {w.id, key, now}) == 0)
            return false;
        DraftRecord draft;
        draft.id = DraftID(makeUUID());
        draft.accountID = AccountID(account);
        draft.updatedAt = now;
        draft.message.from = {{myName(account), account}};
        draft.message.to = {{myName(account), account}};
        draft.message.subject =
            title + " — " +
            WorkflowMatcher::localTimestamp(scheduledAt, options_.utcOffset).substr(0, 10);
        draft.message.textBody = body;
        store_.saveDraft(draft);
        store_.enqueue(draft.accountID, OutboxOperation::saveDraft(draft.id, draft.message), now);
        db.run(
            "INSERT INTO workflow_effects(workflow_id, at, kind, message_id, is_draft, detail) "
            "VALUES (?, ?, 'digest', NULL, 1, ?)",
            {w.id, now, fmt::format("digest of {}", plural(std::ssize(included), "message"))});
        return true;
    });
    if (!made) return;
    ++budget.effects;
    ++budget.drafts;
    ++tally.effects;
    audit(w, "effect", account, "ok",
          fmt::format("digest draft of {}", plural(std::ssize(included), "message")));
}

WorkflowPassSummary WorkflowEngine::runDue() {
    std::lock_guard guard(lock_);
    WorkflowPassSummary summary;
    ownAddresses_ = mail_.ownAddresses();
    const Date now = clock_();
    const std::int64_t newest = store_.read([](SQLiteDatabase& db) {
        return db.scalarInt("SELECT COALESCE(MAX(id), 0) FROM messages").value_or(0);
    });
    for (const auto& w : workflowsInOrder()) {
        const std::string& type = w.spec.trigger.type;
        if (!isActive(w) || (type != "schedule" && type != "no_reply")) continue;
        Cursor cursor = cursorFor(w, newest);
        Budget budget = budgetFor(w.id, now);
        RunTally tally;
        if (type == "schedule") {
            const Date last = cursor.lastScheduledAt.value_or(now);
            const auto next = WorkflowMatcher::nextRun(w.spec.trigger, last, options_.utcOffset);
            if (!next || *next > now) continue;
            try {
                digest(w, cursor, *next, budget, tally);
            } catch (const std::exception& e) {
                tally.failure = e.what();
            }
            // One run makes up for every occurrence missed meanwhile.
            cursor.lastScheduledAt = now;
        } else {
            std::vector<std::string> accounts;
            for (const auto& key : mail_.accountKeys())
                if (watchesAccount(w.spec, key)) accounts.push_back(key);
            const Date cutoff = now - std::chrono::hours(w.spec.trigger.afterHours.value_or(0));
            try {
                const auto threads = mail_.unansweredThreads(accounts, cutoff, 500);
                for (const auto& m : threads.value_or(std::vector<WorkflowMailMessage>{})) {
                    const auto id = WorkflowStoreMail::messageID(m.id);
                    const auto row = id ? store_.message(*id) : std::nullopt;
                    if (!row) continue;
                    const std::string key = "t" + std::to_string(row->threadID.value);
                    const bool handled = store_.read([&](SQLiteDatabase& db) {
                        return db
                            .scalarInt(
                                "SELECT 1 FROM workflow_ledger WHERE workflow_id = ? AND "
                                "subject = ?",
                                {w.id, key})
                            .has_value();
                    });
                    if (handled) continue;
                    ++tally.examined;
                    WorkflowMatcher::FoldedMessage folded(m);
                    if (!matchesMessage(w, folded, *id, tally)) continue;
                    ++tally.matched;
                    act(w, m, *id, key, budget, tally, std::nullopt);
                }
            } catch (const MailError& e) {
                tally.failure = e.detail();
            } catch (const std::exception& e) {
                tally.failure = e.what();
            }
        }
        countFailure(tally.failure.has_value(), cursor.failures, options_.failuresBeforePause,
                     tally.failure.value_or(""), [&](const std::string& reason) {
                         cursor.pauseReason = reason;
                         workflows_.pause(w.id, now);
                         audit(w, "run", "", "paused", reason);
                     });
        saveCursor(w.id, cursor);
        if (type == "schedule" || tally.matched > 0 || tally.failure)
            finishRun(w, type, tally, summary);
    }
    return summary;
}

WorkflowPassSummary WorkflowEngine::tick() {
    WorkflowPassSummary a = messagesArrived();
    const WorkflowPassSummary b = runDue();
    a.runs += b.runs;
    a.effects += b.effects;
    a.capped += b.capped;
    a.failed += b.failed;
    return a;
}

WorkflowStatusReport WorkflowEngine::status(SQLiteMailStore& store, const std::string& workflowID,
                                            Date now, int lastRuns) {
    WorkflowStatusReport report;
    store.read([&](SQLiteDatabase& db) {
        db.forEachRow(
            "SELECT COUNT(*), COALESCE(SUM(is_draft), 0) FROM workflow_effects WHERE workflow_id = "
            "? AND at > ?",
            {workflowID, now - hour}, [&](const SQLRow& r) {
                report.effectsThisHour = r.int64(0);
                report.draftsThisHour = r.int64(1);
                return false;
            });
        report.pauseReason =
            db.queryOne<std::optional<std::string>>(
                  "SELECT pause_reason FROM workflow_cursors WHERE workflow_id = ?", {workflowID},
                  [](const SQLRow& r) { return r.optionalText(0); })
                .value_or(std::nullopt);
    });
    report.lastRuns = runs(store, workflowID, lastRuns);
    return report;
}

std::vector<WorkflowRunRecord> WorkflowEngine::runs(SQLiteMailStore& store,
                                                    const std::string& workflowID, int limit) {
    return store.read([&](SQLiteDatabase& db) {
        return db.query<WorkflowRunRecord>(
            "SELECT id, workflow_id, trigger, started_at, examined, matched, effects, outcome, "
            "detail FROM workflow_runs WHERE workflow_id = ? ORDER BY id DESC LIMIT ?",
            {workflowID, limit}, [](const SQLRow& r) {
                return WorkflowRunRecord{r.int64(0), r.text(1),  r.text(2), r.date(3), r.int64(4),
                                         r.int64(5), r.int64(6), r.text(7), r.text(8)};
            });
    });
}

}  // namespace mailcore
