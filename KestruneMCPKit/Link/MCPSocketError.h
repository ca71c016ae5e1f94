// Socket and private-directory failures of the agent link.
#pragma once

#include <exception>
#include <string>

namespace mcpkit {

class MCPSocketError : public std::exception {
public:
    enum class Kind { insecureDirectory, system, pathTooLong, alreadyRunning };

    static MCPSocketError insecureDirectory(std::string path);
    // `operation` is one of "socket", "bind", "chmod", "listen", "connect",
    // "peer", "not a socket".
    static MCPSocketError system(std::string operation, int errnoValue);
    static MCPSocketError pathTooLong();
    static MCPSocketError alreadyRunning();

    Kind kind() const { return kind_; }
    const std::string& path() const { return text_; }       // insecureDirectory
    const std::string& operation() const { return text_; }  // system
    int errnoValue() const { return errno_; }               // system

    // The plain case description: "insecureDirectory(/path)",
    // "system(connect, 13)", "pathTooLong", "alreadyRunning".
    const char* what() const noexcept override { return description_.c_str(); }

    bool operator==(const MCPSocketError& other) const {
        return kind_ == other.kind_ && text_ == other.text_ && errno_ == other.errno_;
    }

private:
    MCPSocketError(Kind kind, std::string text, int err);

    Kind kind_;
    std::string text_;
    int errno_ = 0;
    std::string description_;
};

}  // namespace mcpkit
