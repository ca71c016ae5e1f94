// Feeds arbitrary bytes to everything that reads agent-access files or
// cleans audit texts: the state decoder (its output must survive an encode
// and decode unchanged), the audit line decoder (likewise), and the redactor
// (its output is valid UTF-8, within the limit, free of control characters
// and of anything still shaped like a harness token).
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

#include "KestruneMCPKit/Audit/MCPAuditLog.h"
#include "KestruneMCPKit/Audit/MCPRedactor.h"
#include "KestruneMCPKit/Policy/MCPState.h"
#include "MailCore/Common/Json.h"
#include "MailCore/Common/UTF8.h"

namespace {

void check(bool condition) {
    if (!condition) std::abort();
}

bool isTokenCharacter(char c) {
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '_' ||
           c == '-';
}

void checkScrubbed(const std::string& out, std::size_t limit) {
    std::size_t pos = 0, characters = 0;
    while (pos < out.size()) {
        check(mailcore::utf8::sequenceLength(out, pos) > 1 ||
              static_cast<unsigned char>(out[pos]) < 0x80);
        char32_t c = mailcore::utf8::decode(out, pos);
        check(c >= 0x20 && !(c >= 0x7F && c <= 0x9F));
        ++characters;
    }
    check(characters <= limit + 3);
    for (std::size_t at = out.find("kmt_"); at != std::string::npos;
         at = out.find("kmt_", at + 1)) {
        std::size_t run = 0;
        while (at + 4 + run < out.size() && isTokenCharacter(out[at + 4 + run])) ++run;
        // Only a cut at the limit may leave the start of a shorter run.
        check(run < 8);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);

    mailcore::Json json;
    if (mailcore::tryParseJson(text, json)) {
        const mcpkit::MCPState state = mcpkit::stateFromJson(json);
        const mcpkit::MCPState again =
            mcpkit::stateFromJson(mailcore::parseJson(mailcore::encodeJson(mcpkit::toJson(state))));
        check(again == state);
    }

    if (auto entry = mcpkit::MCPAuditLog::decode(text)) {
        auto again = mcpkit::MCPAuditLog::decode(mcpkit::MCPAuditLog::encode(*entry));
        check(again.has_value());
        // Texts with malformed UTF-8 are repaired on encoding; compare the rest.
        check(again->id.empty() == entry->id.empty() && again->time == entry->time &&
              again->result == entry->result && again->mailInfluenced == entry->mailInfluenced);
    }

    const std::size_t limit = size > 0 ? data[0] : 200;
    checkScrubbed(mcpkit::MCPRedactor::scrub(text, limit), limit);
    return 0;
}
