// OutboxExecutor: what carries an outbox item out against the server. The
// IMAP and SMTP clients implement it (and a local one for demonstration
// data); the outbox worker decides what follows from each result.
#pragma once

#include <optional>

#include "MailCore/Common/MailError.h"
#include "MailCore/Store/OutboxRecords.h"

namespace mailcore {

// The result of one attempt.
//   done        the server has carried the operation out.
//   failed      it has not; `error` says why. `beforeSending` tells that the
//               connection was lost before anything reached the server, so
//               the attempt does not count against the item.
//   uncertain   a send whose outcome is unknown: the message may have
//               reached the server although no confirmation came back.
//   uidUnknown  the message's server UID is not known yet (a local move not
//               yet matched); the item waits `unknownUIDRetry` seconds.
struct OutboxResult {
    enum class Kind { done, failed, uncertain, uidUnknown };
    Kind kind = Kind::done;
    std::optional<MailError> error;
    bool beforeSending = false;

    static OutboxResult done() { return {}; }
    static OutboxResult failed(MailError error, bool beforeSending = false) {
        return {Kind::failed, std::move(error), beforeSending};
    }
    static OutboxResult uncertain() { return {Kind::uncertain, std::nullopt, false}; }
    static OutboxResult uidUnknown() { return {Kind::uidUnknown, std::nullopt, false}; }
};

// Whether a send whose outcome was uncertain reached the server (found, for
// example, by its Message-ID in the Sent folder).
enum class SentState { sent, notSent, unknown };

class OutboxExecutor {
public:
    virtual ~OutboxExecutor() = default;

    // Carries out one claimed item. May be called from several worker
    // threads at once for items on different targets. A thrown MailError is
    // taken as `failed(error)`; MailError::cancelled puts the item back
    // untouched.
    virtual OutboxResult execute(const OutboxItem& item) = 0;

    // Looks for a send's message on the server. Anything thrown counts as
    // `unknown`.
    virtual SentState verifySent(const OutboxItem& item) = 0;
};

}  // namespace mailcore
