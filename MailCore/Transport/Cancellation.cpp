#include "MailCore/Transport/Cancellation.h"

#include <utility>

namespace mailcore {
namespace {
thread_local std::stop_token currentToken;
}

CancellationScope::CancellationScope(std::stop_token token)
    : previous_(std::exchange(currentToken, std::move(token))) {}

CancellationScope::~CancellationScope() { currentToken = std::move(previous_); }

std::stop_token CancellationScope::current() { return currentToken; }

}  // namespace mailcore
