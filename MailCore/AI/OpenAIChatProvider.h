// OpenAIChatProvider: the chat-completions API that hosted services and
// local model servers share (POST <base>/chat/completions with a JSON body of
// `model`, `messages`, `temperature` and `max_tokens`; the answer is
// choices[0].message.content), over libcurl.
//
// Only http and https are used and redirects are not followed, so the key
// goes nowhere but the configured address. Answers above 1 MiB are refused.
//
// Thread-safe: each call uses its own curl handle.
#pragma once

#include <string>
#include <string_view>

#include "MailCore/AI/AIProvider.h"

namespace mailcore {

class OpenAIChatProvider : public AIProvider {
public:
    static constexpr std::size_t maxReplyBytes = 1024 * 1024;

    // Throws AIProviderError for a URL that is not http(s) or an empty model.
    explicit OpenAIChatProvider(AIProviderConfig config);

    std::string complete(const AIChatRequest& request) override;
    std::string description() const override;

    // The endpoint a configured URL names: itself when it already ends in
    // "/chat/completions", else that path appended.
    static std::string endpoint(std::string_view url);
    // The JSON body of a request.
    static std::string requestBody(const std::string& model, const AIChatRequest& request);
    // The answer text of a reply body. Throws AIProviderError when the body
    // is not JSON, carries an error object or has no text content.
    static std::string parseReply(std::string_view body);

private:
    AIProviderConfig config_;
};

}  // namespace mailcore
