#include "KestruneMCPKit/Shim/MCPShim.h"

#include <nlohmann/json.hpp>

#include "KestruneMCPKit/Link/Frame.h"
#include "KestruneMCPKit/Link/MCP.h"
#include "KestruneMCPKit/Link/MCPLinkError.h"
#include "KestruneMCPKit/Tools/MCPTools.h"
#include "MailCore/Common/Random.h"

namespace mcpkit {

using mailcore::Json;

namespace {

// The member `key` of `object` when it is a string.
std::optional<std::string> stringMember(const Json& object, const char* key) {
    auto it = object.find(key);
    if (it == object.end() || !it->is_string()) return std::nullopt;
    return it->get<std::string>();
}

bool isTrue(const Json& object, const char* key) {
    auto it = object.find(key);
    return it != object.end() && it->is_boolean() && it->get<bool>();
}

}  // namespace

MCPShim::MCPShim(std::unique_ptr<MCPAppLink> link, std::string token, Writer write)
    : link_(std::move(link)),
      token_(std::move(token)),
      write_(std::move(write)),
      clientInfo_(std::make_unique<Json>(Json::object())),
      session_(mailcore::makeUUID()) {}

MCPShim::~MCPShim() = default;

std::string MCPShim::session() const {
    std::lock_guard guard(lock_);
    return session_;
}

void MCPShim::handle(std::string_view line) {
    Json message;
    if (!mailcore::tryParseJson(line, message)) {
        reply(nullptr, -32700, "Parse error");
        return;
    }
    if (!message.is_object() || message.empty() ||
        stringMember(message, "jsonrpc") != std::optional<std::string>("2.0")) {
        reply(nullptr, -32600, "Invalid request");
        return;
    }
    const auto method = stringMember(message, "method");
    if (!method) return;  // a response from the client: nothing to answer
    Json params = Json::object();
    if (auto it = message.find("params"); it != message.end() && it->is_object()) params = *it;
    auto idIt = message.find("id");
    if (idIt == message.end()) return;  // a notification: never answered or forwarded
    const Json& id = *idIt;

    if (*method == "initialize") {
        initialize(id, params);
    } else if (*method == "ping") {
        result(id, Json::object());
    } else if (*method == "tools/list") {
        toolsList(id);
    } else if (*method == "tools/call") {
        toolsCall(id, params);
    } else {
        reply(id, -32601, "Method not found");
    }
}

bool MCPShim::opensSession(std::string_view line) {
    if (line.find("initialize") == std::string_view::npos) return false;  // the usual case
    Json message;
    return mailcore::tryParseJson(line, message) && message.is_object() && message.contains("id") &&
           stringMember(message, "method") == std::optional<std::string>("initialize");
}

void MCPShim::rejectOversizedLine() { reply(nullptr, -32700, "Parse error"); }

void MCPShim::close() {
    try {
        link_->send(base("bye"));
    } catch (...) {
        // The application may be gone; the farewell is best effort.
    }
}

Json MCPShim::base(std::string_view op) const {
    Json request{{"v", MCP::wireVersion}, {"op", op}, {"token", token_}};
    std::lock_guard guard(lock_);
    request["client"] = *clientInfo_;
    request["session"] = session_;
    return request;
}

void MCPShim::initialize(const Json& id, const Json& params) {
    Json ci = Json::object();
    if (auto it = params.find("clientInfo"); it != params.end() && it->is_object()) ci = *it;
    {
        std::lock_guard guard(lock_);
        session_ = mailcore::makeUUID();
        *clientInfo_ = Json{{"name", stringMember(ci, "name").value_or("")},
                            {"version", stringMember(ci, "version").value_or("")}};
    }
    bool accepted = true;
    std::string refusal(refusedText);
    try {
        const Json answer = link_->send(base("hello"));
        if (!isTrue(answer, "ok")) {
            accepted = false;
            if (auto error = stringMember(answer, "error")) refusal = *error;
        }
    } catch (...) {
        // Not running or unreachable: the handshake still succeeds and the
        // tools explain the situation.
    }
    if (!accepted) {
        reply(id, -32000, refusal);
        return;
    }
    result(id, Json{{"protocolVersion", MCP::negotiate(stringMember(params, "protocolVersion"))},
                    {"capabilities", {{"tools", {{"listChanged", false}}}}},
                    {"serverInfo",
                     {{"name", MCP::serverName},
                      {"title", MCP::serverTitle},
                      {"version", MCP::serverVersion}}},
                    {"instructions", instructions}});
}

void MCPShim::toolsList(const Json& id) {
    Json answer;
    try {
        answer = link_->send(base("tools_list"));
    } catch (...) {
        result(id, Json{{"tools", MCPTools::staticListing()}});
        return;
    }
    if (isTrue(answer, "ok")) {
        if (auto it = answer.find("tools"); it != answer.end() && it->is_array()) {
            result(id, Json{{"tools", *it}});
            return;
        }
    }
    reply(id, -32000, stringMember(answer, "error").value_or(std::string(refusedText)));
}

void MCPShim::toolsCall(const Json& id, const Json& params) {
    const auto name = stringMember(params, "name");
    if (!name) {
        reply(id, -32602, "Missing tool name");
        return;
    }
    Json request = base("call");
    request["name"] = *name;
    auto args = params.find("arguments");
    request["arguments"] = (args != params.end() && args->is_object()) ? *args : Json::object();

    std::string text;
    bool isError = true;
    // The app reads frames of at most 1 MiB and closes the link on a larger
    // one, which the link could only report as a broken connection.
    if (Frame::encode(request).size() - 1 > MCP::maxFrameBytes) {
        result(id, Json{{"content", Json::array({Json{{"type", "text"}, {"text", tooLargeText}}})},
                        {"isError", true}});
        return;
    }
    try {
        const Json answer = link_->send(request);
        if (isTrue(answer, "ok")) {
            text = stringMember(answer, "text").value_or("");
            auto flag = answer.find("isError");
            isError = flag != answer.end() && flag->is_boolean() && flag->get<bool>();
        } else {
            text = stringMember(answer, "error").value_or("The request was refused.");
        }
    } catch (const MCPLinkError& error) {
        text = error.kind() == MCPLinkError::Kind::appNotRunning ? notRunningText : unreachableText;
    } catch (...) {
        text = unreachableText;
    }
    result(id, Json{{"content", Json::array({Json{{"type", "text"}, {"text", text}}})},
                    {"isError", isError}});
}

void MCPShim::result(const Json& id, Json value) {
    write_(Frame::encode(Json{{"jsonrpc", "2.0"}, {"id", id}, {"result", std::move(value)}}));
}

void MCPShim::reply(const Json& id, int code, std::string_view message) {
    write_(Frame::encode(
        Json{{"jsonrpc", "2.0"}, {"id", id}, {"error", {{"code", code}, {"message", message}}}}));
}

}  // namespace mcpkit
