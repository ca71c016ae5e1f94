// Expanding arbitrary sequence-set text either fails with one of the two
// documented errors or yields at most maxCount numbers; the numbers, turned
// into a UID set and written out, expand again to the same distinct values,
// and chunking that set preserves every UID.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <string_view>
#include <vector>

#include "MailCore/Common/MailError.h"
#include "MailCore/IMAP/IMAPSequenceSet.h"
#include "MailCore/IMAP/UIDSet.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) return 0;
    const std::uint64_t maxCount = std::uint64_t{data[0]} * 16;
    std::string_view text(reinterpret_cast<const char*>(data + 1), size - 1);
    std::vector<std::uint32_t> numbers;
    try {
        numbers = mailcore::IMAPSequenceSet::expand(text, maxCount);
    } catch (const mailcore::MailError& error) {
        if (error.detail() != "bad sequence set" && error.detail() != "sequence set too large") {
            std::abort();
        }
        return 0;
    }
    if (numbers.size() > maxCount) std::abort();

    mailcore::UIDSet set = mailcore::UIDSet::fromUIDs(numbers);
    std::sort(numbers.begin(), numbers.end());
    numbers.erase(std::unique(numbers.begin(), numbers.end()), numbers.end());
    if (mailcore::IMAPSequenceSet::expand(set.imapString(), numbers.size()) != numbers)
        std::abort();

    std::vector<std::uint32_t> rejoined;
    for (const auto& chunk : set.chunked(size % 7)) {
        auto part = mailcore::IMAPSequenceSet::expand(chunk.imapString(), numbers.size());
        if (part.empty() || part.size() > std::max<std::size_t>(size % 7, 1)) std::abort();
        rejoined.insert(rejoined.end(), part.begin(), part.end());
    }
    if (rejoined != numbers) std::abort();
    return 0;
}
