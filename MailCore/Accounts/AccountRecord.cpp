#include "MailCore/Accounts/AccountRecord.h"

#include <algorithm>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>

#include "MailCore/Common/MailError.h"
#include "MailCore/Transport/Certificate.h"

namespace mailcore {

std::string_view rawValue(AuthMethod method) {
    return method == AuthMethod::oauth ? "oauth" : "password";
}

std::optional<AuthMethod> authMethodFromRaw(std::string_view raw) {
    if (raw == "password") return AuthMethod::password;
    if (raw == "oauth") return AuthMethod::oauth;
    return std::nullopt;
}

std::string_view rawValue(AccountAuthState state) {
    return state == AccountAuthState::ok ? "ok" : "reauthorizationRequired";
}

Json toJson(const AccountRecord& a) {
    Json json{
        {"email", a.address}, {"label", a.label.empty() ? a.address : a.label}, {"demo", a.demo}};
    if (!a.displayName.empty()) json["name"] = a.displayName;
    if (a.imap) json["imap"] = toJson(*a.imap);
    if (a.smtp) json["smtp"] = toJson(*a.smtp);
    if (!a.loginName.empty()) json["login"] = a.loginName;
    json["auth"] = std::string(rawValue(a.authMethod));
    if (a.oauth) {
        json["oauth"] = Json{{"provider", a.oauth->provider},
                             {"authorizationEndpoint", a.oauth->authorizationEndpoint},
                             {"tokenEndpoint", a.oauth->tokenEndpoint},
                             {"clientID", a.oauth->clientID},
                             {"scopes", a.oauth->scopes}};
    }
    if (a.caFile) json["caFile"] = *a.caFile;
    json["serverFilesSent"] = a.serverFilesSentMail;
    json["authState"] = std::string(rawValue(a.authState));
    if (a.authDetail) json["authDetail"] = *a.authDetail;
    return json;
}

AccountRecord accountRecordFromJson(const Json& json) {
    const auto bad = [] {
        return MailError::storage(StorageFailureKind::other,
                                  "stored value is not decodable as AccountConfig");
    };
    if (!json.is_object() || !json.contains("email") || !json["email"].is_string()) throw bad();
    try {
        AccountRecord a;
        a.address = json["email"].get<std::string>();
        a.id = AccountID(a.address);
        a.label = json.value("label", a.address);
        a.demo = json.value("demo", false);
        a.displayName = json.value("name", std::string());
        if (json.contains("imap")) a.imap = serverEndpointFromJson(json["imap"]);
        if (json.contains("smtp")) a.smtp = serverEndpointFromJson(json["smtp"]);
        a.loginName = json.value("login", std::string());
        const auto method = authMethodFromRaw(json.value("auth", std::string("password")));
        if (!method) throw bad();
        a.authMethod = *method;
        if (json.contains("oauth")) {
            const Json& o = json["oauth"];
            if (!o.is_object()) throw bad();
            OAuthSettings s;
            s.provider = o.value("provider", std::string());
            s.authorizationEndpoint = o.value("authorizationEndpoint", std::string());
            s.tokenEndpoint = o.value("tokenEndpoint", std::string());
            s.clientID = o.value("clientID", std::string());
            s.scopes = o.value("scopes", std::vector<std::string>{});
            a.oauth = std::move(s);
        }
        if (json.contains("caFile")) a.caFile = json["caFile"].get<std::string>();
        a.serverFilesSentMail = json.value("serverFilesSent", false);
        a.authState = json.value("authState", std::string("ok")) == "reauthorizationRequired"
                          ? AccountAuthState::reauthorizationRequired
                          : AccountAuthState::ok;
        if (json.contains("authDetail")) a.authDetail = json["authDetail"].get<std::string>();
        return a;
    } catch (const MailError&) {
        throw bad();
    } catch (const nlohmann::json::exception&) {
        throw bad();
    }
}

std::vector<Certificate> extraAnchors(const AccountRecord& account) {
    if (!account.caFile) return {};
    std::ifstream file(*account.caFile, std::ios::binary);
    std::stringstream text;
    if (!file || !(text << file.rdbuf())) {
        throw MailError::tls(TLSFailureKind::certificateInvalid,
                             "cannot read the CA file " + *account.caFile);
    }
    return Certificate::fromPEM(text.str());
}

std::string mailDomain(std::string_view address) {
    const auto at = address.rfind('@');
    if (at == std::string_view::npos) return {};
    std::string domain(address.substr(at + 1));
    std::transform(domain.begin(), domain.end(), domain.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return domain;
}

bool isMailAddress(std::string_view address) {
    if (address.empty() || address.size() > 320) return false;
    const auto at = address.find('@');
    if (at == std::string_view::npos || at == 0 || at + 1 >= address.size()) return false;
    if (address.find('@', at + 1) != std::string_view::npos) return false;
    return std::none_of(address.begin(), address.end(),
                        [](unsigned char c) { return c <= 0x20 || c == 0x7f; });
}

}  // namespace mailcore
