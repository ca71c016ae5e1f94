// MCPLinkError: why a client link could not deliver a request: the socket
// is absent or refuses (the application is not running), another transport
// failure, or a reply that is not a JSON object.
#pragma once

#include <exception>
#include <string>

namespace mcpkit {

class MCPLinkError : public std::exception {
public:
    enum class Kind { transport, appNotRunning, malformedReply };

    static MCPLinkError transport(std::string message) {
        return MCPLinkError(Kind::transport, std::move(message));
    }
    static MCPLinkError appNotRunning() { return MCPLinkError(Kind::appNotRunning, {}); }
    static MCPLinkError malformedReply() { return MCPLinkError(Kind::malformedReply, {}); }

    Kind kind() const { return kind_; }
    const std::string& message() const { return message_; }  // transport only

    // "transport(<message>)", "appNotRunning", "malformedReply".
    const char* what() const noexcept override { return description_.c_str(); }

    bool operator==(const MCPLinkError& other) const {
        return kind_ == other.kind_ && message_ == other.message_;
    }

private:
    MCPLinkError(Kind kind, std::string message);

    Kind kind_;
    std::string message_;
    std::string description_;
};

}  // namespace mcpkit
