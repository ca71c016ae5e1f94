// Feeds arbitrary server bytes to the SMTP reply parser whole and in
// arbitrary pieces, and requires the same replies and the same failure both
// ways, every line within the limits. Then plays the same bytes as a whole
// server to the SMTP client through a submission: only MailError may come
// out.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

#include "MailCore/SMTP/SMTPClient.h"
#include "MailCore/SMTP/SMTPReply.h"

namespace {

using namespace mailcore;

void check(bool condition) {
    if (!condition) std::abort();
}

struct Outcome {
    std::vector<SMTPReply> replies;
    std::string failure;
};

Outcome parse(std::string_view input, const ProtocolLimits& limits, std::size_t piece) {
    Outcome out;
    SMTPReplyParser parser(limits);
    try {
        while (!input.empty()) {
            const std::size_t n = piece == 0 ? input.size() : std::min(piece, input.size());
            parser.feed(input.substr(0, n));
            input.remove_prefix(n);
            while (auto r = parser.next()) out.replies.push_back(*r);
        }
    } catch (const MailError& e) {
        out.failure = e.what();
        // Replies completed before the failing line are still handed out.
        while (auto r = parser.next()) out.replies.push_back(*r);
    }
    return out;
}

class ScriptStream final : public ByteStream {
public:
    explicit ScriptStream(std::string_view data) : data_(data) {}
    void open() override {}
    void upgradeToTLS(const std::string&) override {}
    void write(const Bytes&) override {}
    void close() override {}
    Bytes read(int maxLength) override {
        const std::size_t n =
            std::min<std::size_t>({data_.size(), 7, static_cast<std::size_t>(maxLength)});
        Bytes out(data_.begin(), data_.begin() + static_cast<std::ptrdiff_t>(n));
        data_.remove_prefix(n);
        return out;
    }

private:
    std::string_view data_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 3) return 0;
    ProtocolLimits limits;
    limits.maxLineBytes = 8 + data[0] % 120;
    limits.maxResponseBytes = 16 + data[1] * 4;
    const std::size_t piece = data[2] % 13;
    const std::string_view input(reinterpret_cast<const char*>(data + 3), size - 3);

    const Outcome whole = parse(input, limits, 0);
    const Outcome split = parse(input, limits, piece == 0 ? 1 : piece);
    check(whole.failure == split.failure);
    check(whole.replies.size() == split.replies.size());
    for (std::size_t i = 0; i < whole.replies.size(); ++i) {
        const auto& a = whole.replies[i];
        const auto& b = split.replies[i];
        check(a.code == b.code && a.enhancedCode == b.enhancedCode && a.lines == b.lines);
        check(a.code >= 200 && a.code <= 559 && !a.lines.empty());
        for (const auto& l : a.lines)
            check(l.size() <= static_cast<std::size_t>(limits.maxLineBytes));
    }

    SMTPClient client(std::make_unique<ScriptStream>(input),
                      {"localhost", 25, TransportSecurity::implicitTLS}, limits, "client.test");
    try {
        client.authenticate({"user", "secret", data[0] % 2 == 1, std::nullopt});
        client.send({"a@example.com", {"b@example.com", "c@example.com"}}, "Subject: x\n\n.hi\n");
        client.quit();
    } catch (const MailError&) {
    }
    return 0;
}
