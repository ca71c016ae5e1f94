// The SMTP sink (smtp_sink.py, aiosmtpd) as a test fixture: started on a
// free 127.0.0.1 port in a private temporary directory, stopped by its
// process id when destroyed. Reads back what it stored and sets its faults.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "MailCore/Common/Json.h"

namespace testfiles {

class SMTPSink {
public:
    SMTPSink();
    ~SMTPSink();
    SMTPSink(const SMTPSink&) = delete;
    SMTPSink& operator=(const SMTPSink&) = delete;

    std::uint16_t port() const { return port_; }
    // The stored messages, oldest first, as received.
    std::vector<std::string> messages() const;
    // The envelope of each: {"from": ..., "to": [...]}.
    std::vector<mailcore::Json> envelopes() const;
    // Replaces the fault list (see smtp_sink.py).
    void setFaults(const mailcore::Json& faults) const;

private:
    std::filesystem::path dir_;
    std::uint16_t port_ = 0;
    int pid_ = -1;
};

// A port that was free a moment ago on 127.0.0.1.
std::uint16_t freeLoopbackPort();
// The repository's root: KESTRUNE_SOURCE_DIR under ctest.
std::filesystem::path sourceDir();

}  // namespace testfiles
