// MCPSocketLink: the helper's link to the application over the Unix socket
// at `path`. Every send opens its own connection, writes one request frame,
// reads one reply frame (at most 4 MiB) and closes. No shared state, so
// concurrent sends are safe.
#pragma once

#include <string>

#include "KestruneMCPKit/Link/MCPAppLink.h"

namespace mcpkit {

class MCPSocketLink : public MCPAppLink {
public:
    // `timeout`: receive and send time-out of each connection, in seconds.
    MCPSocketLink(std::string path, double timeout) : path_(std::move(path)), timeout_(timeout) {}

    // Throws MCPLinkError: appNotRunning when the socket is absent or
    // refuses; transport("write failed"), transport("no reply from the app")
    // or transport(<socket error>) otherwise; malformedReply when the reply
    // is not a JSON object.
    mailcore::Json send(const mailcore::Json& request) override;

    const std::string& path() const { return path_; }
    double timeout() const { return timeout_; }

private:
    std::string path_;
    double timeout_;
};

// Reads one reply frame (at most 4 MiB) from `fd` and parses it. Throws
// MCPLinkError transport("no reply from the app") or malformedReply. Shared
// by the client links.
mailcore::Json readReply(int fd);

}  // namespace mcpkit
