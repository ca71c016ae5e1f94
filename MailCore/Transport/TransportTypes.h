// How a mail server is reached and how connections to it are bounded:
// TransportSecurity, ServerEndpoint, ConnectionTimeouts, ProtocolLimits.
// Plain values; safe to copy between threads.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "MailCore/Common/Json.h"

namespace mailcore {

// There is no plaintext-only security: a connection is TLS from its first
// byte or is upgraded with STARTTLS.
enum class TransportSecurity { implicitTLS, startTLS };

// "implicitTLS", "startTLS".
std::string_view rawValue(TransportSecurity security);
std::optional<TransportSecurity> transportSecurityFromRaw(std::string_view raw);
// The text shown in settings: "SSL/TLS", "STARTTLS".
std::string_view settingLabel(TransportSecurity security);

struct ServerEndpoint {
    std::string host;
    std::uint16_t port = 0;
    TransportSecurity security = TransportSecurity::implicitTLS;

    bool operator==(const ServerEndpoint&) const = default;
};

// {"host":"imap.example.com","port":993,"security":"implicitTLS"}.
Json toJson(const ServerEndpoint& endpoint);
// Throws MailError::protocolViolation(invalidInput, "invalid server endpoint")
// for anything else.
ServerEndpoint serverEndpointFromJson(const Json& json);

// All in seconds.
struct ConnectionTimeouts {
    double connect = 0;      // TCP connection and TLS handshake
    double read = 0;         // one wait for incoming bytes
    double idleRenewal = 0;  // how long an IMAP IDLE runs before it is renewed
    double command = 0;      // one ordinary protocol command
    double bulkCommand = 0;  // a command that moves much data

    bool operator==(const ConnectionTimeouts&) const = default;
};

// Bounds for the IMAP and SMTP response readers and command builders.
struct ProtocolLimits {
    std::int64_t maxLineBytes = 0;
    std::int64_t maxLiteralBytes = 0;
    std::int64_t maxResponseBytes = 0;  // a line with its literals
    std::int64_t maxUntaggedResponses = 0;
    std::int64_t maxSearchResultBytes = 0;
    std::int64_t maxUIDsPerCommand = 0;

    bool operator==(const ProtocolLimits&) const = default;
};

// The engine's shipped bounds: lines of 1 MiB, literals of 64 MiB, responses
// of 80 MiB, 1,000,000 untagged responses per command, search results of
// 16 MiB, 1,000 UIDs per command.
ProtocolLimits standardProtocolLimits();
// `limits` with every field that is zero or negative taken from
// standardProtocolLimits(), so that no reader is ever unbounded.
ProtocolLimits boundedProtocolLimits(ProtocolLimits limits);
// The engine's shipped waits: connect 30 s, read 60 s, IDLE renewal 25 min,
// command 120 s, bulk command 600 s.
ConnectionTimeouts standardConnectionTimeouts();

}  // namespace mailcore

template <>
struct std::hash<mailcore::ServerEndpoint> {
    std::size_t operator()(const mailcore::ServerEndpoint& e) const noexcept {
        std::size_t h = std::hash<std::string>{}(e.host);
        h ^= (static_cast<std::size_t>(e.port) << 1) ^ (static_cast<std::size_t>(e.security) << 17);
        return h;
    }
};
