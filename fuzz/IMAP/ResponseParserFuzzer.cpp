// Arbitrary server bytes either parse into responses or fail with a
// protocol violation; never anything else. Fed whole and fed in pieces of a
// size taken from the first byte, the bytes give the same responses and the
// same failure, and the parser never holds more than its limits allow.
#include <cstdint>
#include <cstdlib>
#include <optional>
#include <string_view>
#include <vector>

#include "MailCore/Common/MailError.h"
#include "MailCore/IMAP/IMAPResponseParser.h"

namespace {

struct Outcome {
    std::vector<mailcore::IMAPResponse> responses;
    std::optional<mailcore::MailError> error;
};

const mailcore::ProtocolLimits limits{2048, 4096, 16384, 100, 4096, 100};

Outcome run(std::string_view bytes, std::size_t piece, bool utf8) {
    mailcore::IMAPResponseParser parser(limits);
    parser.setUTF8(utf8);
    Outcome outcome;
    try {
        for (std::size_t at = 0; at < bytes.size(); at += piece) {
            parser.feed(bytes.substr(at, piece));
            if (parser.pendingBytes() > static_cast<std::size_t>(limits.maxResponseBytes) + piece) {
                std::abort();
            }
            while (auto r = parser.next()) outcome.responses.push_back(std::move(*r));
        }
    } catch (const mailcore::MailError& error) {
        if (error.errorCase() != mailcore::MailError::Case::protocolViolation) std::abort();
        outcome.error = error;
    }
    return outcome;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) return 0;
    const std::size_t piece = 1 + data[0] % 17;
    const bool utf8 = data[0] & 0x80;
    std::string_view bytes(reinterpret_cast<const char*>(data + 1), size - 1);
    const Outcome whole = run(bytes, bytes.size() + 1, utf8);
    const Outcome pieces = run(bytes, piece, utf8);
    if (whole.responses != pieces.responses || whole.error != pieces.error) std::abort();
    return 0;
}
