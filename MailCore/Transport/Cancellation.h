// Cancellation of blocking engine operations. A caller that wants to be able
// to cancel what it runs installs a stop token for its thread with a
// CancellationScope; operations that wait (a stream read, for example) watch
// CancellationScope::current() and fail with MailError::cancelled() as soon
// as a stop is requested. Scopes nest; each restores the token it replaced.
#pragma once

#include <stop_token>

namespace mailcore {

class CancellationScope {
public:
    explicit CancellationScope(std::stop_token token);
    ~CancellationScope();
    CancellationScope(const CancellationScope&) = delete;
    CancellationScope& operator=(const CancellationScope&) = delete;

    // The token installed for the calling thread; one that can never stop
    // when no scope is active.
    static std::stop_token current();

private:
    std::stop_token previous_;
};

}  // namespace mailcore
