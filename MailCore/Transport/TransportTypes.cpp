#include "MailCore/Transport/TransportTypes.h"

#include <nlohmann/json.hpp>

#include "MailCore/Common/MailError.h"

namespace mailcore {

std::string_view rawValue(TransportSecurity security) {
    return security == TransportSecurity::implicitTLS ? "implicitTLS" : "startTLS";
}

std::optional<TransportSecurity> transportSecurityFromRaw(std::string_view raw) {
    if (raw == "implicitTLS") return TransportSecurity::implicitTLS;
    if (raw == "startTLS") return TransportSecurity::startTLS;
    return std::nullopt;
}

std::string_view settingLabel(TransportSecurity security) {
    return security == TransportSecurity::implicitTLS ? "SSL/TLS" : "STARTTLS";
}

Json toJson(const ServerEndpoint& endpoint) {
    Json json = Json::object();
    json["host"] = endpoint.host;
    json["port"] = endpoint.port;
    json["security"] = std::string(rawValue(endpoint.security));
    return json;
}

ServerEndpoint serverEndpointFromJson(const Json& json) {
    const auto invalid = [] {
        return MailError::protocolViolation(ProtocolIssueKind::invalidInput,
                                            "invalid server endpoint");
    };
    if (!json.is_object()) throw invalid();
    const auto host = json.find("host");
    const auto port = json.find("port");
    const auto security = json.find("security");
    if (host == json.end() || !host->is_string()) throw invalid();
    if (port == json.end() || !port->is_number_unsigned() || port->get<std::uint64_t>() > 65535) {
        throw invalid();
    }
    if (security == json.end() || !security->is_string()) throw invalid();
    auto parsed = transportSecurityFromRaw(security->get<std::string>());
    if (!parsed) throw invalid();
    return ServerEndpoint{host->get<std::string>(),
                          static_cast<std::uint16_t>(port->get<std::uint64_t>()), *parsed};
}

ProtocolLimits standardProtocolLimits() {
    return ProtocolLimits{1 << 20, 64 << 20, 80 << 20, 1'000'000, 16 << 20, 1000};
}

ProtocolLimits boundedProtocolLimits(ProtocolLimits limits) {
    const ProtocolLimits standard = standardProtocolLimits();
    auto bound = [](std::int64_t& value, std::int64_t fallback) {
        if (value <= 0) value = fallback;
    };
    bound(limits.maxLineBytes, standard.maxLineBytes);
    bound(limits.maxLiteralBytes, standard.maxLiteralBytes);
    bound(limits.maxResponseBytes, standard.maxResponseBytes);
    bound(limits.maxUntaggedResponses, standard.maxUntaggedResponses);
    bound(limits.maxSearchResultBytes, standard.maxSearchResultBytes);
    bound(limits.maxUIDsPerCommand, standard.maxUIDsPerCommand);
    return limits;
}

ConnectionTimeouts standardConnectionTimeouts() {
    return ConnectionTimeouts{30, 60, 25 * 60, 120, 600};
}

}  // namespace mailcore
