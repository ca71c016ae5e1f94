// Certificate: one X.509 certificate in DER form, as handed to transports as
// an extra trust anchor.
#pragma once

#include <string_view>
#include <vector>

#include "MailCore/Transport/Bytes.h"

namespace mailcore {

struct Certificate {
    Bytes der;

    bool operator==(const Certificate&) const = default;

    // Every certificate of a PEM text, in order. Throws
    // MailError::tls(certificateInvalid, "certificate invalid") when the text
    // holds none or a malformed one.
    static std::vector<Certificate> fromPEM(std::string_view pem);
};

}  // namespace mailcore
