// AIProvider: a language model reached through a chat interface. The
// workflow engine asks it to judge `classified` conditions and to write
// `instruction` drafts; every mail text it is given has been through
// AIContentSanitizer first (see WorkflowAI.h).
//
// Implementations must be safe to call from several threads at once; a call
// blocks its caller until the answer or the provider's timeout.
#pragma once

#include <chrono>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace mailcore {

// The provider could not be reached or gave no usable answer. what() is a
// short lower-case detail ("provider answered 401", "request timed out"),
// never the key or the text sent.
class AIProviderError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

struct AIChatMessage {
    std::string role;  // "system" or "user"
    std::string content;
};

struct AIChatRequest {
    std::vector<AIChatMessage> messages;
    int maxTokens = 400;
    double temperature = 0;
};

class AIProvider {
public:
    virtual ~AIProvider() = default;

    // The model's answer text. Throws AIProviderError.
    virtual std::string complete(const AIChatRequest& request) = 0;

    // "MODEL at URL", for the person's view; never the key.
    virtual std::string description() const = 0;
};

// Where the person's provider is and how to call it.
struct AIProviderConfig {
    std::string url;                    // base ("http://127.0.0.1:8080/v1") or full endpoint
    std::string model;                  // "llama3", "gpt-4o-mini", ...
    std::optional<std::string> apiKey;  // sent as a bearer token when set
    std::chrono::seconds timeout{60};
};

}  // namespace mailcore
