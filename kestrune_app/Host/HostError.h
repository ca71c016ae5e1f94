// HostError: the application's one error type. A closed set of kinds, each
// with a detail: a sentence or phrase for the user, shown as it is (the
// command line prefixes "kestrune: "). Thrown as an exception; equality
// compares kind and detail.
#pragma once

#include <exception>
#include <string>
#include <string_view>

namespace kestrune {

class HostError : public std::exception {
public:
    enum class Kind {
        usage,           // a command line the application does not take
        dataDirectory,   // the data directory or its lock file cannot be used
        alreadyRunning,  // another serve holds the data directory or the socket
        cannotListen,    // the agent socket cannot be opened
        notFound,        // an account folder or the demonstration messages are missing
        invalidInput,    // a file, directory or address that is not what was asked for
        failed           // a command that could not be carried out
    };

    HostError(Kind kind, std::string detail) : kind_(kind), detail_(std::move(detail)) {}

    Kind kind() const { return kind_; }
    const std::string& detail() const { return detail_; }
    const char* what() const noexcept override { return detail_.c_str(); }
    bool operator==(const HostError& other) const {
        return kind_ == other.kind_ && detail_ == other.detail_;
    }

private:
    Kind kind_;
    std::string detail_;
};

// "usage", "dataDirectory", ...
std::string_view rawValue(HostError::Kind kind);

}  // namespace kestrune
