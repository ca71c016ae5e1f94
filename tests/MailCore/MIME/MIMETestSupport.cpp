#include "MIMETestSupport.h"

#include <gtest/gtest.h>

#include "MailCore/MIME/GMimeSupport.h"

namespace mailcore::testing {

namespace {

// Releases GMime at the end of the run so that LeakSanitizer sees only our
// own allocations.
class GMimeEnvironment : public ::testing::Environment {
public:
    void TearDown() override { shutdownGMime(); }
};

const auto* const environment = ::testing::AddGlobalTestEnvironment(new GMimeEnvironment);

}  // namespace

std::string crlf(std::string_view text) {
    std::string out;
    out.reserve(text.size() + text.size() / 20);
    for (char c : text) {
        if (c == '\n') out += '\r';
        out += c;
    }
    return out;
}

std::string pythonEmailDataDirectory() {
    for (const char* candidate :
         {"/usr/lib/python3.11/test/test_email/data", "/usr/lib/python3/test/test_email/data"}) {
        if (std::filesystem::exists(std::string(candidate) + "/msg_01.txt")) return candidate;
    }
    return {};
}

void makeMaildir(const std::filesystem::path& dir) {
    for (const char* sub : {"cur", "new", "tmp"}) std::filesystem::create_directories(dir / sub);
}

}  // namespace mailcore::testing
