// One HTTPS exchange through libcurl, bounded in time and size. Only https
// URLs are fetched, redirects only to https. TLS trust is the system's, or
// only the anchors of `caFile` when one is given.
//
// Stateless; safe to call from any thread.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

namespace mailcore {

struct HTTPSRequest {
    std::string url;
    std::optional<std::string> formBody;  // POST as application/x-www-form-urlencoded
    std::optional<std::string> caFile;    // PEM of extra trust anchors
    double connectTimeout = 5;            // seconds
    double totalTimeout = 10;             // seconds
    std::size_t maxResponseBytes = 1 << 20;
    int maxRedirects = 0;
};

struct HTTPSResponse {
    long status = 0;
    std::string body;
};

// Throws MailError: network(dnsFailure | connectionRefused | timeout |
// connectionLost | other, ...), tls(untrustedRoot | certificateExpired |
// hostnameMismatch | handshakeFailed, ...), protocolViolation(
// responseTooLarge, "response too large") or (invalidInput, "not an https
// URL"). Any HTTP status is a response, not an error.
HTTPSResponse httpsFetch(const HTTPSRequest& request);

// Percent-encoding for URL queries and form bodies.
std::string formEncode(const std::string& text);

}  // namespace mailcore
