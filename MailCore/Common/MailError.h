// MailError: the mail engine's one error type. A closed set of cases, each
// with its payload; thrown as an exception. Equality compares case and
// payload. Details are short lower-case phrases without a final full stop.
#pragma once

#include <exception>
#include <optional>
#include <string>
#include <string_view>

#include "MailCore/Common/Json.h"

namespace mailcore {

enum class NetworkFailureKind {
    dnsFailure,
    connectionRefused,
    connectionLost,
    timeout,
    unreachable,
    outcomeUnknown,
    other
};

enum class TLSFailureKind {
    certificateInvalid,
    certificateExpired,
    hostnameMismatch,
    untrustedRoot,
    handshakeFailed,
    startTLSUnavailable,
    protocolVersionTooLow
};

enum class ProtocolIssueKind {
    malformedResponse,
    unexpectedResponse,
    responseTooLarge,
    commandRejected,
    missingRequiredData,
    serverClosed,
    invalidInput
};

enum class StorageFailureKind {
    migrationFailed,
    schemaNewerThanSupported,
    corrupted,
    constraintViolation,
    notFound,
    diskFull,
    ioError,
    other
};

// Authentication failures. Only `temporaryFailure` may be retried; the
// others need the user to sign in again.
enum class AuthFailureKind { invalidCredentials, reauthorizationRequired, temporaryFailure };

// Raw values ("dnsFailure", "certificateExpired", ...) and their inverse.
std::string_view rawValue(NetworkFailureKind kind);
std::string_view rawValue(TLSFailureKind kind);
std::string_view rawValue(ProtocolIssueKind kind);
std::string_view rawValue(StorageFailureKind kind);
std::string_view rawValue(AuthFailureKind kind);

class MailError : public std::exception {
public:
    // The cases, in declaration order.
    enum class Case {
        network,
        tls,
        auth,
        protocolViolation,
        storage,
        cancelled,
        rateLimited,
        unsupportedCapability,
        offline
    };

    static MailError network(NetworkFailureKind kind, std::string detail);
    static MailError tls(TLSFailureKind kind, std::string detail);
    static MailError auth(AuthFailureKind kind, std::string detail);
    static MailError protocolViolation(ProtocolIssueKind kind, std::string detail);
    static MailError storage(StorageFailureKind kind, std::string detail);
    static MailError cancelled();
    // `retryAfter` in seconds, when the server said how long to wait.
    static MailError rateLimited(std::optional<double> retryAfter);
    static MailError unsupportedCapability(std::string detail);
    static MailError offline();

    Case errorCase() const { return case_; }
    // The kind of network, tls, auth, protocolViolation and storage failures,
    // as the underlying enumerator value; 0 for the other cases.
    int kindValue() const { return kind_; }
    NetworkFailureKind networkKind() const { return static_cast<NetworkFailureKind>(kind_); }
    TLSFailureKind tlsKind() const { return static_cast<TLSFailureKind>(kind_); }
    AuthFailureKind authKind() const { return static_cast<AuthFailureKind>(kind_); }
    ProtocolIssueKind protocolKind() const { return static_cast<ProtocolIssueKind>(kind_); }
    StorageFailureKind storageKind() const { return static_cast<StorageFailureKind>(kind_); }
    const std::string& detail() const { return detail_; }
    std::optional<double> retryAfter() const { return retryAfter_; }

    // True for every network failure, a protocol violation of kind
    // serverClosed, rateLimited, offline and a temporary auth failure.
    bool isRetryable() const;

    // Plain textual form: "network(timeout): read timed out", "cancelled",
    // "rateLimited(retryAfter: 30)".
    const char* what() const noexcept override { return text_.c_str(); }

    bool operator==(const MailError& other) const;

    // Stored form: {"case":"network","kind":"timeout","detail":"..."},
    // {"case":"rateLimited","retryAfter":30}, {"case":"offline"}.
    Json toJson() const;
    // Throws storage(other, "stored value is not decodable as MailError").
    static MailError fromJson(const Json& json);

private:
    MailError(Case c, int kind, std::string detail, std::optional<double> retryAfter);

    Case case_;
    int kind_ = 0;
    std::string detail_;
    std::optional<double> retryAfter_;
    std::string text_;
};

std::string_view rawValue(MailError::Case c);

}  // namespace mailcore
