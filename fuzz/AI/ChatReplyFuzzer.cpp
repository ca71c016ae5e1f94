// A chat-completions reply body and a model's yes/no answer, on arbitrary
// bytes: parsing either gives text or AIProviderError, never a crash; a
// reply that parses gives the same text when its content is written back
// into a reply and parsed again.
#include <cstdint>
#include <cstdlib>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

#include "MailCore/AI/OpenAIChatProvider.h"
#include "MailCore/Common/Json.h"
#include "MailCore/Common/UTF8.h"
#include "MailCore/Workflow/WorkflowAI.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view input(reinterpret_cast<const char*>(data), size);
    try {
        const std::string text = mailcore::OpenAIChatProvider::parseReply(input);
        const mailcore::Json again{
            {"choices", mailcore::Json::array({mailcore::Json{{"message", {{"content", text}}}}})}};
        if (mailcore::OpenAIChatProvider::parseReply(mailcore::encodeJson(again)) != text &&
            mailcore::utf8::isValid(text))
            std::abort();
    } catch (const mailcore::AIProviderError&) {
    }
    try {
        const auto judgement = mailcore::WorkflowAI::readJudgement(std::string(input));
        if (judgement.reason.size() > 800) std::abort();
    } catch (const mailcore::AIProviderError&) {
    }
    return 0;
}
