// EngineTuning: the engine's fixed waits and limits for the outbox. Plain
// value; the defaults are the engine's shipped values. Times in seconds.
#pragma once

#include <optional>
#include <string_view>
#include <vector>

#include "MailCore/Common/Json.h"

namespace mailcore {

// What happens at launch to sends interrupted by the end of the previous
// run. Raw values "send" and "keepAsDraft".
enum class HeldSendLaunchPolicy { send, keepAsDraft };
std::string_view rawValue(HeldSendLaunchPolicy policy);
std::optional<HeldSendLaunchPolicy> heldSendLaunchPolicyFromRaw(std::string_view raw);

struct EngineTuning {
    // The retry delay after the n-th counted attempt is entry n-1; attempts
    // beyond the list keep using its last entry.
    std::vector<double> outboxRetryDelays{5, 15, 45, 120, 300, 900, 1800};
    int maxOperationAttempts = 8;
    double sendRetryWindow = 86400;  // a send is no longer retried once this old
    double rateLimitDefault = 60;    // wait after a rate-limit answer naming no time
    double rateLimitCap = 3600;      // the longest rate-limit wait honoured
    double offlineRetry = 30;
    double unknownUIDRetry = 15;
    bool applyJitter = true;  // each retry delay varies by up to ±20%
    double sentVerifyDelay = 1;
    int sentVerifyAttempts = 3;
    double outboxSyncWait = 15;
    HeldSendLaunchPolicy heldSendsOnLaunch = HeldSendLaunchPolicy::send;

    // Coding by field name; absent fields keep their defaults. fromJson
    // throws storage(other, "stored value is not decodable as EngineTuning").
    Json toJson() const;
    static EngineTuning fromJson(const Json& json);
};

}  // namespace mailcore
