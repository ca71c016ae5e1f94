#include "MailCore/AI/AIContentSanitizer.h"

#include <algorithm>
#include <cmath>
#include <vector>

#include "MailCore/AI/SanitizerPatterns.h"
#include "MailCore/Common/HTMLText.h"
#include "MailCore/Common/UTF8.h"

namespace mailcore {
namespace {

bool isBlank(std::string_view line) {
    return line.find_first_not_of(" \t") == std::string_view::npos;
}

std::vector<std::string_view> splitLines(std::string_view text) {
    std::vector<std::string_view> lines;
    std::size_t pos = 0;
    while (true) {
        std::size_t end = text.find('\n', pos);
        if (end == std::string_view::npos) {
            lines.push_back(text.substr(pos));
            return lines;
        }
        lines.push_back(text.substr(pos, end - pos));
        pos = end + 1;
    }
}

std::string joinLines(const std::vector<std::string_view>& lines) {
    std::string out;
    for (std::size_t i = 0; i < lines.size(); ++i) {
        if (i > 0) out.push_back('\n');
        out.append(lines[i]);
    }
    return out;
}

// Quote depth of a line: the '>' characters of its leading run of '>',
// spaces and tabs ("> > text" is two levels deep, "  >> text" too: indented
// quotes count, so trimming the text later cannot turn text into a quote).
// 0 unless the first character other than a space or tab is '>'.
int quoteLevel(std::string_view line) {
    int level = 0;
    for (char c : line) {
        if (c == '>') {
            ++level;
        } else if (c != ' ' && c != '\t') {
            break;
        }
    }
    return level;
}

// "-- " (the usual separator) and "--", with any trailing whitespace.
bool isSignatureSeparator(std::string_view line) {
    std::size_t end = line.find_last_not_of(" \t");
    return end != std::string_view::npos && line.substr(0, end + 1) == "--";
}

bool isWhitespace(char32_t c) { return c == ' ' || c == '\t' || c == '\n'; }

// How far a cut may move to land between words instead of inside one.
constexpr std::size_t wordSnapCharacters = 24;

struct ParsedAddress {
    std::string_view host;
    std::string_view path;
    std::string_view query;     // without '?'
    std::string_view fragment;  // with '#'
    std::size_t pathStart;
};

ParsedAddress parseAddress(std::string_view address) {
    std::size_t authorityStart = address.find("://") + 3;
    std::size_t authorityEnd = address.find_first_of("/?#", authorityStart);
    if (authorityEnd == std::string_view::npos) authorityEnd = address.size();
    std::string_view authority = address.substr(authorityStart, authorityEnd - authorityStart);
    std::size_t at = authority.rfind('@');
    if (at != std::string_view::npos) authority.remove_prefix(at + 1);
    std::size_t colon = authority.rfind(':');
    if (colon != std::string_view::npos &&
        authority.find_first_not_of("0123456789", colon + 1) == std::string_view::npos) {
        authority = authority.substr(0, colon);
    }
    std::size_t fragmentStart = address.find('#', authorityEnd);
    if (fragmentStart == std::string_view::npos) fragmentStart = address.size();
    std::size_t queryStart = address.find('?', authorityEnd);
    if (queryStart == std::string_view::npos || queryStart > fragmentStart)
        queryStart = fragmentStart;
    ParsedAddress parsed{authority, address.substr(authorityEnd, queryStart - authorityEnd),
                         std::string_view(), address.substr(fragmentStart), authorityEnd};
    if (queryStart < fragmentStart) {
        parsed.query = address.substr(queryStart + 1, fragmentStart - queryStart - 1);
    }
    return parsed;
}

// An address that step 4 broke by putting a placeholder into it
// ("https://host/[binary data removed]/x") is taken as one address with the
// placeholder inside, so that no placeholder is left half inside a link.
std::size_t extendOverPlaceholders(std::string_view text, std::size_t start, std::size_t end) {
    auto isAddressChar = [](char c) {
        return !(c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\f' || c == '\v' ||
                 c == '<' || c == '>' || c == '"' || c == '\'' || c == ']' || c == ')');
    };
    while (true) {
        std::size_t bracket = text.rfind('[', end == 0 ? 0 : end - 1);
        if (bracket == std::string_view::npos || bracket < start) return end;
        bool extended = false;
        for (std::string_view p :
             {AIContentSanitizer::binaryDataRemoved, AIContentSanitizer::embeddedDataRemoved}) {
            if (text.compare(bracket, p.size(), p) == 0 && bracket + p.size() > end) {
                end = bracket + p.size();
                while (end < text.size() && isAddressChar(text[end])) ++end;
                extended = true;
                break;
            }
        }
        if (!extended) return end;
    }
}

// The last line of a base64 blob is shorter than the others and escapes the
// 60-character run: a line right after two or more folded blob lines that is
// made only of base64 characters, and either ends in '=' padding or mixes
// upper- and lower-case letters with digits, '+' or '/', belongs to the blob.
bool isBase64TailLine(std::string_view line) {
    if (line.size() < 4 || line.size() >= 60) return false;
    bool upper = false, lowerCase = false, other = false;
    for (char c : line) {
        if (c >= 'A' && c <= 'Z')
            upper = true;
        else if (c >= 'a' && c <= 'z')
            lowerCase = true;
        else if ((c >= '0' && c <= '9') || c == '+' || c == '/' || c == '=')
            other = true;
        else
            return false;
    }
    return line.back() == '=' || (line.size() >= 8 && upper && lowerCase && other);
}

}  // namespace

AIContentSanitizerOptions AIContentSanitizerOptions::standard(std::int64_t remainingBudget) {
    AIContentSanitizerOptions options;
    options.maxQuoteLevels = 1;
    options.maxSignatureLines = 6;
    options.maxCharacters = std::max<std::int64_t>(remainingBudget, 0);
    options.headFraction = 0.7;
    options.redactSecrets = true;
    options.maxInputCharacters = 1'000'000;
    return options;
}

std::int64_t AIContentSanitizer::estimatedTokens(std::string_view text) {
    return static_cast<std::int64_t>((utf8::characterCount(text) + 3) / 4);
}

bool AIContentSanitizer::looksLikeHTML(std::string_view text) {
    return SanitizerPatterns::shared().htmlHint.contains(text);
}

std::string AIContentSanitizer::stripHTML(std::string_view html) { return htmlToText(html); }

SanitizedText AIContentSanitizer::sanitize(std::string_view input,
                                           const AIContentSanitizerOptions& options,
                                           AIContentFormat format) {
    // 1. Input cap (invalid UTF-8 is repaired on the way).
    std::string text = utf8::repaired(utf8::prefix(
        input, static_cast<std::size_t>(std::max<std::int64_t>(options.maxInputCharacters, 0))));
    // 2. Control characters.
    text = stripControlCharacters(text);
    // 3. HTML to text.
    bool html = format == AIContentFormat::html ||
                (format == AIContentFormat::detect && looksLikeHTML(text));
    if (html) text = stripHTML(text);
    // 4. Embedded and binary data.
    text = removeEmbeddedData(text);
    // 5. Tracking links.
    text = cleanLinks(text);
    // 6. Quotes.
    text = collapseQuotes(text, options.maxQuoteLevels);
    // 7. Long signature.
    text = dropLongSignature(text, options.maxSignatureLines);
    // 8. Secrets.
    if (options.redactSecrets) text = redact(text);
    // 9. Blank lines.
    text = collapseBlankLines(text);
    // 10. Budget.
    return truncateHeadTail(text, options.maxCharacters, options.headFraction);
}

std::string AIContentSanitizer::stripControlCharacters(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    std::size_t pos = 0;
    while (pos < text.size()) {
        auto byte = static_cast<unsigned char>(text[pos]);
        if (byte >= 0x20 && byte < 0x7F) {
            out.push_back(static_cast<char>(byte));
            ++pos;
            continue;
        }
        if (byte == '\r') {
            out.push_back('\n');
            pos += (pos + 1 < text.size() && text[pos + 1] == '\n') ? 2 : 1;
            continue;
        }
        if (byte == '\n' || byte == '\t') {
            out.push_back(static_cast<char>(byte));
            ++pos;
            continue;
        }
        if (byte < 0x80) {  // other C0 controls and DEL
            ++pos;
            continue;
        }
        std::size_t next = pos;
        char32_t scalar = utf8::decode(text, next);
        if (scalar == 0x2028 || scalar == 0x2029) {
            out.push_back('\n');
        } else if (scalar >= 0x80 && scalar <= 0x9F) {
            // C1 controls: dropped
        } else if (scalar == 0xFFFD && next == pos + 1) {
            out.append(utf8::replacementCharacter);  // an invalid byte reaching a step directly
        } else {
            out.append(text.substr(pos, next - pos));
        }
        pos = next;
    }
    return out;
}

std::string AIContentSanitizer::removeEmbeddedData(std::string_view input) {
    const SanitizerPatterns& patterns = SanitizerPatterns::shared();
    std::string text = replaceAll(patterns.dataURI, input, [](const PCRE2Pattern::Match&) {
        return Replacement(std::string(embeddedDataRemoved));
    });
    text = replaceAll(patterns.base64Run, text, [](const PCRE2Pattern::Match&) {
        return Replacement(std::string(binaryDataRemoved));
    });
    // Fold "[binary data removed]\n[binary data removed]..." (a blob's lines)
    // into one, together with the blob's short last line when it directly
    // follows (see isBase64TailLine).
    const std::string pair = std::string(binaryDataRemoved) + "\n" + std::string(binaryDataRemoved);
    if (text.find(pair) == std::string::npos) return text;
    const std::string nextPlaceholder = "\n" + std::string(binaryDataRemoved);
    std::string out;
    out.reserve(text.size());
    std::size_t pos = 0;
    while (pos < text.size()) {
        std::size_t found = text.find(binaryDataRemoved, pos);
        if (found == std::string::npos) break;
        std::size_t end = found + binaryDataRemoved.size();
        out.append(text, pos, end - pos);
        bool folded = false;
        while (text.compare(end, nextPlaceholder.size(), nextPlaceholder) == 0) {
            end += nextPlaceholder.size();
            folded = true;
        }
        if (folded && end < text.size() && text[end] == '\n') {
            std::size_t lineEnd = std::min(text.find('\n', end + 1), text.size());
            if (isBase64TailLine(std::string_view(text).substr(end + 1, lineEnd - end - 1))) {
                end = lineEnd;
            }
        }
        pos = end;
    }
    if (pos < text.size()) out.append(text, pos, std::string::npos);
    return out;
}

// Addresses on a tracking host or with a tracking path are replaced. Other
// addresses lose their tracking parameters (utm_*, fbclid, mc_eid, ...) and
// keep everything else; an address that carries only tracking parameters
// becomes its bare address without the '?'. The destination is information
// the reader needs ("the invoice is at https://shop.example/orders/42"); the
// parameters only tell the sender who clicked, so dropping them keeps the
// text useful while nothing that identifies the recipient survives.
std::string AIContentSanitizer::cleanLinks(std::string_view input) {
    const SanitizerPatterns& patterns = SanitizerPatterns::shared();
    std::string out;
    out.reserve(input.size());
    std::size_t pos = 0;
    PCRE2Pattern::Match match;
    while (pos < input.size()) {
        auto outcome = patterns.webAddress.search(input, pos, match);
        if (outcome != PCRE2Pattern::Outcome::matched) break;
        std::size_t end = extendOverPlaceholders(input, match.start, match.end);
        std::string_view address = input.substr(match.start, end - match.start);
        out.append(input.substr(pos, match.start - pos));
        pos = end;

        ParsedAddress parsed = parseAddress(address);
        if (patterns.trackingHost.contains(parsed.host) ||
            patterns.trackingPath.contains(parsed.path)) {
            out.append(trackingLinkRemoved);
            continue;
        }
        if (parsed.query.empty()) {
            out.append(address);
            continue;
        }
        std::string kept;
        std::size_t start = 0;
        bool removedAny = false;
        while (start <= parsed.query.size()) {
            std::size_t amp = parsed.query.find('&', start);
            if (amp == std::string_view::npos) amp = parsed.query.size();
            std::string_view parameter = parsed.query.substr(start, amp - start);
            if (patterns.trackingParameter.contains(parameter)) {
                removedAny = true;
            } else if (!parameter.empty()) {
                if (!kept.empty()) kept.push_back('&');
                kept.append(parameter);
            }
            start = amp + 1;
        }
        if (!removedAny) {
            out.append(address);
            continue;
        }
        out.append(address.substr(0, parsed.pathStart + parsed.path.size()));
        if (!kept.empty()) out.append("?" + kept);
        out.append(parsed.fragment);
    }
    if (pos < input.size()) out.append(input.substr(pos));
    return out;
}

// Lines more than `maxLevels` deep are removed; each run of removed lines
// leaves one placeholder line. Blank lines, and quoted lines holding nothing
// but quote marks, between two removed lines belong to the run.
std::string AIContentSanitizer::collapseQuotes(std::string_view text, int maxLevels) {
    maxLevels = std::max(maxLevels, 0);
    std::vector<std::string_view> lines = splitLines(text);
    std::vector<std::string_view> kept;
    kept.reserve(lines.size());
    bool inRun = false;
    std::vector<std::string_view> pendingBlank;
    for (std::string_view line : lines) {
        if (quoteLevel(line) > maxLevels) {
            if (!inRun) kept.push_back(quotedTextRemoved);
            inRun = true;
            pendingBlank.clear();
            continue;
        }
        if (inRun && isBlank(line.substr(std::min(line.find_first_not_of("> \t"), line.size())))) {
            pendingBlank.push_back(line);
            continue;
        }
        kept.insert(kept.end(), pendingBlank.begin(), pendingBlank.end());
        pendingBlank.clear();
        inRun = false;
        kept.push_back(line);
    }
    kept.insert(kept.end(), pendingBlank.begin(), pendingBlank.end());
    return joinLines(kept);
}

// The signature starts at the last separator line ("-- " or "--") outside
// quoted text and runs to the end, or to the first quoted line after it (the
// quoted history below a signature is the quote step's business). It is
// replaced, separator included, when it has more than `maxLines` non-blank lines.
std::string AIContentSanitizer::dropLongSignature(std::string_view text, int maxLines) {
    maxLines = std::max(maxLines, 0);
    std::vector<std::string_view> lines = splitLines(text);
    std::size_t separator = lines.size();
    for (std::size_t i = lines.size(); i-- > 0;) {
        if (isSignatureSeparator(lines[i])) {
            separator = i;
            break;
        }
    }
    if (separator == lines.size()) return std::string(text);
    std::size_t end = separator + 1;
    int count = 0;
    while (end < lines.size() && quoteLevel(lines[end]) == 0) {
        if (!isBlank(lines[end])) ++count;
        ++end;
    }
    if (count <= maxLines) return std::string(text);
    std::vector<std::string_view> kept(lines.begin(), lines.begin() + static_cast<long>(separator));
    kept.push_back(signatureRemoved);
    kept.insert(kept.end(), lines.begin() + static_cast<long>(end), lines.end());
    return joinLines(kept);
}

// Trailing spaces and tabs go from every line, runs of blank lines become one
// empty line, and the text is trimmed.
std::string AIContentSanitizer::collapseBlankLines(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    bool pendingBlank = false;
    for (std::string_view line : splitLines(text)) {
        std::size_t end = line.find_last_not_of(" \t");
        if (end == std::string_view::npos) {
            pendingBlank = !out.empty();
            continue;
        }
        if (!out.empty()) out.append(pendingBlank ? "\n\n" : "\n");
        pendingBlank = false;
        out.append(line.substr(0, end + 1));
    }
    std::size_t first = out.find_first_not_of(" \t");
    if (first != std::string::npos && first > 0) out.erase(0, first);
    return out;
}

// The marker's characters are charged to the budget, so the result never
// exceeds `limit`. Head and tail cuts fall between characters (never inside
// a UTF-8 sequence) and move to the nearest space or line break within a
// few characters so that words stay whole; whitespace at the cut is dropped.
// A budget too small for the marker keeps the beginning only.
SanitizedText AIContentSanitizer::truncateHeadTail(std::string_view text, std::int64_t limit,
                                                   double headFraction) {
    limit = std::max<std::int64_t>(limit, 0);
    std::size_t length = utf8::characterCount(text);
    if (static_cast<std::uint64_t>(length) <= static_cast<std::uint64_t>(limit)) {
        return SanitizedText{std::string(text), false};
    }
    if (std::isnan(headFraction)) headFraction = 0.7;
    headFraction = std::clamp(headFraction, 0.0, 1.0);
    const std::size_t budget = static_cast<std::size_t>(limit);
    const std::size_t markerLength = utf8::characterCount(truncationMarker);

    // Byte offsets after the first / before the last `n` characters.
    auto headOffset = [&](std::size_t n) { return utf8::prefix(text, n).size(); };
    auto tailOffset = [&](std::size_t n) { return text.size() - utf8::suffix(text, n).size(); };
    auto isSpaceAt = [&](std::size_t offset) {
        return offset < text.size() && isWhitespace(static_cast<unsigned char>(text[offset]));
    };
    auto headCut = [&](std::size_t characters) {
        std::size_t cut = headOffset(characters);
        if (cut < text.size() && !isSpaceAt(cut)) {
            std::size_t floor =
                headOffset(characters > wordSnapCharacters ? characters - wordSnapCharacters : 0);
            std::size_t space = text.find_last_of(" \t\n", cut);
            if (space != std::string_view::npos && space >= floor && space > 0) cut = space;
        }
        std::size_t end = text.find_last_not_of(" \t\n", cut == 0 ? 0 : cut - 1);
        return (cut == 0 || end == std::string_view::npos) ? std::size_t{0} : end + 1;
    };

    if (budget <= markerLength) {
        return SanitizedText{std::string(text.substr(0, headCut(budget))), true};
    }
    const std::size_t available = budget - markerLength;
    const std::size_t headCharacters =
        std::min(available, static_cast<std::size_t>(std::floor(available * headFraction)));
    const std::size_t tailCharacters = available - headCharacters;

    std::string_view head = text.substr(0, headCut(headCharacters));
    std::size_t tailStart = tailOffset(tailCharacters);
    if (tailCharacters == 0) tailStart = text.size();
    if (tailStart > 0 && tailStart < text.size() && !isSpaceAt(tailStart - 1)) {
        std::size_t limitOffset = tailOffset(
            tailCharacters > wordSnapCharacters ? tailCharacters - wordSnapCharacters : 0);
        std::size_t space = text.find_first_of(" \t\n", tailStart);
        if (space != std::string_view::npos && space < limitOffset) tailStart = space;
    }
    std::size_t tailFirst = text.find_first_not_of(" \t\n", tailStart);
    std::string_view tail =
        tailFirst == std::string_view::npos ? std::string_view() : text.substr(tailFirst);

    std::string out;
    out.reserve(head.size() + truncationMarker.size() + tail.size());
    out.append(head);
    out.append(truncationMarker);
    out.append(tail);
    return SanitizedText{std::move(out), true};
}

}  // namespace mailcore
