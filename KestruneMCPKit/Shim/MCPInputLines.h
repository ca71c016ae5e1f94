// MCPInputLines: reads the harness's input line by line from a descriptor,
// line feed stripped. A last line without a line feed still counts. A line
// longer than `maxBytes` is not kept: the reader skips to its end and reports
// it as oversized, so a harness cannot make the helper hold unbounded input.
// Not thread-safe; the helper's main thread is its only user.
#pragma once

#include <cstddef>
#include <optional>
#include <string>

#include "KestruneMCPKit/Link/LineBuffer.h"

namespace mcpkit {

class MCPInputLines {
public:
    struct Line {
        std::string bytes;  // empty when oversized
        bool oversized = false;
    };

    // Lines of stdin are bounded well above anything the app accepts.
    static constexpr std::size_t defaultMaxBytes = 16 * 1024 * 1024;

    explicit MCPInputLines(int fd, std::size_t maxBytes = defaultMaxBytes);

    // The next line, or none at the end of input (or on a read error).
    std::optional<Line> next();

private:
    LineBuffer buffer_;
    std::size_t maxBytes_;
    bool ended_ = false;  // the stream ended or failed: nothing more is read
};

}  // namespace mcpkit
