#include "AppTestSupport.h"

#include <unistd.h>

#include <cstdlib>

namespace kestrune::testing {

TempDir::TempDir() {
    std::string pattern = (std::filesystem::temp_directory_path() / "kestrune-app-XXXXXX").string();
    char* made = ::mkdtemp(pattern.data());
    if (!made) std::abort();
    path = made;
}

TempDir::~TempDir() {
    std::error_code ignored;
    std::filesystem::remove_all(path, ignored);
}

std::string rawMessage(const std::string& from, const std::string& subject, const std::string& date,
                       const std::string& body, const std::string& extraHeaders) {
    return "From: " + from + "\r\nTo: alex@example.com\r\nSubject: " + subject +
           "\r\nDate: " + date + "\r\nMessage-ID: <" +
           std::to_string(std::hash<std::string>{}(subject + date)) + "@test.example>\r\n" +
           extraHeaders + "MIME-Version: 1.0\r\nContent-Type: text/plain; charset=utf-8\r\n\r\n" +
           body + "\r\n";
}

}  // namespace kestrune::testing
