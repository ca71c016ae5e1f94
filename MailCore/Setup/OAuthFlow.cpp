#include "MailCore/Setup/OAuthFlow.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <openssl/evp.h>
#include <openssl/sha.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <nlohmann/json.hpp>

#include "MailCore/Common/MailError.h"
#include "MailCore/Common/Random.h"
#include "MailCore/Setup/HTTPSClient.h"

namespace mailcore {
namespace {

std::string base64url(const unsigned char* data, std::size_t size) {
    std::string out(4 * ((size + 2) / 3) + 1, '\0');
    const int n =
        EVP_EncodeBlock(reinterpret_cast<unsigned char*>(out.data()), data, static_cast<int>(size));
    out.resize(static_cast<std::size_t>(n));
    for (char& c : out) {
        if (c == '+') c = '-';
        if (c == '/') c = '_';
    }
    while (!out.empty() && out.back() == '=') out.pop_back();
    return out;
}

std::string randomText(std::size_t bytes) {
    const auto random = randomBytes(bytes);
    return base64url(random.data(), random.size());
}

int hexValue(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

std::string percentDecode(std::string_view text) {
    std::string out;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '+') {
            out.push_back(' ');
        } else if (text[i] == '%' && i + 2 < text.size() && hexValue(text[i + 1]) >= 0 &&
                   hexValue(text[i + 2]) >= 0) {
            out.push_back(static_cast<char>(hexValue(text[i + 1]) * 16 + hexValue(text[i + 2])));
            i += 2;
        } else {
            out.push_back(text[i]);
        }
    }
    return out;
}

std::optional<std::string> queryValue(std::string_view query, std::string_view name) {
    while (!query.empty()) {
        const auto end = query.find('&');
        const std::string_view pair = query.substr(0, end);
        const auto eq = pair.find('=');
        if (percentDecode(pair.substr(0, eq)) == name)
            return eq == std::string_view::npos ? "" : percentDecode(pair.substr(eq + 1));
        if (end == std::string_view::npos) break;
        query.remove_prefix(end + 1);
    }
    return std::nullopt;
}

void answer(int fd, int status, const std::string& title, const std::string& message) {
    const std::string body = "<!DOCTYPE html><html><head><meta charset=\"utf-8\"><title>" + title +
                             "</title></head><body><h1>" + title + "</h1><p>" + message +
                             "</p></body></html>";
    const std::string response = "HTTP/1.1 " + std::to_string(status) +
                                 (status == 200 ? " OK" : " Bad Request") +
                                 "\r\nContent-Type: text/html; charset=utf-8\r\nContent-Length: " +
                                 std::to_string(body.size()) +
                                 "\r\nCache-Control: no-store\r\nConnection: close\r\n\r\n" + body;
    std::size_t sent = 0;
    while (sent < response.size()) {
        const ssize_t n = ::send(fd, response.data() + sent, response.size() - sent, MSG_NOSIGNAL);
        if (n <= 0) break;
        sent += static_cast<std::size_t>(n);
    }
}

// The request line's target, read within 5 seconds; none for anything else.
std::optional<std::string> requestTarget(int fd) {
    std::string head;
    char buffer[1024];
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while (head.find("\r\n") == std::string::npos && head.size() < 8192) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        pollfd p{fd, POLLIN, 0};
        if (left.count() <= 0 || ::poll(&p, 1, static_cast<int>(left.count())) <= 0)
            return std::nullopt;
        const ssize_t n = ::recv(fd, buffer, sizeof buffer, 0);
        if (n <= 0) return std::nullopt;
        head.append(buffer, static_cast<std::size_t>(n));
    }
    const auto lineEnd = head.find("\r\n");
    if (lineEnd == std::string::npos || !head.starts_with("GET ")) return std::nullopt;
    const std::string line = head.substr(4, lineEnd - 4);
    const auto space = line.find(' ');
    return line.substr(0, space);
}

OAuthTokens tokenRequest(const OAuthSettings& settings, const std::string& form, Date now,
                         const OAuthHTTPOptions& options) {
    HTTPSRequest request;
    request.url = settings.tokenEndpoint;
    request.formBody = form;
    request.caFile = options.caFile;
    request.totalTimeout = options.timeout;
    request.connectTimeout = std::min(options.timeout, 5.0);
    request.maxResponseBytes = 64 * 1024;
    const auto response = httpsFetch(request);
    return parseTokenResponse(response.status, response.body, now);
}

}  // namespace

PKCEPair PKCEPair::generate() {
    PKCEPair p;
    p.verifier = randomText(32);
    p.challenge = challengeFor(p.verifier);
    p.state = randomText(16);
    return p;
}

std::string PKCEPair::challengeFor(const std::string& verifier) {
    unsigned char digest[SHA256_DIGEST_LENGTH];
    SHA256(reinterpret_cast<const unsigned char*>(verifier.data()), verifier.size(), digest);
    return base64url(digest, sizeof digest);
}

std::string authorizationURL(const OAuthSettings& settings, const std::string& redirectURI,
                             const PKCEPair& pkce, const std::string& loginHint) {
    std::string scopes;
    for (const auto& s : settings.scopes) scopes += (scopes.empty() ? "" : " ") + s;
    std::string url = settings.authorizationEndpoint;
    url += url.find('?') == std::string::npos ? "?" : "&";
    url += "response_type=code&client_id=" + formEncode(settings.clientID) +
           "&redirect_uri=" + formEncode(redirectURI) + "&scope=" + formEncode(scopes) +
           "&state=" + formEncode(pkce.state) + "&code_challenge=" + formEncode(pkce.challenge) +
           "&code_challenge_method=S256";
    if (!loginHint.empty()) url += "&login_hint=" + formEncode(loginHint);
    return url;
}

LoopbackReceiver::LoopbackReceiver() {
    listener_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = 0;
    socklen_t length = sizeof address;
    if (listener_ < 0 ||
        ::bind(listener_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        ::listen(listener_, 8) != 0 ||
        ::getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        if (listener_ >= 0) ::close(listener_);
        throw MailError::network(NetworkFailureKind::other,
                                 "cannot listen on 127.0.0.1 for the sign-in");
    }
    port_ = ntohs(address.sin_port);
}

LoopbackReceiver::~LoopbackReceiver() {
    if (listener_ >= 0) ::close(listener_);
}

std::string LoopbackReceiver::redirectURI() const {
    return "http://127.0.0.1:" + std::to_string(port_) + "/callback";
}

std::string LoopbackReceiver::waitForCode(const std::string& state, std::chrono::seconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    struct Stop {
        int& fd;
        ~Stop() {
            if (fd >= 0) ::close(fd);
            fd = -1;
        }
    } stop{listener_};
    for (;;) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        pollfd p{listener_, POLLIN, 0};
        if (left.count() <= 0 || ::poll(&p, 1, static_cast<int>(left.count())) <= 0)
            throw MailError::network(NetworkFailureKind::timeout,
                                     "no sign-in within the time allowed");
        const int client = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
        if (client < 0) continue;
        struct Close {
            int fd;
            ~Close() { ::close(fd); }
        } closeClient{client};
        const auto target = requestTarget(client);
        if (!target || !target->starts_with("/callback?")) {
            answer(client, 400, "Not a Kestrune sign-in",
                   "This address only receives the answer of a Kestrune sign-in.");
            continue;
        }
        const std::string_view query = std::string_view(*target).substr(10);
        if (queryValue(query, "state") != state) {
            answer(client, 400, "Sign-in link out of date",
                   "This answer does not belong to the sign-in Kestrune is waiting for. Start "
                   "the sign-in again from Kestrune.");
            continue;
        }
        if (const auto error = queryValue(query, "error")) {
            answer(client, 400, "Sign-in not completed",
                   "The provider did not grant access. You can close this window and try again "
                   "in Kestrune.");
            throw MailError::auth(AuthFailureKind::invalidCredentials,
                                  "sign-in was declined: " + error->substr(0, 80));
        }
        const auto code = queryValue(query, "code");
        if (!code || code->empty()) {
            answer(client, 400, "Sign-in not completed",
                   "The provider's answer carried no authorization code.");
            continue;
        }
        answer(client, 200, "Signed in",
               "Kestrune has received your sign-in. You can close this window.");
        return *code;
    }
}

OAuthTokens parseTokenResponse(long status, const std::string& body, Date now) {
    Json json;
    const bool isJSON = tryParseJson(body, json) && json.is_object();
    if (status != 200 || (isJSON && json.contains("error"))) {
        std::string error = "status " + std::to_string(status);
        if (isJSON && json.contains("error") && json["error"].is_string())
            error = json["error"].get<std::string>().substr(0, 80);
        if (error == "invalid_grant")
            throw MailError::auth(AuthFailureKind::reauthorizationRequired,
                                  "re-authorization required");
        if (status >= 500)
            throw MailError::auth(AuthFailureKind::temporaryFailure,
                                  "the sign-in service failed: " + error);
        throw MailError::auth(AuthFailureKind::invalidCredentials, "sign-in was refused: " + error);
    }
    const auto bad = [] {
        return MailError::protocolViolation(ProtocolIssueKind::malformedResponse,
                                            "token answer without an access token");
    };
    if (!isJSON) throw bad();
    const auto access = json.find("access_token");
    if (access == json.end() || !access->is_string() ||
        access->get_ref<const std::string&>().empty())
        throw bad();
    OAuthTokens tokens;
    tokens.accessToken = access->get<std::string>();
    const auto refresh = json.find("refresh_token");
    if (refresh != json.end() && refresh->is_string() &&
        !refresh->get_ref<const std::string&>().empty())
        tokens.refreshToken = refresh->get<std::string>();
    double lifetime = 3600;
    const auto expires = json.find("expires_in");
    if (expires != json.end() && expires->is_number() && expires->get<double>() > 0 &&
        expires->get<double>() < 10 * 365 * 86400.0)
        lifetime = expires->get<double>();
    tokens.expiresAt =
        now + std::chrono::duration_cast<Date::duration>(std::chrono::duration<double>(lifetime));
    return tokens;
}

OAuthTokens exchangeCode(const OAuthSettings& settings, const std::string& code,
                         const std::string& redirectURI, const std::string& verifier, Date now,
                         const OAuthHTTPOptions& options) {
    return tokenRequest(settings,
                        "grant_type=authorization_code&code=" + formEncode(code) +
                            "&redirect_uri=" + formEncode(redirectURI) +
                            "&client_id=" + formEncode(settings.clientID) +
                            "&code_verifier=" + formEncode(verifier),
                        now, options);
}

OAuthTokens refreshAccessToken(const OAuthSettings& settings, const std::string& refreshToken,
                               Date now, const OAuthHTTPOptions& options) {
    return tokenRequest(settings,
                        "grant_type=refresh_token&refresh_token=" + formEncode(refreshToken) +
                            "&client_id=" + formEncode(settings.clientID),
                        now, options);
}

}  // namespace mailcore
