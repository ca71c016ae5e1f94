// Frame: the unit of the agent link, one compact JSON object on one line.
// The encoding never contains a line feed except the final one, so a reader
// can split the stream on 0x0A.
#pragma once

#include <string>

#include "MailCore/Common/Json.h"

namespace mcpkit::Frame {

// Compact JSON of `object` with every 0x0A byte removed, then one 0x0A.
std::string encode(const mailcore::Json& object);

}  // namespace mcpkit::Frame
