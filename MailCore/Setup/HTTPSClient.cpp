#include "MailCore/Setup/HTTPSClient.h"

#include <curl/curl.h>

#include <memory>
#include <mutex>

#include "MailCore/Common/MailError.h"

namespace mailcore {
namespace {

void initialiseOnce() {
    static std::once_flag once;
    std::call_once(once, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
}

struct Sink {
    std::string body;
    std::size_t limit = 0;
    bool overflow = false;
};

std::size_t collect(char* data, std::size_t size, std::size_t count, void* user) {
    auto* sink = static_cast<Sink*>(user);
    const std::size_t n = size * count;
    if (sink->body.size() + n > sink->limit) {
        sink->overflow = true;
        return 0;  // aborts the transfer
    }
    sink->body.append(data, n);
    return n;
}

MailError mapCurl(CURLcode code, long verifyResult, const char* detail) {
    const std::string text = detail && *detail ? detail : curl_easy_strerror(code);
    switch (code) {
        case CURLE_COULDNT_RESOLVE_HOST:
            return MailError::network(NetworkFailureKind::dnsFailure, "host not found");
        case CURLE_COULDNT_CONNECT:
            return MailError::network(NetworkFailureKind::connectionRefused, "connection refused");
        case CURLE_OPERATION_TIMEDOUT:
            return MailError::network(NetworkFailureKind::timeout, "request timed out");
        case CURLE_PEER_FAILED_VERIFICATION:
            if (verifyResult == 10)
                return MailError::tls(TLSFailureKind::certificateExpired,
                                      "certificate date invalid");
            if (verifyResult == 62)
                return MailError::tls(TLSFailureKind::hostnameMismatch,
                                      "certificate does not match host");
            if (text.find("subject name") != std::string::npos ||
                text.find("match target host") != std::string::npos)
                return MailError::tls(TLSFailureKind::hostnameMismatch,
                                      "certificate does not match host");
            return MailError::tls(TLSFailureKind::untrustedRoot, "certificate not trusted");
        case CURLE_SSL_CONNECT_ERROR:
        case CURLE_SSL_CACERT_BADFILE:
            return MailError::tls(TLSFailureKind::handshakeFailed, "TLS handshake failed");
        case CURLE_RECV_ERROR:
        case CURLE_SEND_ERROR:
        case CURLE_GOT_NOTHING:
            return MailError::network(NetworkFailureKind::connectionLost, "connection lost");
        case CURLE_UNSUPPORTED_PROTOCOL:
        case CURLE_TOO_MANY_REDIRECTS:
            return MailError::protocolViolation(ProtocolIssueKind::invalidInput,
                                                "not an https URL");
        default:
            return MailError::network(NetworkFailureKind::other, "https request failed: " + text);
    }
}

}  // namespace

std::string formEncode(const std::string& text) {
    static const char hex[] = "0123456789ABCDEF";
    std::string out;
    for (unsigned char c : text) {
        if (std::isalnum(c) || c == '-' || c == '_' || c == '.' || c == '~') {
            out.push_back(static_cast<char>(c));
        } else {
            out.push_back('%');
            out.push_back(hex[c >> 4]);
            out.push_back(hex[c & 15]);
        }
    }
    return out;
}

HTTPSResponse httpsFetch(const HTTPSRequest& request) {
    if (!request.url.starts_with("https://"))
        throw MailError::protocolViolation(ProtocolIssueKind::invalidInput, "not an https URL");
    initialiseOnce();
    std::unique_ptr<CURL, decltype(&curl_easy_cleanup)> curl(curl_easy_init(), curl_easy_cleanup);
    if (!curl) throw MailError::network(NetworkFailureKind::other, "https request failed");
    CURL* h = curl.get();
    Sink sink;
    sink.limit = request.maxResponseBytes;
    char errorText[CURL_ERROR_SIZE] = {0};
    curl_easy_setopt(h, CURLOPT_URL, request.url.c_str());
    curl_easy_setopt(h, CURLOPT_PROTOCOLS_STR, "https");
    curl_easy_setopt(h, CURLOPT_REDIR_PROTOCOLS_STR, "https");
    curl_easy_setopt(h, CURLOPT_FOLLOWLOCATION, request.maxRedirects > 0 ? 1L : 0L);
    curl_easy_setopt(h, CURLOPT_MAXREDIRS, static_cast<long>(request.maxRedirects));
    curl_easy_setopt(h, CURLOPT_CONNECTTIMEOUT_MS,
                     static_cast<long>(request.connectTimeout * 1000));
    curl_easy_setopt(h, CURLOPT_TIMEOUT_MS, static_cast<long>(request.totalTimeout * 1000));
    curl_easy_setopt(h, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(h, CURLOPT_SSLVERSION, CURL_SSLVERSION_TLSv1_2);
    curl_easy_setopt(h, CURLOPT_WRITEFUNCTION, collect);
    curl_easy_setopt(h, CURLOPT_WRITEDATA, &sink);
    curl_easy_setopt(h, CURLOPT_ERRORBUFFER, errorText);
    curl_easy_setopt(h, CURLOPT_USERAGENT, "Kestrune/0.1");
    if (request.caFile) curl_easy_setopt(h, CURLOPT_CAINFO, request.caFile->c_str());
    if (request.formBody) {
        curl_easy_setopt(h, CURLOPT_POSTFIELDS, request.formBody->c_str());
        curl_easy_setopt(h, CURLOPT_POSTFIELDSIZE, static_cast<long>(request.formBody->size()));
    }
    const CURLcode code = curl_easy_perform(h);
    if (sink.overflow)
        throw MailError::protocolViolation(ProtocolIssueKind::responseTooLarge,
                                           "response too large");
    if (code != CURLE_OK) {
        long verify = 0;
        curl_easy_getinfo(h, CURLINFO_SSL_VERIFYRESULT, &verify);
        throw mapCurl(code, verify, errorText);
    }
    HTTPSResponse response;
    curl_easy_getinfo(h, CURLINFO_RESPONSE_CODE, &response.status);
    response.body = std::move(sink.body);
    return response;
}

}  // namespace mailcore
