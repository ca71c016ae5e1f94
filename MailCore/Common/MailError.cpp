#include "MailCore/Common/MailError.h"

#include <fmt/format.h>

#include <array>
#include <nlohmann/json.hpp>

namespace mailcore {
namespace {

constexpr std::array<std::string_view, 7> networkNames{
    "dnsFailure",  "connectionRefused", "connectionLost", "timeout",
    "unreachable", "outcomeUnknown",    "other"};
constexpr std::array<std::string_view, 7> tlsNames{
    "certificateInvalid", "certificateExpired",  "hostnameMismatch",     "untrustedRoot",
    "handshakeFailed",    "startTLSUnavailable", "protocolVersionTooLow"};
constexpr std::array<std::string_view, 7> protocolNames{
    "malformedResponse",   "unexpectedResponse", "responseTooLarge", "commandRejected",
    "missingRequiredData", "serverClosed",       "invalidInput"};
constexpr std::array<std::string_view, 8> storageNames{
    "migrationFailed", "schemaNewerThanSupported",
    "corrupted",       "constraintViolation",
    "notFound",        "diskFull",
    "ioError",         "other"};
constexpr std::array<std::string_view, 3> authNames{"invalidCredentials", "reauthorizationRequired",
                                                    "temporaryFailure"};
constexpr std::array<std::string_view, 9> caseNames{
    "network", "tls",       "auth",        "protocolViolation",
    "storage", "cancelled", "rateLimited", "unsupportedCapability",
    "offline"};

template <std::size_t N>
int indexOf(const std::array<std::string_view, N>& names, std::string_view value) {
    for (std::size_t i = 0; i < N; ++i) {
        if (names[i] == value) return static_cast<int>(i);
    }
    return -1;
}

bool hasKind(MailError::Case c) {
    switch (c) {
        case MailError::Case::network:
        case MailError::Case::tls:
        case MailError::Case::auth:
        case MailError::Case::protocolViolation:
        case MailError::Case::storage:
            return true;
        default:
            return false;
    }
}

std::string_view kindName(MailError::Case c, int kind) {
    switch (c) {
        case MailError::Case::network:
            return networkNames.at(kind);
        case MailError::Case::tls:
            return tlsNames.at(kind);
        case MailError::Case::auth:
            return authNames.at(kind);
        case MailError::Case::protocolViolation:
            return protocolNames.at(kind);
        case MailError::Case::storage:
            return storageNames.at(kind);
        default:
            return {};
    }
}

int kindIndex(MailError::Case c, std::string_view name) {
    switch (c) {
        case MailError::Case::network:
            return indexOf(networkNames, name);
        case MailError::Case::tls:
            return indexOf(tlsNames, name);
        case MailError::Case::auth:
            return indexOf(authNames, name);
        case MailError::Case::protocolViolation:
            return indexOf(protocolNames, name);
        case MailError::Case::storage:
            return indexOf(storageNames, name);
        default:
            return -1;
    }
}

}  // namespace

std::string_view rawValue(NetworkFailureKind k) { return networkNames.at(static_cast<int>(k)); }
std::string_view rawValue(TLSFailureKind k) { return tlsNames.at(static_cast<int>(k)); }
std::string_view rawValue(ProtocolIssueKind k) { return protocolNames.at(static_cast<int>(k)); }
std::string_view rawValue(StorageFailureKind k) { return storageNames.at(static_cast<int>(k)); }
std::string_view rawValue(AuthFailureKind k) { return authNames.at(static_cast<int>(k)); }
std::string_view rawValue(MailError::Case c) { return caseNames.at(static_cast<int>(c)); }

MailError::MailError(Case c, int kind, std::string detail, std::optional<double> retryAfter)
    : case_(c), kind_(kind), detail_(std::move(detail)), retryAfter_(retryAfter) {
    if (hasKind(c)) {
        text_ = fmt::format("{}({}): {}", rawValue(c), kindName(c, kind), detail_);
    } else if (c == Case::unsupportedCapability) {
        text_ = fmt::format("{}: {}", rawValue(c), detail_);
    } else if (c == Case::rateLimited && retryAfter_) {
        text_ = fmt::format("rateLimited(retryAfter: {})", *retryAfter_);
    } else {
        text_ = std::string(rawValue(c));
    }
}

MailError MailError::network(NetworkFailureKind k, std::string d) {
    return MailError(Case::network, static_cast<int>(k), std::move(d), std::nullopt);
}
MailError MailError::tls(TLSFailureKind k, std::string d) {
    return MailError(Case::tls, static_cast<int>(k), std::move(d), std::nullopt);
}
MailError MailError::auth(AuthFailureKind k, std::string d) {
    return MailError(Case::auth, static_cast<int>(k), std::move(d), std::nullopt);
}
MailError MailError::protocolViolation(ProtocolIssueKind k, std::string d) {
    return MailError(Case::protocolViolation, static_cast<int>(k), std::move(d), std::nullopt);
}
MailError MailError::storage(StorageFailureKind k, std::string d) {
    return MailError(Case::storage, static_cast<int>(k), std::move(d), std::nullopt);
}
MailError MailError::cancelled() { return MailError(Case::cancelled, 0, {}, std::nullopt); }
MailError MailError::rateLimited(std::optional<double> retryAfter) {
    return MailError(Case::rateLimited, 0, {}, retryAfter);
}
MailError MailError::unsupportedCapability(std::string d) {
    return MailError(Case::unsupportedCapability, 0, std::move(d), std::nullopt);
}
MailError MailError::offline() { return MailError(Case::offline, 0, {}, std::nullopt); }

bool MailError::isRetryable() const {
    switch (case_) {
        case Case::network:
        case Case::rateLimited:
        case Case::offline:
            return true;
        case Case::protocolViolation:
            return protocolKind() == ProtocolIssueKind::serverClosed;
        case Case::auth:
            return authKind() == AuthFailureKind::temporaryFailure;
        default:
            return false;
    }
}

bool MailError::operator==(const MailError& o) const {
    return case_ == o.case_ && kind_ == o.kind_ && detail_ == o.detail_ &&
           retryAfter_ == o.retryAfter_;
}

Json MailError::toJson() const {
    Json j = Json::object();
    j["case"] = std::string(rawValue(case_));
    if (hasKind(case_)) j["kind"] = std::string(kindName(case_, kind_));
    if (hasKind(case_) || case_ == Case::unsupportedCapability) j["detail"] = detail_;
    if (case_ == Case::rateLimited && retryAfter_) j["retryAfter"] = *retryAfter_;
    return j;
}

MailError MailError::fromJson(const Json& j) {
    auto fail = [] {
        return MailError::storage(StorageFailureKind::other,
                                  "stored value is not decodable as MailError");
    };
    if (!j.is_object() || !j.contains("case") || !j["case"].is_string()) throw fail();
    int c = indexOf(caseNames, j["case"].get<std::string>());
    if (c < 0) throw fail();
    Case kase = static_cast<Case>(c);
    int kind = 0;
    std::string detail;
    if (hasKind(kase)) {
        if (!j.contains("kind") || !j["kind"].is_string()) throw fail();
        kind = kindIndex(kase, j["kind"].get<std::string>());
        if (kind < 0) throw fail();
    }
    if (hasKind(kase) || kase == Case::unsupportedCapability) {
        if (!j.contains("detail") || !j["detail"].is_string()) throw fail();
        detail = j["detail"].get<std::string>();
    }
    std::optional<double> retryAfter;
    if (kase == Case::rateLimited && j.contains("retryAfter")) {
        if (!j["retryAfter"].is_number()) throw fail();
        retryAfter = j["retryAfter"].get<double>();
    }
    return MailError(kase, kind, std::move(detail), retryAfter);
}

}  // namespace mailcore
