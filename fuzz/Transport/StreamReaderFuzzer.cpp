// Feeds arbitrary server bytes to StreamReader in arbitrary pieces and checks
// what it returns against the input itself: every line is the input up to
// its line end, no line is over the limit, counted reads return exactly the
// next bytes, and a limit failure is only raised for a line that really is
// too long.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

#include "MailCore/Common/MailError.h"
#include "MailCore/Transport/StreamReader.h"

namespace {

using namespace mailcore;

class PiecewiseStream final : public ByteStream {
public:
    PiecewiseStream(std::string_view data, std::vector<std::size_t> pieces)
        : data_(data), pieces_(std::move(pieces)) {}
    void open() override {}
    void upgradeToTLS(const std::string&) override {}
    void write(const Bytes&) override {}
    void close() override {}
    Bytes read(int maxLength) override {
        if (offset_ >= data_.size()) return {};
        std::size_t n = pieces_.empty() ? data_.size() : pieces_[next_++ % pieces_.size()];
        n = std::min({n == 0 ? 1 : n, data_.size() - offset_, static_cast<std::size_t>(maxLength)});
        Bytes out(data_.begin() + static_cast<std::ptrdiff_t>(offset_),
                  data_.begin() + static_cast<std::ptrdiff_t>(offset_ + n));
        offset_ += n;
        return out;
    }

private:
    std::string_view data_;
    std::vector<std::size_t> pieces_;
    std::size_t offset_ = 0;
    std::size_t next_ = 0;
};

void check(bool condition) {
    if (!condition) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 4) return 0;
    const std::size_t maxBytes = data[0] % 64;
    std::vector<std::size_t> pieces;
    for (int i = 1; i < 3; ++i) pieces.push_back(data[i] % 32);
    const std::uint8_t countedEvery = data[3];
    const std::string_view input(reinterpret_cast<const char*>(data + 4), size - 4);

    PiecewiseStream stream(input, pieces);
    StreamReader reader(stream);
    std::size_t consumed = 0;  // bytes of input accounted for
    for (int step = 0;; ++step) {
        const bool counted = countedEvery != 0 && step % (countedEvery % 5 + 2) == 0;
        try {
            if (counted) {
                const std::size_t count = (countedEvery + step) % 9;
                const Bytes bytes = reader.readBytes(count);
                check(bytes.size() == count);
                check(input.substr(consumed, count) ==
                      std::string_view(reinterpret_cast<const char*>(bytes.data()), bytes.size()));
                consumed += count;
                continue;
            }
            const Bytes line = reader.readLine(maxBytes);
            const std::string_view text(reinterpret_cast<const char*>(line.data()), line.size());
            check(line.size() <= maxBytes);
            check(input.substr(consumed, text.size()) == text);
            check(text.find('\n') == std::string_view::npos);
            std::size_t end = consumed + text.size();
            if (input.substr(end, 2) == "\r\n") {
                end += 2;
            } else {
                check(input.substr(end, 1) == "\n");
                end += 1;
            }
            consumed = end;
        } catch (const MailError& e) {
            if (e.detail() == "line too long") {
                // The unread line must really exceed the limit: no line feed
                // within maxBytes (+1 for a CR before it).
                const std::string_view rest = input.substr(consumed);
                const std::size_t lf = rest.find('\n');
                std::size_t length = lf == std::string_view::npos ? rest.size() : lf;
                if (lf != std::string_view::npos && lf > 0 && rest[lf - 1] == '\r') length = lf - 1;
                check(length > maxBytes);
            } else {
                check(e.detail() == "connection closed by server");
            }
            break;
        }
    }
    return 0;
}
