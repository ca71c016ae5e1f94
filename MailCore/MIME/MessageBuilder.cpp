#include "MailCore/MIME/MessageBuilder.h"

#include <algorithm>

#include "MailCore/Common/MailError.h"
#include "MailCore/Common/Random.h"
#include "MailCore/MIME/GMimeSupport.h"
#include "MailCore/MIME/MIMEText.h"

namespace mailcore {

namespace {

MailError invalid(std::string detail) {
    return MailError::protocolViolation(ProtocolIssueKind::invalidInput, std::move(detail));
}

bool hasLineBreak(const std::string& text) {
    return text.find_first_of("\r\n") != std::string::npos || text.find('\0') != std::string::npos;
}

void checkHeaderText(const std::string& text) {
    if (hasLineBreak(text)) throw invalid("header contains a line break");
}

bool isValidEmail(const std::string& email) {
    const std::size_t at = email.rfind('@');
    if (at == std::string::npos || at == 0 || at + 1 == email.size()) return false;
    for (char c : email) {
        const auto b = static_cast<unsigned char>(c);
        if (b <= 0x20 || b == 0x7F || c == '<' || c == '>' || c == ',' || c == ';' || c == '"' ||
            c == '(' || c == ')' || c == '\\' || c == '[' || c == ']')
            return false;
    }
    return true;
}

bool isValidMessageID(const std::string& id) {
    if (id.empty() || id.size() > 900) return false;
    for (char c : id) {
        const auto b = static_cast<unsigned char>(c);
        if (b <= 0x20 || b >= 0x7F || c == '<' || c == '>') return false;
    }
    return true;
}

void addMailboxes(GMimeMessage* message, GMimeAddressType type,
                  const std::vector<MailAddress>& addresses) {
    InternetAddressList* list = g_mime_message_get_addresses(message, type);  // borrowed
    for (const auto& a : addresses) {
        checkHeaderText(a.name);
        if (!isValidEmail(a.email)) throw invalid("invalid address: " + a.email);
        GObjectPtr<InternetAddress> mailbox = adoptGObject(internet_address_mailbox_new(
            a.name.empty() ? nullptr : a.name.c_str(), a.email.c_str()));
        internet_address_set_charset(mailbox.get(), "utf-8");
        internet_address_list_add(list, mailbox.get());
    }
}

// A text part whose transfer encoding keeps every line 7-bit and short.
GObjectPtr<GMimeObject> textPart(const char* subtype, const std::string& content) {
    GObjectPtr<GMimeTextPart> part = adoptGObject(g_mime_text_part_new_with_subtype(subtype));
    std::string text = normaliseLineEnds(content);
    if (!text.empty() && text.back() != '\n') text += '\n';
    g_mime_text_part_set_text(part.get(), text.c_str());
    GMimePart* asPart = GMIME_PART(part.get());
    g_mime_part_set_content_encoding(
        asPart, g_mime_part_get_best_content_encoding(asPart, GMIME_ENCODING_CONSTRAINT_7BIT));
    return GObjectPtr<GMimeObject>(GMIME_OBJECT(part.release()));
}

GObjectPtr<GMimeObject> attachmentPart(const OutgoingAttachment& attachment) {
    std::string type =
        attachment.mimeType.empty() ? "application/octet-stream" : attachment.mimeType;
    checkHeaderText(type);
    checkHeaderText(attachment.filename);
    const std::size_t slash = type.find('/');
    const std::string media = slash == std::string::npos ? "application" : type.substr(0, slash);
    const std::string sub = slash == std::string::npos ? "octet-stream" : type.substr(slash + 1);
    GObjectPtr<GMimePart> part =
        adoptGObject(g_mime_part_new_with_type(media.c_str(), sub.c_str()));
    GObjectPtr<GMimeStream> stream = adoptGObject(
        g_mime_stream_mem_new_with_buffer(attachment.data.data(), attachment.data.size()));
    GObjectPtr<GMimeDataWrapper> content = adoptGObject(
        g_mime_data_wrapper_new_with_stream(stream.get(), GMIME_CONTENT_ENCODING_DEFAULT));
    g_mime_part_set_content(part.get(), content.get());
    g_mime_part_set_content_encoding(part.get(), GMIME_CONTENT_ENCODING_BASE64);
    g_mime_object_set_disposition(GMIME_OBJECT(part.get()), attachment.isInline
                                                                ? GMIME_DISPOSITION_INLINE
                                                                : GMIME_DISPOSITION_ATTACHMENT);
    if (!attachment.filename.empty())
        g_mime_part_set_filename(part.get(), attachment.filename.c_str());
    if (attachment.contentID) {
        if (!isValidMessageID(*attachment.contentID)) throw invalid("invalid content id");
        g_mime_object_set_content_id(GMIME_OBJECT(part.get()), attachment.contentID->c_str());
    }
    return GObjectPtr<GMimeObject>(GMIME_OBJECT(part.release()));
}

GObjectPtr<GMimeObject> multipart(const char* subtype, std::vector<GObjectPtr<GMimeObject>> parts) {
    GObjectPtr<GMimeMultipart> mp = adoptGObject(g_mime_multipart_new_with_subtype(subtype));
    for (auto& p : parts) g_mime_multipart_add(mp.get(), p.get());
    return GObjectPtr<GMimeObject>(GMIME_OBJECT(mp.release()));
}

std::string bracketed(const std::vector<std::string>& ids) {
    std::string out;
    for (const auto& id : ids) {
        if (!isValidMessageID(id)) throw invalid("invalid message id");
        if (!out.empty()) out += ' ';
        out += '<' + id + '>';
    }
    return out;
}

}  // namespace

BuiltMessage MessageBuilder::build(const ComposedMessage& input, MessageBuildOptions options) {
    if (input.from.email.empty()) throw invalid("missing from address");
    checkHeaderText(input.subject);
    ensureGMime();

    GObjectPtr<GMimeMessage> message = adoptGObject(g_mime_message_new(TRUE));
    GMimeMessage* msg = message.get();
    addMailboxes(msg, GMIME_ADDRESS_TYPE_FROM, {input.from});
    addMailboxes(msg, GMIME_ADDRESS_TYPE_REPLY_TO, input.replyTo);
    addMailboxes(msg, GMIME_ADDRESS_TYPE_TO, input.to);
    addMailboxes(msg, GMIME_ADDRESS_TYPE_CC, input.cc);
    if (options.includeBcc) addMailboxes(msg, GMIME_ADDRESS_TYPE_BCC, input.bcc);
    g_mime_message_set_subject(msg, input.subject.c_str(), "utf-8");

    const auto seconds = static_cast<gint64>(
        std::chrono::duration_cast<std::chrono::seconds>(input.date.time_since_epoch()).count());
    GDateTime* date = g_date_time_new_from_unix_utc(seconds);
    if (date == nullptr) throw invalid("invalid date");
    g_mime_message_set_date(msg, date);
    g_date_time_unref(date);

    std::string messageID = input.messageID;
    if (messageID.empty()) {
        std::string domain = input.from.email.substr(input.from.email.rfind('@') + 1);
        if (!isValidMessageID(domain)) domain = "kestrune.invalid";
        messageID = makeUUID() + "@" + domain;
    }
    if (!isValidMessageID(messageID)) throw invalid("invalid message id");
    g_mime_message_set_message_id(msg, messageID.c_str());
    if (!input.inReplyTo.empty()) {
        g_mime_object_set_header(GMIME_OBJECT(msg), "In-Reply-To",
                                 bracketed(input.inReplyTo).c_str(), nullptr);
    }
    if (!input.references.empty()) {
        g_mime_object_set_header(GMIME_OBJECT(msg), "References",
                                 bracketed(input.references).c_str(), nullptr);
    }

    GObjectPtr<GMimeObject> body = textPart("plain", input.text);
    if (input.html) {
        std::vector<GObjectPtr<GMimeObject>> alternatives;
        alternatives.push_back(std::move(body));
        alternatives.push_back(textPart("html", *input.html));
        body = multipart("alternative", std::move(alternatives));
    }
    if (!input.attachments.empty()) {
        std::vector<GObjectPtr<GMimeObject>> parts;
        parts.push_back(std::move(body));
        for (const auto& a : input.attachments) parts.push_back(attachmentPart(a));
        body = multipart("mixed", std::move(parts));
    }
    g_mime_message_set_mime_part(msg, body.get());

    GMimeFormatOptions* format = g_mime_format_options_new();
    g_mime_format_options_set_newline_format(format, GMIME_NEWLINE_FORMAT_DOS);
    g_mime_format_options_set_param_encoding_method(format, GMIME_PARAM_ENCODING_METHOD_RFC2231);
    GObjectPtr<GMimeStream> out = adoptGObject(g_mime_stream_mem_new());
    g_mime_object_write_to_stream(GMIME_OBJECT(msg), format, out.get());
    g_mime_format_options_free(format);
    GByteArray* bytes = g_mime_stream_mem_get_byte_array(GMIME_STREAM_MEM(out.get()));
    BuiltMessage built;
    built.data.assign(reinterpret_cast<const char*>(bytes->data), bytes->len);
    built.messageID = messageID;
    return built;
}

void setReplyHeaders(ComposedMessage& reply, const std::optional<std::string>& parentMessageID,
                     const std::vector<std::string>& parentReferences,
                     const std::vector<std::string>& parentInReplyTo) {
    reply.inReplyTo.clear();
    reply.references = parentReferences.empty() ? parentInReplyTo : parentReferences;
    if (parentMessageID && !parentMessageID->empty()) {
        reply.inReplyTo.push_back(*parentMessageID);
        if (std::find(reply.references.begin(), reply.references.end(), *parentMessageID) ==
            reply.references.end())
            reply.references.push_back(*parentMessageID);
    }
    // Long threads keep the root and the most recent identifiers.
    constexpr std::size_t maxReferences = 20;
    if (reply.references.size() > maxReferences) {
        std::vector<std::string> kept{reply.references.front()};
        kept.insert(kept.end(), reply.references.end() - (maxReferences - 1),
                    reply.references.end());
        reply.references = std::move(kept);
    }
}

}  // namespace mailcore
