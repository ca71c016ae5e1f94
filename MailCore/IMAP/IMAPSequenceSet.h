// IMAPSequenceSet: expansion of sequence-set text as servers send it
// ("1:3,7") into the numbers it names. Stateless.
#pragma once

#include <cstdint>
#include <string_view>
#include <vector>

namespace mailcore {

struct IMAPSequenceSet {
    // The numbers range by range in the order written, duplicates included; a
    // pair is taken from the smaller to the larger number. Throws MailError
    // protocolViolation(malformedResponse, "bad sequence set") for a piece
    // that is not a 32-bit decimal number or a pair of them ("*" included),
    // and protocolViolation(responseTooLarge, "sequence set too large") as
    // soon as the next range would take the count above `maxCount` (checked
    // before each range is appended, so memory stays bounded).
    static std::vector<std::uint32_t> expand(std::string_view text, std::uint64_t maxCount);
};

}  // namespace mailcore
