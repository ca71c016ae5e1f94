// Feeds arbitrary lines to the shim, with an arbitrary application reply.
// Input: <line> [0x00 <reply text>]. The reply text is what the fake
// application answers (not JSON or not an object: a malformed reply; empty:
// the application is not running).
// Checks: at most one output line per input line; it is one line, a JSON
// object with "jsonrpc":"2.0", an "id", and exactly one of result/error.
#include <cstdint>
#include <cstdlib>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

#include "KestruneMCPKit/Link/MCPLinkError.h"
#include "KestruneMCPKit/Shim/MCPShim.h"

namespace {

using mailcore::Json;

class ReplayLink : public mcpkit::MCPAppLink {
public:
    std::string reply;
    Json send(const Json&) override {
        if (reply.empty()) throw mcpkit::MCPLinkError::appNotRunning();
        Json parsed;
        if (!mailcore::tryParseJson(reply, parsed) || !parsed.is_object())
            throw mcpkit::MCPLinkError::malformedReply();
        return parsed;
    }
};

void check(bool condition) {
    if (!condition) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::string_view input(reinterpret_cast<const char*>(data), size);
    std::string_view line = input;
    std::string_view reply;
    if (auto zero = input.find('\0'); zero != std::string_view::npos) {
        line = input.substr(0, zero);
        reply = input.substr(zero + 1);
    }
    // One shim for the whole run, as in the helper: state carried from one
    // line to the next (client description, session) is part of what is tested.
    static ReplayLink* link = nullptr;
    static int lines = 0;
    static std::string written;
    static mcpkit::MCPShim& shim = *[] {
        auto owned = std::make_unique<ReplayLink>();
        link = owned.get();
        return new mcpkit::MCPShim(std::move(owned), "fuzz-token", [](const std::string& out) {
            ++lines;
            written = out;
        });
    }();
    link->reply = std::string(reply);
    lines = 0;
    written.clear();
    shim.handle(line);
    check(lines <= 1);
    if (lines == 1) {
        check(!written.empty() && written.back() == '\n');
        check(written.find('\n') == written.size() - 1);
        Json answer;
        check(mailcore::tryParseJson(written, answer));
        check(answer.is_object() && answer.value("jsonrpc", "") == "2.0" && answer.contains("id"));
        check(answer.contains("result") != answer.contains("error"));
    }
    return 0;
}
