#include "MIMETestSupport.h"

#include "MailCore/MIME/GMimeSupport.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sstream>

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
    for (const char* candidate : {"/usr/lib/python3.11/test/test_email/data",
                                  "/usr/lib/python3/test/test_email/data"}) {
        if (std::filesystem::exists(std::string(candidate) + "/msg_01.txt")) return candidate;
    }
    return {};
}

std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream out;
    out << in.rdbuf();
    return out.str();
}

}  // namespace mailcore::testing
