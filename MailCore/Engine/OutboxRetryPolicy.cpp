#include "MailCore/Engine/OutboxRetryPolicy.h"

#include <algorithm>
#include <memory>
#include <mutex>
#include <random>

#include "MailCore/Common/Random.h"

namespace mailcore {

UnitRandom systemUnitRandom() {
    auto bytes = randomBytes(8);
    std::uint64_t seed = 0;
    for (auto b : bytes) seed = (seed << 8) | b;
    struct State {
        std::mutex lock;
        std::mt19937_64 engine;
    };
    auto state = std::make_shared<State>();
    state->engine.seed(seed);
    return [state] {
        std::lock_guard<std::mutex> guard(state->lock);
        return std::uniform_real_distribution<double>(0.0, 1.0)(state->engine);
    };
}

Date addSeconds(Date date, double seconds) {
    return date +
           std::chrono::duration_cast<Date::duration>(std::chrono::duration<double>(seconds));
}

OutboxRetryPolicy::OutboxRetryPolicy(EngineTuning tuning, UnitRandom random)
    : tuning_(std::move(tuning)), random_(random ? std::move(random) : systemUnitRandom()) {
    if (tuning_.outboxRetryDelays.empty()) tuning_.outboxRetryDelays = {0};
}

double OutboxRetryPolicy::retryDelay(std::int64_t countedAttempts) const {
    const auto& delays = tuning_.outboxRetryDelays;
    std::int64_t last = static_cast<std::int64_t>(delays.size()) - 1;
    std::int64_t index = std::clamp<std::int64_t>(countedAttempts - 1, 0, last);
    double delay = delays[static_cast<std::size_t>(index)];
    if (tuning_.applyJitter) delay *= 0.8 + 0.4 * std::clamp(random_(), 0.0, 1.0);
    return delay;
}

OutboxDecision OutboxRetryPolicy::retry(const OutboxItem& item, const MailError& error, bool counts,
                                        double delay, Date now) const {
    OutboxDecision d;
    d.error = error;
    d.counts = counts;
    bool isSend = item.operation.kind() == OutboxOperation::Kind::send;
    if (isSend && now >= addSeconds(item.createdAt, tuning_.sendRetryWindow)) {
        d.kind = OutboxDecision::Kind::fail;
        return d;
    }
    if (counts && item.attemptCount >= tuning_.maxOperationAttempts) {
        d.kind = OutboxDecision::Kind::fail;
        return d;
    }
    d.kind = OutboxDecision::Kind::retry;
    d.notBefore = addSeconds(now, delay);
    return d;
}

OutboxDecision OutboxRetryPolicy::onFailure(const OutboxItem& item, const MailError& error,
                                            bool beforeSending, Date now) const {
    using Case = MailError::Case;
    switch (error.errorCase()) {
        case Case::cancelled: {
            OutboxDecision d;
            d.kind = OutboxDecision::Kind::release;
            d.notBefore = now;
            d.counts = false;
            d.error = error;
            return d;
        }
        case Case::offline:
            return retry(item, error, false, tuning_.offlineRetry, now);
        case Case::rateLimited: {
            double wait = error.retryAfter().value_or(tuning_.rateLimitDefault);
            wait = std::clamp(wait, 0.0, tuning_.rateLimitCap);
            return retry(item, error, false, wait, now);
        }
        default:
            break;
    }
    if (!error.isRetryable()) {
        OutboxDecision d;
        d.kind = OutboxDecision::Kind::fail;
        d.error = error;
        d.counts = true;
        return d;
    }
    if (beforeSending) {
        // Nothing reached the server: the attempt is taken back, and the
        // wait is the one the item would have had before this attempt.
        return retry(item, error, false, retryDelay(item.attemptCount - 1), now);
    }
    return retry(item, error, true, retryDelay(item.attemptCount), now);
}

OutboxDecision OutboxRetryPolicy::onUnknownUID(const OutboxItem& item, Date now) const {
    return retry(item,
                 MailError::protocolViolation(ProtocolIssueKind::missingRequiredData,
                                              "message uid not yet known"),
                 false, tuning_.unknownUIDRetry, now);
}

}  // namespace mailcore
