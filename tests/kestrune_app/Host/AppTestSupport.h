// A private temporary directory and a demo store filled from raw messages.
#pragma once

#include <filesystem>
#include <memory>
#include <string>

#include "MailCore/Store/SQLiteMailStore.h"
#include "kestrune_app/Host/MailIngest.h"

namespace kestrune::testing {

struct TempDir {
    std::filesystem::path path;
    TempDir();
    ~TempDir();
};

// "From: <from>\r\nTo: ...\r\nSubject: <subject>\r\nDate: <date>\r\n..." with a text body.
std::string rawMessage(const std::string& from, const std::string& subject, const std::string& date,
                       const std::string& body, const std::string& extraHeaders = "");

}  // namespace kestrune::testing
