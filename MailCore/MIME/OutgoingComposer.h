// The RFC 5322 text of an outbox message (OutgoingMessage), attachments
// included, through the MessageBuilder. What is submitted never carries the
// Bcc header; a draft keeps it. Pure function; thread-safe.
#pragma once

#include "MailCore/Common/Clock.h"
#include "MailCore/MIME/MessageBuilder.h"
#include "MailCore/Store/OutboxRecords.h"

namespace mailcore {

// Throws what MessageBuilder::build throws.
BuiltMessage buildOutgoing(const OutgoingMessage& message, Date date, bool asDraft);

}  // namespace mailcore
