#include "kestrune_app/Host/ConfirmChannel.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <nlohmann/json.hpp>

#include "KestruneMCPKit/Link/MCPLinkError.h"
#include "KestruneMCPKit/Link/MCPSocketLink.h"

namespace kestrune {

using mailcore::Json;

namespace {

constexpr int ok = 0;
constexpr int failure = 1;
constexpr int usageError = 64;

Json replyJson(const AnswerReply& r) {
    return Json{{"ok", r.ok}, {"expired", r.expired}, {"message", r.message}};
}

}  // namespace

std::string answerFrame(PendingQuestions& questions, const std::string& frame) {
    Json request;
    if (!mailcore::tryParseJson(frame, request) || !request.is_object())
        return mailcore::encodeJson(Json{{"ok", false}, {"message", "not a request"}});
    const auto text = [&](const char* key) {
        return request.contains(key) && request[key].is_string() ? request[key].get<std::string>()
                                                                 : std::string();
    };
    const std::string op = text("op");
    if (op == "list") {
        Json list = Json::array();
        for (const auto& q : questions.open())
            list.push_back(Json{{"id", q.id}, {"kind", q.kind}, {"text", q.text}});
        return mailcore::encodeJson(Json{{"ok", true}, {"questions", list}});
    }
    if (op == "answer") {
        std::optional<std::string> code;
        if (request.contains("code") && request["code"].is_string()) code = text("code");
        return mailcore::encodeJson(replyJson(questions.answer(text("id"), text("answer"), code)));
    }
    return mailcore::encodeJson(Json{{"ok", false}, {"message", "unknown request " + op}});
}

std::optional<std::string> promptOnTerminal(const std::string& prompt) {
    const int fd = ::open("/dev/tty", O_RDWR | O_NOCTTY | O_CLOEXEC);
    if (fd < 0) return std::nullopt;
    struct Close {
        int fd;
        ~Close() { ::close(fd); }
    } close{fd};
    if (::write(fd, prompt.data(), prompt.size()) < 0) return std::nullopt;
    std::string line;
    while (line.size() < 64) {
        pollfd ready{fd, POLLIN, 0};
        if (::poll(&ready, 1, 300000) <= 0) return std::nullopt;
        char c = 0;
        if (::read(fd, &c, 1) != 1) return std::nullopt;
        if (c == '\n' || c == '\r') return line;
        line += c;
    }
    return line;
}

int confirmCommand(const std::vector<std::string>& args, const HostPaths& paths,
                   const std::function<void(const std::string&)>& out,
                   const std::function<void(const std::string&)>& err,
                   const TerminalPrompt& prompt) {
    mcpkit::MCPSocketLink link(paths.answers.string(), 30);
    const std::string verb = args.empty() ? "list" : args[0];
    // None when `serve` is not running.
    auto send = [&](const Json& request) -> std::optional<Json> {
        try {
            return link.send(request);
        } catch (const mcpkit::MCPLinkError& e) {
            if (e.kind() == mcpkit::MCPLinkError::Kind::appNotRunning) return std::nullopt;
            throw;
        }
    };
    try {
        if (verb == "list") {
            if (args.size() > 1) {
                err("kestrune: unexpected argument " + args[1] + " (see kestrune --help)");
                return usageError;
            }
            const auto reply = send(Json{{"op", "list"}});
            const Json none = Json::array();
            const Json& open = reply ? reply->value("questions", none) : none;
            if (!reply || open.empty()) out("No confirmation is waiting.");
            for (const auto& q : open)
                out("[" + q.value("id", "") + "] " + q.value("kind", "") + "\n" +
                    q.value("text", ""));
            return ok;
        }
        if (verb != "yes" && verb != "no" && verb != "undo") {
            err("kestrune: unknown confirm command " + verb + " (see kestrune --help)");
            return usageError;
        }
        if (args.size() < 2) {
            err("kestrune: missing the question id (see kestrune --help)");
            return usageError;
        }
        if (args.size() > 2) {
            err("kestrune: confirm takes only the question id; the code is typed when asked "
                "(see kestrune --help)");
            return usageError;
        }
        const std::string& id = args[1];
        Json request{{"op", "answer"}, {"id", id}, {"answer", verb}};
        if (verb == "yes") {
            const auto listed = send(Json{{"op", "list"}});
            const Json none = Json::array();
            for (const auto& q : listed ? listed->value("questions", none) : none) {
                if (q.value("id", "") != id) continue;
                const auto code = prompt(q.value("text", "") + "Type the code shown next to " + id +
                                         " in the terminal running `kestrune serve`: ");
                if (!code) {
                    err("kestrune: a yes needs the code shown by `kestrune serve`, typed on a "
                        "terminal when asked");
                    return failure;
                }
                request["code"] = *code;
            }
        }
        const auto reply = send(request);
        if (!reply) {
            err(PendingQuestions::leftByStoppedRun(paths.pending, id)
                    ? std::string("kestrune: ") + PendingQuestions::expiredText
                    : "kestrune: Kestrune is not running: no question " + id + " is waiting");
            return failure;
        }
        if (!reply->value("ok", false)) {
            err("kestrune: " + reply->value("message", std::string("not answered")));
            return failure;
        }
        out(reply->value("message", ""));
        return ok;
    } catch (const std::exception& e) {
        err(std::string("kestrune: cannot reach Kestrune: ") + e.what());
        return failure;
    }
}

}  // namespace kestrune
