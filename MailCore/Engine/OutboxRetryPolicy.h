// OutboxRetryPolicy: what follows a failed outbox attempt. Pure decisions
// over EngineTuning; the random source behind the jitter is injected.
//
// Classification of failures:
//   put back untouched   cancelled (the work was abandoned, e.g. at shutdown)
//   retry, not counted   offline (after offlineRetry), rate limited (after
//                        the server's wait, else rateLimitDefault, at most
//                        rateLimitCap), the connection lost before anything
//                        was sent (after the next entry of the schedule), UID
//                        not known yet (after unknownUIDRetry)
//   retry, counted       every other retryable error (network failures,
//                        server closed, temporary authentication failures)
//                        after the schedule's delay; after
//                        maxOperationAttempts counted attempts: failed
//   failed for good      everything else: authentication needing the user
//                        ("re-authorization required"), TLS trust problems,
//                        rejected commands ("message no longer on the
//                        server", "destination folder missing"), storage
//                        errors, missing capabilities
// A send is no longer retried once sendRetryWindow has passed since it was
// queued: it fails with its last error instead.
#pragma once

#include <functional>

#include "MailCore/Common/Clock.h"
#include "MailCore/Common/MailError.h"
#include "MailCore/Engine/EngineTuning.h"
#include "MailCore/Store/OutboxRecords.h"

namespace mailcore {

// A uniform random number in [0, 1).
using UnitRandom = std::function<double()>;
// A random source seeded from the system's random bytes.
UnitRandom systemUnitRandom();

struct OutboxDecision {
    enum class Kind { retry, fail, release };
    Kind kind = Kind::retry;
    Date notBefore{};
    bool counts = true;  // whether the attempt counts against the limit
    MailError error = MailError::offline();
};

class OutboxRetryPolicy {
public:
    OutboxRetryPolicy(EngineTuning tuning, UnitRandom random);

    // The delay after `countedAttempts` counted attempts (1 for the first):
    // entry countedAttempts-1 of outboxRetryDelays, the last entry beyond the
    // list's end, the first for 0 or less; with applyJitter, multiplied by a
    // factor drawn uniformly from [0.8, 1.2).
    double retryDelay(std::int64_t countedAttempts) const;

    // `item` as claimed (its attemptCount includes this attempt).
    OutboxDecision onFailure(const OutboxItem& item, const MailError& error, bool beforeSending,
                             Date now) const;
    // The UID of the item's message is not known yet.
    OutboxDecision onUnknownUID(const OutboxItem& item, Date now) const;

    const EngineTuning& tuning() const { return tuning_; }

private:
    OutboxDecision retry(const OutboxItem& item, const MailError& error, bool counts, double delay,
                         Date now) const;

    EngineTuning tuning_;
    UnitRandom random_;
};

Date addSeconds(Date date, double seconds);

}  // namespace mailcore
