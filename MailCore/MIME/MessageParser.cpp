#include "MailCore/MIME/MessageParser.h"

#include <algorithm>
#include <array>
#include <cstring>

#include "MailCore/Common/CaseFolding.h"
#include "MailCore/Common/HTMLText.h"
#include "MailCore/Common/MailError.h"
#include "MailCore/Common/UTF8.h"
#include "MailCore/MIME/GMimeSupport.h"
#include "MailCore/MIME/MIMEText.h"
#include "MailCore/Store/ThreadingKeys.h"

namespace mailcore {

namespace {

// --- small text helpers ---

std::string trim(std::string_view text) {
    std::size_t b = 0;
    std::size_t e = text.size();
    while (b < e && (text[b] == ' ' || text[b] == '\t' || text[b] == '\r' || text[b] == '\n')) ++b;
    while (e > b && (text[e - 1] == ' ' || text[e - 1] == '\t' || text[e - 1] == '\r' ||
                     text[e - 1] == '\n'))
        --e;
    return std::string(text.substr(b, e - b));
}

std::string cutUTF8(std::string text, std::size_t maxBytes) {
    text.resize(utf8::safeCutBytes(text, maxBytes));
    return text;
}

// One line of header text: valid UTF-8, line breaks and other controls as spaces.
std::string headerText(const char* value, std::size_t maxBytes) {
    if (value == nullptr) return {};
    std::string text = sanitizeUTF8(value);
    for (char& c : text) {
        if (static_cast<unsigned char>(c) < 0x20 || c == 0x7F) c = ' ';
    }
    return cutUTF8(trim(text), maxBytes);
}

std::string headerTextRaw(const char* value) { return value == nullptr ? std::string() : value; }

std::string normaliseNewlines(std::string text) {
    return text.find('\r') == std::string::npos ? text : normaliseLineEnds(text);
}

std::string escapeHTML(std::string_view text) {
    std::string out;
    out.reserve(text.size() + 16);
    for (char c : text) {
        switch (c) {
            case '&':
                out += "&amp;";
                break;
            case '<':
                out += "&lt;";
                break;
            case '>':
                out += "&gt;";
                break;
            case '"':
                out += "&quot;";
                break;
            default:
                out += c;
        }
    }
    return out;
}

// Where the raw text must be cut so that GMime never builds more than about
// `limits.maxParts` entities: every entity needs a Content-Type line or a
// boundary line ("--..."), so counting those lines bounds the parser's work,
// its memory and its recursion depth before it starts.
std::size_t structuralCut(std::string_view raw, const MessageParserLimits& limits) {
    const std::size_t maxBoundaryLines = limits.maxParts * 2 + 4;
    const std::size_t maxTypeLines = limits.maxParts;
    std::size_t boundaryLines = 0;
    std::size_t typeLines = 0;
    std::size_t pos = 0;
    while (pos < raw.size()) {
        if (raw[pos] == '-' && pos + 1 < raw.size() && raw[pos + 1] == '-') {
            if (++boundaryLines > maxBoundaryLines) return pos;
        } else if ((raw[pos] == 'c' || raw[pos] == 'C') &&
                   startsWithNoCase(raw, pos, "content-type:")) {
            if (++typeLines > maxTypeLines) return pos;
        }
        const void* next = std::memchr(raw.data() + pos, '\n', raw.size() - pos);
        if (next == nullptr) break;
        pos = static_cast<std::size_t>(static_cast<const char*>(next) - raw.data()) + 1;
    }
    return raw.size();
}

std::string childID(const std::string& prefix, int index) {
    const std::string n = std::to_string(index + 1);
    return prefix.empty() ? n : prefix + "." + n;
}

std::string mimeTypeOf(GMimeObject* object) {
    GMimeContentType* type = g_mime_object_get_content_type(object);
    if (type == nullptr) return "application/octet-stream";
    const char* media = g_mime_content_type_get_media_type(type);
    const char* sub = g_mime_content_type_get_media_subtype(type);
    std::string out = asciiLower(headerText(media, 100));
    out += '/';
    out += asciiLower(headerText(sub, 100));
    if (out == "/") return "application/octet-stream";
    return out;
}

std::string dispositionOf(GMimeObject* object) {
    return asciiLower(headerText(g_mime_object_get_disposition(object), 100));
}

std::string extensionFor(const std::string& mimeType) {
    static constexpr std::pair<std::string_view, std::string_view> known[] = {
        {"application/pdf", ".pdf"}, {"image/png", ".png"},       {"image/jpeg", ".jpg"},
        {"image/gif", ".gif"},       {"text/plain", ".txt"},      {"text/html", ".html"},
        {"text/calendar", ".ics"},   {"application/zip", ".zip"}, {"message/rfc822", ".eml"},
        {"text/csv", ".csv"},        {"image/webp", ".webp"},     {"text/vcard", ".vcf"},
        {"text/x-vcard", ".vcf"}};
    for (const auto& [type, ext] : known) {
        if (type == mimeType) return std::string(ext);
    }
    return {};
}

// A file name that is safe to show and to use as a leaf name: no directory
// parts, no controls.
std::string safeFilename(std::string name, const std::string& mimeType) {
    const std::size_t slash = name.find_last_of("/\\");
    if (slash != std::string::npos) name = name.substr(slash + 1);
    std::string clean;
    for (char c : name) {
        if (static_cast<unsigned char>(c) >= 0x20 && c != 0x7F) clean += c;
    }
    clean = trim(clean);
    if (clean.empty() || clean == "." || clean == "..")
        return "attachment" + extensionFor(mimeType);
    return cutUTF8(clean, 255);
}

void collectAddresses(InternetAddressList* list, std::vector<MailAddress>& out, std::size_t max,
                      int depth = 0) {
    if (list == nullptr || depth > 3) return;
    const int count = internet_address_list_length(list);
    for (int i = 0; i < count && out.size() < max; ++i) {
        InternetAddress* address = internet_address_list_get_address(list, i);
        if (address == nullptr) continue;
        if (INTERNET_ADDRESS_IS_GROUP(address)) {
            collectAddresses(internet_address_group_get_members(INTERNET_ADDRESS_GROUP(address)),
                             out, max, depth + 1);
        } else if (INTERNET_ADDRESS_IS_MAILBOX(address)) {
            MailAddress entry;
            entry.name = headerText(internet_address_get_name(address), 500);
            entry.email = headerText(
                internet_address_mailbox_get_addr(INTERNET_ADDRESS_MAILBOX(address)), 500);
            if (entry.email.empty() && entry.name.empty()) continue;
            if (entry.name.size() >= 2 && entry.name.front() == '"' && entry.name.back() == '"')
                entry.name = trim(entry.name.substr(1, entry.name.size() - 2));
            out.push_back(std::move(entry));
        }
    }
}

// Message identifiers of an In-Reply-To or References value, by the same
// rules the store's threading uses; invalid ones are dropped.
std::vector<std::string> parseIdentifiers(const char* value, std::size_t max) {
    std::vector<std::string> all;
    if (value == nullptr) return all;
    const std::string text = headerText(value, 64 * 1024);
    for (const auto& id : ThreadingKeys::parseIDList(text)) all.push_back(id.value());
    // Keep the first identifier (the thread's root) and the newest ones.
    if (all.size() > max && max > 1) {
        std::vector<std::string> kept{all.front()};
        kept.insert(kept.end(), all.end() - static_cast<std::ptrdiff_t>(max - 1), all.end());
        return kept;
    }
    if (all.size() > max) all.resize(max);
    return all;
}

// --- content decoding ---

// Reads the decoded content of `part`: keeps at most `keep` bytes in `out`
// (when given) and returns the total decoded size.
std::int64_t readContent(GMimePart* part, std::size_t keep, std::string* out) {
    GMimeDataWrapper* wrapper = g_mime_part_get_content(part);
    if (wrapper == nullptr) return 0;
    GMimeStream* raw = g_mime_data_wrapper_get_stream(wrapper);
    if (raw == nullptr) return 0;
    const GMimeContentEncoding encoding = g_mime_data_wrapper_get_encoding(wrapper);
    g_mime_stream_reset(raw);
    std::array<char, 16384> buffer{};
    std::int64_t total = 0;

    if (out == nullptr && encoding == GMIME_CONTENT_ENCODING_BASE64) {
        // Size without decoding: four alphabet characters make three bytes.
        std::int64_t symbols = 0;
        std::int64_t padding = 0;
        for (;;) {
            const gssize n = g_mime_stream_read(raw, buffer.data(), buffer.size());
            if (n <= 0) break;
            for (gssize i = 0; i < n; ++i) {
                const auto c = static_cast<unsigned char>(buffer[static_cast<std::size_t>(i)]);
                if ((c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') ||
                    c == '+' || c == '/') {
                    ++symbols;
                } else if (c == '=') {
                    ++padding;
                }
            }
        }
        return symbols * 3 / 4;
    }
    const bool needsDecoding = encoding == GMIME_CONTENT_ENCODING_BASE64 ||
                               encoding == GMIME_CONTENT_ENCODING_QUOTEDPRINTABLE ||
                               encoding == GMIME_CONTENT_ENCODING_UUENCODE;
    if (out == nullptr && !needsDecoding) {
        const gint64 length = g_mime_stream_length(raw);
        if (length >= 0) return length;
    }
    GObjectPtr<GMimeStream> filtered;
    GMimeStream* source = raw;
    if (needsDecoding) {
        filtered = adoptGObject(g_mime_stream_filter_new(raw));
        GObjectPtr<GMimeFilter> decoder = adoptGObject(g_mime_filter_basic_new(encoding, FALSE));
        g_mime_stream_filter_add(GMIME_STREAM_FILTER(filtered.get()), decoder.get());
        source = filtered.get();
    }
    for (;;) {
        const gssize n = g_mime_stream_read(source, buffer.data(), buffer.size());
        if (n <= 0) break;
        const auto got = static_cast<std::size_t>(n);
        if (out != nullptr && out->size() < keep) {
            out->append(buffer.data(), std::min(got, keep - out->size()));
        }
        total += n;
    }
    return total;
}

// --- body selection ---

// A contribution to the body: plain text, HTML, or both.
struct Piece {
    std::string text;
    std::string html;
    bool hasText = false;
    bool hasHTML = false;
};

Piece compose(const std::vector<Piece>& pieces, std::size_t htmlTextLimit) {
    Piece out;
    for (const auto& p : pieces) {
        out.hasText = out.hasText || p.hasText;
        out.hasHTML = out.hasHTML || p.hasHTML;
    }
    if (pieces.size() == 1) return pieces.front();
    for (const auto& p : pieces) {
        if (!p.hasText && !p.hasHTML) continue;
        if (out.hasText) {
            if (!out.text.empty()) out.text += "\n\n";
            out.text += p.hasText ? p.text : htmlToText(p.html, htmlTextLimit);
        }
        if (out.hasHTML) {
            if (!out.html.empty()) out.html += "\n";
            out.html += p.hasHTML ? p.html : "<pre>" + escapeHTML(p.text) + "</pre>";
        }
    }
    return out;
}

enum class Context { body, resource, attachment };

class Walker {
public:
    Walker(const MessageParserLimits& limits, ParsedMessage& out)
        : limits_(limits),
          out_(out),
          textBudget_(limits.maxBodyBytes),
          htmlBudget_(limits.maxBodyBytes) {}

    std::vector<Piece> walk(GMimeObject* object, const std::string& id, std::size_t depth,
                            Context context, bool topLevel) {
        if (object == nullptr) return {};
        if (depth > limits_.maxDepth || entities_ >= limits_.maxParts) {
            out_.isTruncated = true;
            return {};
        }
        ++entities_;
        if (GMIME_IS_MULTIPART(object)) {
            return walkMultipart(GMIME_MULTIPART(object), id, depth, context);
        }
        if (GMIME_IS_MESSAGE_PART(object)) {
            return walkMessagePart(GMIME_MESSAGE_PART(object), id, depth, context);
        }
        if (GMIME_IS_PART(object)) return walkLeaf(GMIME_PART(object), id, context, topLevel);
        return {};
    }

private:
    void recordPart(GMimeObject* object, const std::string& id, const std::string& mimeType,
                    std::int64_t size) {
        if (out_.parts.size() >= limits_.maxParts) return;
        ParsedPart part;
        part.partID = id.empty() ? "TEXT" : id;
        part.mimeType = mimeType;
        part.size = size;
        part.charset =
            asciiLower(headerText(g_mime_object_get_content_type_parameter(object, "charset"), 64));
        part.disposition = dispositionOf(object);
        out_.parts.push_back(std::move(part));
    }

    void addAttachment(GMimeObject* object, const std::string& id, std::string filename,
                       const std::string& mimeType, std::int64_t size, bool isInline) {
        if (out_.attachments.size() >= limits_.maxAttachments) {
            out_.isTruncated = true;
            return;
        }
        ParsedAttachment a;
        a.partID = id.empty() ? "1" : id;
        a.position = static_cast<int>(out_.attachments.size());
        a.filename = safeFilename(std::move(filename), mimeType);
        a.mimeType = mimeType;
        a.size = size;
        const std::string cid = headerText(g_mime_object_get_content_id(object), 500);
        if (!cid.empty()) a.contentID = cid;
        a.isInline = isInline;
        if (!isInline) out_.hasAttachments = true;
        out_.attachments.push_back(std::move(a));
    }

    std::vector<Piece> walkMultipart(GMimeMultipart* multipart, const std::string& id,
                                     std::size_t depth, Context context) {
        GMimeObject* object = GMIME_OBJECT(multipart);
        const std::string type = mimeTypeOf(object);
        recordPart(object, id, type, 0);
        const int count = g_mime_multipart_get_count(multipart);
        std::vector<Piece> pieces;
        if (count == 0 && context == Context::body) {
            // No part was found under the declared boundary: what was read
            // as the preamble is all the text there is.
            const std::string prologue = trim(convertToUTF8(
                cutUTF8(headerTextRaw(g_mime_multipart_get_prologue(multipart)), textBudget_), ""));
            if (!prologue.empty()) {
                Piece p;
                p.text = normaliseNewlines(prologue);
                p.hasText = true;
                textBudget_ -= std::min(textBudget_, p.text.size());
                pieces.push_back(std::move(p));
            }
            return pieces;
        }
        if (context != Context::body) {
            for (int i = 0; i < count; ++i) {
                walk(g_mime_multipart_get_part(multipart, i), childID(id, i), depth + 1, context,
                     false);
            }
            return pieces;
        }
        if (type == "multipart/alternative") {
            Piece chosen;
            for (int i = 0; i < count; ++i) {
                const Piece p = compose(walk(g_mime_multipart_get_part(multipart, i),
                                             childID(id, i), depth + 1, Context::body, false),
                                        limits_.maxBodyBytes);
                if (p.hasText) chosen.text = p.text, chosen.hasText = true;
                if (p.hasHTML) chosen.html = p.html, chosen.hasHTML = true;
            }
            if (chosen.hasText || chosen.hasHTML) pieces.push_back(std::move(chosen));
            return pieces;
        }
        if (type == "multipart/related") {
            int root = 0;
            std::string start =
                headerText(g_mime_object_get_content_type_parameter(object, "start"), 500);
            if (start.size() >= 2 && start.front() == '<' && start.back() == '>')
                start = start.substr(1, start.size() - 2);
            if (!start.empty()) {
                for (int i = 0; i < count; ++i) {
                    const char* cid =
                        g_mime_object_get_content_id(g_mime_multipart_get_part(multipart, i));
                    if (cid != nullptr && start == cid) root = i;
                }
            }
            for (int i = 0; i < count; ++i) {
                auto child = walk(g_mime_multipart_get_part(multipart, i), childID(id, i),
                                  depth + 1, i == root ? Context::body : Context::resource, false);
                for (auto& p : child) pieces.push_back(std::move(p));
            }
            return pieces;
        }
        if (type == "multipart/signed") {
            // The first part is the content; a detached signature is not
            // something the user attached.
            for (int i = 0; i < count; ++i) {
                GMimeObject* child = g_mime_multipart_get_part(multipart, i);
                if (i == 0) {
                    pieces = walk(child, childID(id, i), depth + 1, Context::body, false);
                    continue;
                }
                const std::string childType = child != nullptr ? mimeTypeOf(child) : "";
                if (childType == "application/pgp-signature" ||
                    childType == "application/pkcs7-signature" ||
                    childType == "application/x-pkcs7-signature") {
                    recordPart(child, childID(id, i), childType, 0);
                    continue;
                }
                walk(child, childID(id, i), depth + 1, Context::attachment, false);
            }
            return pieces;
        }
        if (type == "multipart/encrypted") {
            for (int i = 0; i < count; ++i) {
                walk(g_mime_multipart_get_part(multipart, i), childID(id, i), depth + 1,
                     Context::attachment, false);
            }
            return pieces;
        }
        // mixed, report, digest and every unknown multipart: each part in turn.
        for (int i = 0; i < count; ++i) {
            auto child = walk(g_mime_multipart_get_part(multipart, i), childID(id, i), depth + 1,
                              Context::body, false);
            for (auto& p : child) pieces.push_back(std::move(p));
        }
        return pieces;
    }

    std::vector<Piece> walkMessagePart(GMimeMessagePart* part, const std::string& id,
                                       std::size_t depth, Context context) {
        GMimeObject* object = GMIME_OBJECT(part);
        const std::string type = mimeTypeOf(object);
        GMimeMessage* inner = g_mime_message_part_get_message(part);
        std::int64_t size = 0;
        if (inner != nullptr) {
            GObjectPtr<GMimeStream> counter = adoptGObject(g_mime_stream_null_new());
            g_mime_object_write_to_stream(GMIME_OBJECT(inner), nullptr, counter.get());
            size = static_cast<std::int64_t>(GMIME_STREAM_NULL(counter.get())->written);
        }
        recordPart(object, id, type, size);
        const std::string disposition = dispositionOf(object);
        std::string filename =
            headerText(g_mime_object_get_content_disposition_parameter(object, "filename"), 500);
        if (filename.empty())
            filename = headerText(g_mime_object_get_content_type_parameter(object, "name"), 500);
        if (filename.empty() && inner != nullptr) {
            const std::string subject = headerText(g_mime_message_get_subject(inner), 200);
            if (!subject.empty()) filename = subject + ".eml";
        }
        if (filename.empty()) filename = "message.eml";
        addAttachment(object, id, filename, type, size, context == Context::resource);

        std::vector<Piece> pieces;
        if (context != Context::body || disposition == "attachment" || inner == nullptr) {
            return pieces;
        }
        // A forwarded message shown in line: its headers, then its body.
        Piece header;
        header.hasText = true;
        header.text = "---------- Forwarded message ----------\n";
        auto line = [&](const char* label, const std::string& value) {
            if (!value.empty()) header.text += std::string(label) + ": " + value + "\n";
        };
        std::vector<MailAddress> from;
        std::vector<MailAddress> to;
        collectAddresses(g_mime_message_get_from(inner), from, 20);
        collectAddresses(g_mime_message_get_to(inner), to, 20);
        line("From", displayForm(from));
        line("Date", headerText(g_mime_object_get_header(GMIME_OBJECT(inner), "Date"), 200));
        line("Subject", headerText(g_mime_message_get_subject(inner), limits_.maxSubjectBytes));
        line("To", displayForm(to));
        pieces.push_back(std::move(header));
        GMimeObject* body = g_mime_message_get_mime_part(inner);
        const std::string innerID = body != nullptr && GMIME_IS_MULTIPART(body) ? id : id + ".1";
        auto child = walk(body, innerID, depth + 1, Context::body, true);
        for (auto& p : child) pieces.push_back(std::move(p));
        return pieces;
    }

    std::vector<Piece> walkLeaf(GMimePart* part, const std::string& id, Context context,
                                bool topLevel) {
        GMimeObject* object = GMIME_OBJECT(part);
        const std::string type = mimeTypeOf(object);
        const std::string disposition = dispositionOf(object);
        std::string filename = headerText(g_mime_part_get_filename(part), 1000);
        const bool isText = type == "text/plain";
        const bool isHTML = type == "text/html";
        const bool bodyCandidate = context == Context::body && (isText || isHTML) &&
                                   disposition != "attachment" && (filename.empty() || topLevel);
        const std::string leafID = id.empty() ? "1" : id;
        std::vector<Piece> pieces;
        if (!bodyCandidate) {
            const std::int64_t size = readContent(part, 0, nullptr);
            recordPart(object, leafID, type, size);
            const bool isInline =
                context == Context::resource
                    ? disposition != "attachment"
                    : disposition == "inline" && !filename.empty() && type.rfind("image/", 0) == 0;
            addAttachment(object, leafID, std::move(filename), type, size, isInline);
            return pieces;
        }
        std::size_t& budget = isText ? textBudget_ : htmlBudget_;
        std::string raw;
        const std::int64_t size = readContent(part, budget, &raw);
        recordPart(object, leafID, type, size);
        if (static_cast<std::int64_t>(raw.size()) < size) out_.isTruncated = true;
        const char* charset = g_mime_object_get_content_type_parameter(object, "charset");
        std::string text = normaliseNewlines(convertToUTF8(raw, charset != nullptr ? charset : ""));
        budget -= std::min(budget, raw.size());
        Piece piece;
        if (isText) {
            piece.text = std::move(text);
            piece.hasText = true;
        } else {
            piece.html = std::move(text);
            piece.hasHTML = true;
        }
        pieces.push_back(std::move(piece));
        return pieces;
    }

    const MessageParserLimits& limits_;
    ParsedMessage& out_;
    std::size_t textBudget_;
    std::size_t htmlBudget_;
    std::size_t entities_ = 0;
};

}  // namespace

MessageParser::MessageParser(MessageParserLimits limits) : limits_(limits) {}

ParsedMessage MessageParser::parse(std::string_view raw) const {
    if (raw.empty()) {
        throw MailError::protocolViolation(ProtocolIssueKind::invalidInput, "empty message");
    }
    ensureGMime();
    ParsedMessage result;
    result.size = static_cast<std::int64_t>(raw.size());

    const std::size_t cut = structuralCut(raw, limits_);
    if (cut < raw.size()) result.isTruncated = true;
    GObjectPtr<GMimeStream> stream =
        adoptGObject(g_mime_stream_mem_new_with_buffer(raw.data(), cut));
    GObjectPtr<GMimeParser> parser = adoptGObject(g_mime_parser_new_with_stream(stream.get()));
    g_mime_parser_set_format(parser.get(), GMIME_FORMAT_MESSAGE);
    g_mime_parser_set_persist_stream(parser.get(), TRUE);
    GObjectPtr<GMimeMessage> message =
        adoptGObject(g_mime_parser_construct_message(parser.get(), mimeParserOptions()));
    if (!message) {
        // Not even a header block: keep the bytes as the text body.
        result.text =
            cutUTF8(normaliseNewlines(convertToUTF8(raw.substr(0, limits_.maxBodyBytes), "")),
                    limits_.maxBodyBytes);
        result.snippet = makeSnippet(result.text, limits_.snippetCharacters);
        return result;
    }
    GMimeMessage* msg = message.get();
    GMimeObject* root = GMIME_OBJECT(msg);

    result.subject = headerText(g_mime_message_get_subject(msg), limits_.maxSubjectBytes);
    collectAddresses(g_mime_message_get_from(msg), result.from, limits_.maxAddresses);
    collectAddresses(g_mime_message_get_to(msg), result.to, limits_.maxAddresses);
    collectAddresses(g_mime_message_get_cc(msg), result.cc, limits_.maxAddresses);
    collectAddresses(g_mime_message_get_bcc(msg), result.bcc, limits_.maxAddresses);
    collectAddresses(g_mime_message_get_reply_to(msg), result.replyTo, limits_.maxAddresses);
    if (GDateTime* date = g_mime_message_get_date(msg)) {
        // Dates outside 1900-2199 are typing errors or attacks; treat them as missing.
        const gint64 seconds = g_date_time_to_unix(date);
        if (seconds >= -2208988800LL && seconds < 7258118400LL) {
            result.date = dateFromSeconds(static_cast<double>(seconds));
        }
    }
    const std::string messageID = headerText(g_mime_message_get_message_id(msg), 998);
    if (!messageID.empty()) result.messageID = messageID;
    result.inReplyTo =
        parseIdentifiers(g_mime_object_get_header(root, "In-Reply-To"), limits_.maxReferences);
    result.references =
        parseIdentifiers(g_mime_object_get_header(root, "References"), limits_.maxReferences);

    Walker walker(limits_, result);
    GMimeObject* body = g_mime_message_get_mime_part(msg);
    const std::string bodyID = body != nullptr && GMIME_IS_MULTIPART(body) ? "" : "1";
    const Piece piece =
        compose(walker.walk(body, bodyID, 0, Context::body, true), limits_.maxBodyBytes);
    if (piece.hasText) {
        result.text = piece.text;
    } else if (piece.hasHTML) {
        result.text = htmlToText(piece.html, limits_.maxBodyBytes);
        result.textFromHTML = true;
    }
    if (result.text.size() > limits_.maxBodyBytes) {
        result.text = cutUTF8(std::move(result.text), limits_.maxBodyBytes);
        result.isTruncated = true;
    }
    if (piece.hasHTML) {
        std::string html = piece.html;
        if (html.size() > limits_.maxBodyBytes) {
            html = cutUTF8(std::move(html), limits_.maxBodyBytes);
            result.isTruncated = true;
        }
        result.html = std::move(html);
    }
    result.snippet = makeSnippet(result.text, limits_.snippetCharacters);
    return result;
}

}  // namespace mailcore
