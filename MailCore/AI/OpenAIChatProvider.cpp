#include "MailCore/AI/OpenAIChatProvider.h"

#include <curl/curl.h>

#include <algorithm>
#include <memory>
#include <mutex>
#include <nlohmann/json.hpp>

#include "MailCore/Common/Json.h"

namespace mailcore {

namespace {

void initialiseCurlOnce() {
    static std::once_flag once;
    std::call_once(once, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
}

bool startsWith(std::string_view text, std::string_view prefix) {
    return text.size() >= prefix.size() && text.compare(0, prefix.size(), prefix) == 0;
}

bool endsWith(std::string_view text, std::string_view suffix) {
    return text.size() >= suffix.size() &&
           text.compare(text.size() - suffix.size(), suffix.size(), suffix) == 0;
}

struct ReplyBuffer {
    std::string bytes;
    bool tooLarge = false;
};

size_t collect(char* data, size_t size, size_t count, void* user) {
    auto* reply = static_cast<ReplyBuffer*>(user);
    const size_t n = size * count;
    if (reply->bytes.size() + n > OpenAIChatProvider::maxReplyBytes) {
        reply->tooLarge = true;
        return 0;  // aborts the transfer
    }
    reply->bytes.append(data, n);
    return n;
}

struct CurlDeleter {
    void operator()(CURL* c) const { curl_easy_cleanup(c); }
};
struct HeaderDeleter {
    void operator()(curl_slist* l) const { curl_slist_free_all(l); }
};

}  // namespace

OpenAIChatProvider::OpenAIChatProvider(AIProviderConfig config) : config_(std::move(config)) {
    if (!startsWith(config_.url, "http://") && !startsWith(config_.url, "https://"))
        throw AIProviderError("provider url must start with http:// or https://");
    if (config_.model.empty()) throw AIProviderError("provider model is empty");
    initialiseCurlOnce();
}

std::string OpenAIChatProvider::description() const {
    return config_.model + " at " + endpoint(config_.url);
}

std::string OpenAIChatProvider::endpoint(std::string_view url) {
    std::string base(url);
    if (endsWith(base, "/chat/completions")) return base;
    while (!base.empty() && base.back() == '/') base.pop_back();
    return base + "/chat/completions";
}

std::string OpenAIChatProvider::requestBody(const std::string& model,
                                            const AIChatRequest& request) {
    Json messages = Json::array();
    for (const AIChatMessage& m : request.messages)
        messages.push_back(Json{{"role", m.role}, {"content", m.content}});
    Json body{{"model", model},
              {"messages", std::move(messages)},
              {"temperature", request.temperature},
              {"max_tokens", request.maxTokens},
              {"stream", false}};
    return encodeJson(body);
}

std::string OpenAIChatProvider::parseReply(std::string_view body) {
    Json reply;
    if (!tryParseJson(body, reply) || !reply.is_object())
        throw AIProviderError("provider reply is not a JSON object");
    if (const auto error = reply.find("error"); error != reply.end() && !error->is_null())
        throw AIProviderError("provider reported an error");
    const auto choices = reply.find("choices");
    if (choices == reply.end() || !choices->is_array() || choices->empty() ||
        !(*choices)[0].is_object())
        throw AIProviderError("provider reply has no choices");
    const Json& first = (*choices)[0];
    const auto message = first.find("message");
    if (message == first.end() || !message->is_object())
        throw AIProviderError("provider reply has no message");
    const auto content = message->find("content");
    if (content == message->end() || !content->is_string())
        throw AIProviderError("provider reply has no text");
    return content->get<std::string>();
}

std::string OpenAIChatProvider::complete(const AIChatRequest& request) {
    std::unique_ptr<CURL, CurlDeleter> curl(curl_easy_init());
    if (!curl) throw AIProviderError("cannot start an http request");
    const std::string url = endpoint(config_.url);
    const std::string body = requestBody(config_.model, request);
    curl_slist* raw = curl_slist_append(nullptr, "Content-Type: application/json");
    raw = curl_slist_append(raw, "Accept: application/json");
    std::string authorization;
    if (config_.apiKey && !config_.apiKey->empty()) {
        authorization = "Authorization: Bearer " + *config_.apiKey;
        raw = curl_slist_append(raw, authorization.c_str());
        // The header text is copied by curl; wipe ours at once.
        std::fill(authorization.begin(), authorization.end(), '\0');
    }
    std::unique_ptr<curl_slist, HeaderDeleter> headers(raw);
    ReplyBuffer reply;
    CURL* c = curl.get();
    curl_easy_setopt(c, CURLOPT_URL, url.c_str());
    curl_easy_setopt(c, CURLOPT_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(c, CURLOPT_FOLLOWLOCATION, 0L);
    curl_easy_setopt(c, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(c, CURLOPT_HTTPHEADER, headers.get());
    curl_easy_setopt(c, CURLOPT_POSTFIELDS, body.data());
    curl_easy_setopt(c, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(body.size()));
    curl_easy_setopt(c, CURLOPT_TIMEOUT, static_cast<long>(config_.timeout.count()));
    curl_easy_setopt(c, CURLOPT_CONNECTTIMEOUT, 15L);
    curl_easy_setopt(c, CURLOPT_WRITEFUNCTION, collect);
    curl_easy_setopt(c, CURLOPT_WRITEDATA, &reply);
    const CURLcode result = curl_easy_perform(c);
    if (reply.tooLarge) throw AIProviderError("provider reply is larger than 1 MiB");
    if (result == CURLE_OPERATION_TIMEDOUT) throw AIProviderError("request timed out");
    if (result != CURLE_OK)
        throw AIProviderError(std::string("request failed: ") + curl_easy_strerror(result));
    long status = 0;
    curl_easy_getinfo(c, CURLINFO_RESPONSE_CODE, &status);
    if (status < 200 || status >= 300)
        throw AIProviderError("provider answered " + std::to_string(status));
    return parseReply(reply.bytes);
}

}  // namespace mailcore
