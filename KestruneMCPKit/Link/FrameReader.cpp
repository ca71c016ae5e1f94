#include "KestruneMCPKit/Link/FrameReader.h"

namespace mcpkit {

FrameReader::FrameReader(int fd, std::size_t maxBytes)
    : buffer_(fd, readBlockBytes), maxBytes_(maxBytes) {}

FrameReader::Next FrameReader::next() {
    for (;;) {
        if (auto line = buffer_.takeLine()) {
            if (line->size() > maxBytes_) return Next::tooLarge();
            if (line->empty()) continue;
            return Next::frame(std::move(*line));
        }
        // The limit holds before anything more is read.
        if (buffer_.pending() > maxBytes_) return Next::tooLarge();
        switch (buffer_.fill()) {
            case LineBuffer::Fill::data:
                break;
            case LineBuffer::Fill::end:
                return Next::end();
            case LineBuffer::Fill::failed:
                return Next::failed();
        }
    }
}

}  // namespace mcpkit
