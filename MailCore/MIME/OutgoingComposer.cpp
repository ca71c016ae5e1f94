#include "MailCore/MIME/OutgoingComposer.h"

namespace mailcore {
namespace {

std::vector<std::string> values(const std::vector<InternetMessageID>& ids) {
    std::vector<std::string> out;
    for (const auto& id : ids) out.push_back(id.value());
    return out;
}

}  // namespace

BuiltMessage buildOutgoing(const OutgoingMessage& message, Date date, bool asDraft) {
    ComposedMessage composed;
    if (!message.from.empty()) composed.from = message.from.front();
    composed.to = message.to;
    composed.cc = message.cc;
    composed.bcc = message.bcc;
    composed.replyTo = message.replyTo;
    composed.subject = message.subject;
    composed.date = date;
    if (message.messageID) composed.messageID = message.messageID->value();
    composed.inReplyTo = values(message.inReplyTo);
    composed.references = values(message.references);
    composed.text = message.textBody;
    composed.html = message.htmlBody;
    for (const auto& a : message.attachments) {
        OutgoingAttachment out;
        out.filename = a.name;
        out.mimeType = a.mimeType;
        out.data = a.data;
        out.contentID = a.contentID;
        out.isInline = a.isInline;
        composed.attachments.push_back(std::move(out));
    }
    MessageBuildOptions options;
    options.includeBcc = asDraft;
    return MessageBuilder::build(composed, options);
}

}  // namespace mailcore
