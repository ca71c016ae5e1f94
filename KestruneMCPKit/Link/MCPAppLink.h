// MCPAppLink: how the helper reaches the application. One operation: send a
// request object, get the reply object. Implementations open their own
// connection per call and keep no shared state, so calls may run
// concurrently from several threads.
#pragma once

#include <functional>
#include <string>

#include "MailCore/Common/Json.h"

namespace mcpkit {

// What the application's side does with one request frame: takes the frame's
// bytes (without line feed) and returns the reply frame's bytes (a trailing
// line feed is added when missing). Called concurrently from connection
// threads, so it must be thread-safe; it should not throw (a throw ends the
// connection without a reply).
using MCPFrameHandler = std::function<std::string(const std::string& request)>;

class MCPAppLink {
public:
    virtual ~MCPAppLink() = default;

    // Sends `request` (a JSON object) and returns the reply (a JSON object).
    // Throws MCPLinkError.
    virtual mailcore::Json send(const mailcore::Json& request) = 0;
};

}  // namespace mcpkit
