// The fake provider web server of fake_provider.py, started on 127.0.0.1
// with a self-signed certificate for 127.0.0.1 made by the openssl tool, and
// stopped by its process id.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>

#include "tests/MailCore/Store/StoreTestSupport.h"

namespace mailcore::testing {

class FakeProvider {
public:
    FakeProvider();
    ~FakeProvider();

    std::string url(const std::string& path) const {
        return "https://127.0.0.1:" + std::to_string(port_) + path;
    }
    // The PEM that makes the server trusted.
    std::string caFile() const { return dir_.file("cert.pem"); }
    // Answers with the body (scripted-browser style: redirects followed,
    // http allowed for the loopback receiver).
    std::string browse(const std::string& url) const;
    void post(const std::string& path) const;

private:
    TempDir dir_;
    pid_t pid_ = -1;
    std::uint16_t port_ = 0;
};

}  // namespace mailcore::testing
