#include "MailCore/IMAP/IMAPSequenceSet.h"

#include <algorithm>
#include <limits>

#include "MailCore/Common/MailError.h"

namespace mailcore {
namespace {

MailError badSet() {
    return MailError::protocolViolation(ProtocolIssueKind::malformedResponse, "bad sequence set");
}

std::uint32_t parseNumber(std::string_view part) {
    if (part.empty()) throw badSet();
    std::uint64_t value = 0;
    for (char c : part) {
        if (c < '0' || c > '9') throw badSet();
        value = value * 10 + static_cast<std::uint64_t>(c - '0');
        if (value > std::numeric_limits<std::uint32_t>::max()) throw badSet();
    }
    return static_cast<std::uint32_t>(value);
}

}  // namespace

std::vector<std::uint32_t> IMAPSequenceSet::expand(std::string_view text, std::uint64_t maxCount) {
    std::vector<std::uint32_t> numbers;
    std::size_t pos = 0;
    while (pos <= text.size()) {
        std::size_t comma = std::min(text.find(',', pos), text.size());
        std::string_view piece = text.substr(pos, comma - pos);
        pos = comma + 1;
        if (piece.empty()) continue;

        std::uint32_t first = 0;
        std::uint32_t second = 0;
        std::size_t colon = piece.find(':');
        if (colon == std::string_view::npos) {
            first = second = parseNumber(piece);
        } else {
            std::string_view rest = piece.substr(colon + 1);
            if (rest.find(':') != std::string_view::npos) throw badSet();
            first = parseNumber(piece.substr(0, colon));
            second = parseNumber(rest);
        }
        std::uint32_t low = std::min(first, second);
        std::uint32_t high = std::max(first, second);
        std::uint64_t size = std::uint64_t{high} - low + 1;
        if (numbers.size() + size > maxCount) {
            throw MailError::protocolViolation(ProtocolIssueKind::responseTooLarge,
                                               "sequence set too large");
        }
        for (std::uint64_t n = low; n <= high; ++n)
            numbers.push_back(static_cast<std::uint32_t>(n));
    }
    return numbers;
}

}  // namespace mailcore
