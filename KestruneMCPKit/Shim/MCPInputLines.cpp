#include "KestruneMCPKit/Shim/MCPInputLines.h"

namespace mcpkit {

namespace {
constexpr std::size_t readBlockBytes = 65536;
}

MCPInputLines::MCPInputLines(int fd, std::size_t maxBytes)
    : buffer_(fd, readBlockBytes), maxBytes_(maxBytes) {}

std::optional<MCPInputLines::Line> MCPInputLines::next() {
    bool oversized = false;
    for (;;) {
        if (auto line = buffer_.takeLine()) {
            if (oversized || line->size() > maxBytes_) return Line{{}, true};
            return Line{std::move(*line), false};
        }
        if (buffer_.pending() > maxBytes_) {
            // Too long already: drop what is held and keep looking for its end.
            oversized = true;
            buffer_.discard();
        }
        if (ended_ || buffer_.fill() != LineBuffer::Fill::data) {
            ended_ = true;
            std::string rest = buffer_.takeRest();
            if (oversized) return Line{{}, true};
            if (rest.empty()) return std::nullopt;
            return Line{std::move(rest), false};
        }
    }
}

}  // namespace mcpkit
