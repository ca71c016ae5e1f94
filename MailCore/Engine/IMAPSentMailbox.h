// The SentMailbox of an account over IMAP. The folder is the one LIST marks
// \Sent, else the one named "Sent" (created when missing). A sent message is
// stored with APPEND, marked \Seen; a message is looked for with UID SEARCH
// HEADER Message-ID on the folder opened read only.
//
// The mailbox connects and signs in at its first call and keeps the session
// for the next ones, so that looking a message up and filing it take one
// connection; the session is logged out when the mailbox is destroyed.
// Errors are the session's MailErrors; after one that ends the session, the
// next call connects again. Not thread-safe: one thread uses a mailbox at a
// time.
//
// This header names no IMAP type, so that it can be included beside the
// store's headers.
#pragma once

#include <memory>
#include <string>

#include "MailCore/Engine/NetConnectionFactory.h"
#include "MailCore/Engine/SentMailbox.h"
#include "MailCore/Transport/ConnectionFactory.h"
#include "MailCore/Transport/TransportTypes.h"

namespace mailcore {

std::unique_ptr<SentMailbox> makeIMAPSentMailbox(std::shared_ptr<ConnectionFactory> connections,
                                                 ServerEndpoint endpoint, ServerLogin login,
                                                 ProtocolLimits limits,
                                                 ConnectionTimeouts timeouts);

}  // namespace mailcore
