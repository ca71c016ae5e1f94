// RawTransport: one connection to a server, push-style. At most one receive
// is outstanding; its completion is called exactly once, possibly on another
// thread, with bytes (an empty result means the peer ended the stream) or a
// failure. A transport never calls a completion after its destructor has
// returned. Implementations are thread-safe.
#pragma once

#include <functional>
#include <string>
#include <variant>

#include "MailCore/Common/MailError.h"
#include "MailCore/Transport/Bytes.h"

namespace mailcore {

using ReceiveResult = std::variant<Bytes, MailError>;
using ReceiveCompletion = std::function<void(ReceiveResult)>;

class RawTransport {
public:
    virtual ~RawTransport() = default;

    // Establishes the connection (and, for implicit TLS, the TLS session)
    // within `timeoutSeconds`. Throws MailError.
    virtual void connect(double timeoutSeconds) = 0;
    // Asks for at most `maxLength` bytes.
    virtual void startReceive(int maxLength, ReceiveCompletion completion) = 0;
    // Returns when the bytes are handed to the connection. Throws MailError.
    virtual void send(const Bytes& bytes) = 0;
    // Starts TLS on the open connection (STARTTLS). Throws MailError.
    virtual void upgradeToTLS(const std::string& serverName) = 0;
    // Closes the connection at once. Never blocks on I/O.
    virtual void cancel() = 0;
};

}  // namespace mailcore
