#include "KestruneMCPKit/Link/Frame.h"

#include <algorithm>

namespace mcpkit::Frame {

std::string encode(const mailcore::Json& object) {
    std::string text = mailcore::encodeJson(object);
    // Compact JSON escapes line feeds inside strings, so this only matters
    // for text that reached the encoder pre-formatted; it keeps the frame one line.
    text.erase(std::remove(text.begin(), text.end(), '\n'), text.end());
    text.push_back('\n');
    return text;
}

}  // namespace mcpkit::Frame
