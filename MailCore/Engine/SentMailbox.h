// SentMailbox: what the send executor needs from an account's Sent folder
// on its server: file a sent message there, and look a message up by its
// Message-ID (to tell whether a send whose outcome was unknown went out).
// Implemented over the IMAP session; tests use fakes.
#pragma once

#include <string>

#include "MailCore/Store/ThreadingKeys.h"

namespace mailcore {

class SentMailbox {
public:
    virtual ~SentMailbox() = default;
    // Stores `message` (RFC 5322 text, CR LF line ends) in the Sent folder,
    // marked as read. Throws MailError.
    virtual void append(const std::string& message) = 0;
    // Whether the Sent folder holds a message with this Message-ID. Throws
    // MailError when it cannot tell.
    virtual bool contains(const InternetMessageID& messageID) = 0;
};

}  // namespace mailcore
