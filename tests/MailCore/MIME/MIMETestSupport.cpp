#include "MIMETestSupport.h"

#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

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

std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream out;
    out << in.rdbuf();
    return out.str();
}

void writeFile(const std::filesystem::path& path, std::string_view content) {
    std::filesystem::create_directories(path.parent_path());
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(content.data(), static_cast<std::streamsize>(content.size()));
}

void makeMaildir(const std::filesystem::path& dir) {
    for (const char* sub : {"cur", "new", "tmp"}) std::filesystem::create_directories(dir / sub);
}

}  // namespace mailcore::testing
