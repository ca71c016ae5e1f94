// Failures of the harness installer. Every failure leaves the harness's
// configuration file as it was.
#pragma once

#include <exception>
#include <string>

namespace mcpkit {

class MCPInstallError : public std::exception {
public:
    enum class Kind { unreadable, io, snippetOnly };

    // The configuration file cannot be read, is not UTF-8, or has a shape
    // that the installer does not edit; `reason` says which.
    static MCPInstallError unreadable(std::string reason);
    // Writing the file or its backup failed.
    static MCPInstallError io(std::string reason);
    // The harness has no automatic install, only a snippet to paste.
    static MCPInstallError snippetOnly();

    Kind kind() const { return kind_; }
    const std::string& reason() const { return reason_; }

    // The plain textual form: "unreadable(<reason>)", "io(<reason>)",
    // "snippetOnly".
    const char* what() const noexcept override { return description_.c_str(); }

    bool operator==(const MCPInstallError& other) const {
        return kind_ == other.kind_ && reason_ == other.reason_;
    }

private:
    MCPInstallError(Kind kind, std::string reason);

    Kind kind_;
    std::string reason_;
    std::string description_;
};

}  // namespace mcpkit
