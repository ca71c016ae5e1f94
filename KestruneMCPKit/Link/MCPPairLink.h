// MCPPairLink: an in-process link. Each send makes a connected socket pair,
// serves the far end with mcpServe and `handler` on its own thread, and
// exchanges one request and one reply over the near end, exactly as over the
// application's socket but without a file. For in-process use and tests.
#pragma once

#include "KestruneMCPKit/Link/MCPAppLink.h"

namespace mcpkit {

class MCPPairLink : public MCPAppLink {
public:
    explicit MCPPairLink(MCPFrameHandler handler) : handler_(std::move(handler)) {}

    // Throws MCPLinkError: transport("socketpair"), transport("write"),
    // transport("no reply from the app"), malformedReply.
    mailcore::Json send(const mailcore::Json& request) override;

private:
    MCPFrameHandler handler_;
};

}  // namespace mcpkit
