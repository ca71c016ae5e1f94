#include "MailCore/Engine/EngineTuning.h"

#include <nlohmann/json.hpp>

#include "MailCore/Common/MailError.h"

namespace mailcore {

std::string_view rawValue(HeldSendLaunchPolicy policy) {
    return policy == HeldSendLaunchPolicy::send ? "send" : "keepAsDraft";
}

std::optional<HeldSendLaunchPolicy> heldSendLaunchPolicyFromRaw(std::string_view raw) {
    if (raw == "send") return HeldSendLaunchPolicy::send;
    if (raw == "keepAsDraft") return HeldSendLaunchPolicy::keepAsDraft;
    return std::nullopt;
}

Json EngineTuning::toJson() const {
    Json j = Json::object();
    j["outboxRetryDelays"] = outboxRetryDelays;
    j["maxOperationAttempts"] = maxOperationAttempts;
    j["sendRetryWindow"] = sendRetryWindow;
    j["rateLimitDefault"] = rateLimitDefault;
    j["rateLimitCap"] = rateLimitCap;
    j["offlineRetry"] = offlineRetry;
    j["unknownUIDRetry"] = unknownUIDRetry;
    j["applyJitter"] = applyJitter;
    j["sentVerifyDelay"] = sentVerifyDelay;
    j["sentVerifyAttempts"] = sentVerifyAttempts;
    j["outboxSyncWait"] = outboxSyncWait;
    j["heldSendsOnLaunch"] = std::string(rawValue(heldSendsOnLaunch));
    return j;
}

EngineTuning EngineTuning::fromJson(const Json& j) {
    auto fail = [] {
        return MailError::storage(StorageFailureKind::other,
                                  "stored value is not decodable as EngineTuning");
    };
    if (!j.is_object()) throw fail();
    EngineTuning t;
    auto number = [&](const char* name, double& out) {
        if (!j.contains(name)) return;
        if (!j[name].is_number() || j[name].get<double>() < 0) throw fail();
        out = j[name].get<double>();
    };
    auto count = [&](const char* name, int& out) {
        if (!j.contains(name)) return;
        if (!j[name].is_number_integer() || j[name].get<long long>() < 1 ||
            j[name].get<long long>() > 1000000) {
            throw fail();
        }
        out = j[name].get<int>();
    };
    if (j.contains("outboxRetryDelays")) {
        const Json& delays = j["outboxRetryDelays"];
        if (!delays.is_array() || delays.empty()) throw fail();
        t.outboxRetryDelays.clear();
        for (const auto& d : delays) {
            if (!d.is_number() || d.get<double>() < 0) throw fail();
            t.outboxRetryDelays.push_back(d.get<double>());
        }
    }
    count("maxOperationAttempts", t.maxOperationAttempts);
    number("sendRetryWindow", t.sendRetryWindow);
    number("rateLimitDefault", t.rateLimitDefault);
    number("rateLimitCap", t.rateLimitCap);
    number("offlineRetry", t.offlineRetry);
    number("unknownUIDRetry", t.unknownUIDRetry);
    if (j.contains("applyJitter")) {
        if (!j["applyJitter"].is_boolean()) throw fail();
        t.applyJitter = j["applyJitter"].get<bool>();
    }
    number("sentVerifyDelay", t.sentVerifyDelay);
    count("sentVerifyAttempts", t.sentVerifyAttempts);
    number("outboxSyncWait", t.outboxSyncWait);
    if (j.contains("heldSendsOnLaunch")) {
        if (!j["heldSendsOnLaunch"].is_string()) throw fail();
        auto policy = heldSendLaunchPolicyFromRaw(j["heldSendsOnLaunch"].get<std::string>());
        if (!policy) throw fail();
        t.heldSendsOnLaunch = *policy;
    }
    return t;
}

}  // namespace mailcore
