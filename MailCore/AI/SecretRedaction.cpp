// Secret redaction: step 8 of AIContentSanitizer.
#include <algorithm>
#include <array>
#include <optional>
#include <vector>

#include "MailCore/AI/AIContentSanitizer.h"
#include "MailCore/AI/SanitizerPatterns.h"
#include "MailCore/Common/UTF8.h"

namespace mailcore {
namespace {

bool startsWithPlaceholder(std::string_view text, std::size_t pos) {
    static constexpr std::array<std::string_view, 8> placeholders{
        AIContentSanitizer::tokenRedacted,       AIContentSanitizer::privateKeyRedacted,
        AIContentSanitizer::numberRedacted,      AIContentSanitizer::binaryDataRemoved,
        AIContentSanitizer::embeddedDataRemoved, AIContentSanitizer::trackingLinkRemoved,
        AIContentSanitizer::quotedTextRemoved,   AIContentSanitizer::signatureRemoved};
    for (std::string_view p : placeholders) {
        if (text.compare(pos, p.size(), p) == 0) return true;
    }
    return false;
}

// When a private-key search runs out of its match limit the key is not
// left in place: from the next BEGIN line naming a private key, the text is
// redacted up to its END line, or to the end.
std::size_t redactKeyAfterFailure(std::string_view text, std::size_t from, std::string& out) {
    std::size_t marker = text.find("PRIVATE KEY-----", from);
    std::size_t begin = marker == std::string_view::npos ? std::string_view::npos
                                                         : text.rfind("-----BEGIN ", marker);
    if (begin == std::string_view::npos || begin < from) {
        out.append(text.substr(from));
        return text.size();
    }
    std::size_t end = text.find("-----END ", marker);
    std::size_t endMarker =
        end == std::string_view::npos ? end : text.find("PRIVATE KEY-----", end);
    std::size_t stop = endMarker == std::string_view::npos ? text.size() : endMarker + 16;
    out.append(text.substr(from, begin - from));
    out.append(AIContentSanitizer::privateKeyRedacted);
    return stop;
}

// Key/value secrets. When the value is itself a key with its separator
// ("Password: password: x"), the chain of keys is walked (key prefixes only,
// so a long chain costs one pass) and the value after its last key is the one
// replaced; the keys stay.
std::string redactKeyValues(std::string_view text) {
    const SanitizerPatterns& patterns = SanitizerPatterns::shared();
    std::string out;
    out.reserve(text.size());
    std::size_t pos = 0;
    std::size_t copied = 0;
    PCRE2Pattern::Match match;
    PCRE2Pattern::Match prefix;
    auto valueStart = [&](std::size_t afterSeparator) {
        if (afterSeparator < text.size() &&
            (text[afterSeparator] == '"' || text[afterSeparator] == '\'')) {
            ++afterSeparator;
        }
        return afterSeparator;
    };
    while (pos < text.size() &&
           patterns.keyValueSecret.search(text, pos, match) == PCRE2Pattern::Outcome::matched) {
        std::size_t value = valueStart(match.groupEnd[1]);
        if (patterns.keyPrefixAt.search(text, value, prefix) == PCRE2Pattern::Outcome::matched) {
            std::size_t lastKey = value;
            std::size_t cursor = valueStart(prefix.end);
            while (patterns.keyPrefixAt.search(text, cursor, prefix) ==
                   PCRE2Pattern::Outcome::matched) {
                lastKey = cursor;
                cursor = valueStart(prefix.end);
            }
            if (patterns.keyValueSecretAt.search(text, lastKey, match) !=
                PCRE2Pattern::Outcome::matched) {
                pos = cursor;
                continue;
            }
            value = valueStart(match.groupEnd[1]);
        }
        if (startsWithPlaceholder(text, value)) {  // an earlier step already replaced it
            pos = match.end;
            continue;
        }
        out.append(text.substr(copied, match.groupEnd[1] - copied));
        out.append(AIContentSanitizer::tokenRedacted);
        copied = pos = match.end;
    }
    out.append(text.substr(copied));
    return out;
}

// The token shapes, matched only where one of their literal prefixes starts,
// each attempt anchored there. A failed attempt at "eyJ" (with a word
// boundary before it) proves that every later "eyJ" up to the end of that
// run of [A-Za-z0-9_-] fails too (they reach the same dots), so those are not
// tried again: without this a text like "eyJ-eyJ-eyJ-...." costs quadratic
// time in one unanchored search.
std::string redactTokenShapes(std::string_view text) {
    const SanitizerPatterns& patterns = SanitizerPatterns::shared();
    auto isTokenChar = [](char c) {
        return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
               c == '_' || c == '-';
    };
    auto has = [&](std::size_t i, std::string_view literal) {
        return text.compare(i, literal.size(), literal) == 0;
    };
    auto oneOf = [&](std::size_t i, std::string_view set) {
        return i < text.size() && set.find(text[i]) != std::string_view::npos;
    };
    std::string out;
    out.reserve(text.size());
    std::size_t copied = 0;
    std::size_t skipJWTUntil = 0;
    PCRE2Pattern::Match match;
    for (std::size_t i = 0; i < text.size(); ++i) {
        bool jwt = false;
        switch (text[i]) {
            case 's':
                if (!has(i, "sk-")) continue;
                break;
            case 'g':
                if (!(has(i, "gh") && oneOf(i + 2, "pousr") && oneOf(i + 3, "_"))) continue;
                break;
            case 'x':
                if (!(has(i, "xox") && oneOf(i + 3, "abprs") && oneOf(i + 4, "-"))) continue;
                break;
            case 'A':
                if (!has(i, "AKIA") && !has(i, "AIza")) continue;
                break;
            case 'e':
                if (!has(i, "eyJ") || i < skipJWTUntil) continue;
                jwt = true;
                break;
            default:
                continue;
        }
        auto outcome = patterns.tokenShapeAt.search(text, i, match);
        if (outcome == PCRE2Pattern::Outcome::matched) {
            out.append(text.substr(copied, match.start - copied));
            out.append(AIContentSanitizer::tokenRedacted);
            copied = match.end;
            i = match.end - 1;
        } else if (jwt && patterns.wordBoundaryAt.search(text, i, match) ==
                              PCRE2Pattern::Outcome::matched) {
            std::size_t runEnd = i + 3;
            while (runEnd < text.size() && isTokenChar(text[runEnd])) ++runEnd;
            skipJWTUntil = runEnd;
        }
    }
    out.append(text.substr(copied));
    return out;
}

// True for the digit groups of a card number as it is usually written: one
// block, groups of four, or the 4-6-5 and 4-6-4 layouts.
bool cardLayout(const std::vector<std::size_t>& groups) {
    if (groups.size() == 1) return true;
    if (groups == std::vector<std::size_t>{4, 6, 5} || groups == std::vector<std::size_t>{4, 6, 4})
        return true;
    return std::all_of(groups.begin(), groups.end(), [](std::size_t g) { return g == 4; });
}

// Card-like numbers: a run the pattern finds is redacted when its digits pass
// the Luhn check. When they do not, the run is split at its separators into
// digit groups, and only a part made of whole groups in a card's layout may
// still be a card: with other groups before it ("99 4111 1111 1111 1111") or
// one group of three or four digits after it (a card and its security code,
// "4111 1111 1111 1111 123"). Such a part is redacted when it has 13 to 19
// digits that pass the check. Telephone and order numbers, whose groups do
// not follow a card's layout, stay even when some of their digits would pass.
std::string redactCardNumbers(std::string_view text) {
    const PCRE2Pattern& pattern = SanitizerPatterns::shared().cardNumber;
    struct Group {
        std::size_t start, end;  // offsets in the text
    };
    std::string out;
    out.reserve(text.size());
    std::size_t pos = 0;
    std::size_t copied = 0;
    PCRE2Pattern::Match match;
    std::vector<Group> groups;
    std::vector<std::size_t> sizes;
    while (pos < text.size() &&
           pattern.search(text, pos, match) == PCRE2Pattern::Outcome::matched) {
        groups.clear();
        for (std::size_t i = match.start; i < match.end; ++i) {
            if (text[i] < '0' || text[i] > '9') continue;
            if (groups.empty() || groups.back().end != i) groups.push_back({i, i});
            groups.back().end = i + 1;
        }
        std::optional<Group> card;
        if (AIContentSanitizer::luhnValid(text.substr(match.start, match.end - match.start))) {
            card = Group{match.start, match.end};
        }
        const std::size_t count = groups.size();
        for (std::size_t first = 0; !card && first < count; ++first) {
            for (std::size_t last = count; !card && last > first; --last) {
                const std::size_t after = count - last;
                const std::size_t code = after == 1 ? groups.back().end - groups.back().start : 0;
                if ((first == 0 && after == 0) || after > 1 ||
                    (after == 1 && (code < 3 || code > 4)))
                    continue;
                sizes.clear();
                std::size_t digits = 0;
                for (std::size_t g = first; g < last; ++g) {
                    sizes.push_back(groups[g].end - groups[g].start);
                    digits += sizes.back();
                }
                const std::string_view part =
                    text.substr(groups[first].start, groups[last - 1].end - groups[first].start);
                if (digits >= 13 && digits <= 19 && cardLayout(sizes) &&
                    AIContentSanitizer::luhnValid(part)) {
                    card = Group{groups[first].start, groups[last - 1].end};
                }
            }
        }
        if (!card) {
            pos = match.end;
            continue;
        }
        out.append(text.substr(copied, card->start - copied));
        out.append(AIContentSanitizer::numberRedacted);
        copied = pos = card->end;
    }
    out.append(text.substr(copied));
    return out;
}

}  // namespace

bool AIContentSanitizer::luhnValid(std::string_view text) {
    int sum = 0;
    int count = 0;
    for (auto it = text.rbegin(); it != text.rend(); ++it) {
        if (*it < '0' || *it > '9') continue;
        int digit = *it - '0';
        if (count % 2 == 1) {
            digit *= 2;
            if (digit > 9) digit -= 9;
        }
        sum += digit;
        ++count;
    }
    return count > 0 && sum % 10 == 0;
}

std::string AIContentSanitizer::redact(std::string_view input) {
    const SanitizerPatterns& patterns = SanitizerPatterns::shared();
    // Invalid bytes would stop a pattern midway (PCRE2 matches around them, not
    // across them), so an unterminated key followed by one would survive.
    std::string repaired = utf8::repaired(input);
    std::string text = replaceAll(
        patterns.privateKey, repaired,
        [](const PCRE2Pattern::Match&) { return Replacement(std::string(privateKeyRedacted)); },
        redactKeyAfterFailure);

    text = replaceAll(patterns.authorizationHeader, text, [&](const PCRE2Pattern::Match& m) {
        return Replacement(text.substr(m.groupStart[1], m.groupEnd[1] - m.groupStart[1]) + " " +
                           std::string(tokenRedacted));
    });

    text = replaceAll(patterns.bearerCredential, text, [&](const PCRE2Pattern::Match& m) {
        std::size_t credential = m.groupEnd[1];
        while (text[credential] == ' ' || text[credential] == '\t') ++credential;
        return Replacement(text.substr(m.start, credential - m.start) + std::string(tokenRedacted));
    });

    text = redactKeyValues(text);
    text = redactTokenShapes(text);
    return redactCardNumbers(text);
}

}  // namespace mailcore
