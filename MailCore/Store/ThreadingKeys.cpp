#include "MailCore/Store/ThreadingKeys.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <nlohmann/json.hpp>

#include "MailCore/Common/CaseFolding.h"
#include "MailCore/Common/MailError.h"

namespace mailcore {
namespace {

bool isSpace(char c) {
    return c == ' ' || c == '\t' || c == '\r' || c == '\n' || c == '\v' || c == '\f';
}

std::string_view trim(std::string_view s) {
    while (!s.empty() && isSpace(s.front())) s.remove_prefix(1);
    while (!s.empty() && isSpace(s.back())) s.remove_suffix(1);
    return s;
}

std::string collapseSpaces(std::string_view s) {
    std::string out;
    out.reserve(s.size());
    bool pendingSpace = false;
    for (char c : s) {
        if (isSpace(c)) {
            pendingSpace = !out.empty();
            continue;
        }
        if (pendingSpace) out.push_back(' ');
        pendingSpace = false;
        out.push_back(c);
    }
    return out;
}

// Subjects compare under the Unicode case fold: "Re: ÜBER" and "über" meet.
std::string lowerSubject(std::string_view s) { return foldCase(s); }

constexpr std::array<std::string_view, 10> replyPrefixes{"antw", "fwd", "re", "fw", "aw",
                                                         "sv",   "vs",  "wg", "tr", "rv"};

// Length of a leading reply or forward prefix ("re:", "re[2]: ") or 0.
std::size_t replyPrefixLength(std::string_view s) {
    for (auto word : replyPrefixes) {
        if (s.substr(0, word.size()) != word) continue;
        std::size_t i = word.size();
        if (i < s.size() && s[i] == '[') {
            std::size_t j = i + 1;
            while (j < s.size() && std::isdigit(static_cast<unsigned char>(s[j]))) ++j;
            if (j > i + 1 && j < s.size() && s[j] == ']') i = j + 1;
        }
        if (i < s.size() && s[i] == ':') {
            ++i;
            while (i < s.size() && s[i] == ' ') ++i;
            return i;
        }
    }
    return 0;
}

}  // namespace

std::optional<InternetMessageID> InternetMessageID::normalizing(std::string_view text) {
    std::string_view s = trim(text);
    if (!s.empty() && s.front() == '<') s.remove_prefix(1);
    if (!s.empty() && s.back() == '>') s.remove_suffix(1);
    s = trim(s);
    if (s.empty()) return std::nullopt;
    if (std::any_of(s.begin(), s.end(), isSpace)) return std::nullopt;
    return InternetMessageID(std::string(s));
}

std::string InternetMessageID::normalizedKey() const {
    auto at = value_.rfind('@');
    if (at == std::string::npos) return value_;
    return value_.substr(0, at + 1) + asciiLower(std::string_view(value_).substr(at + 1));
}

namespace {

// True when `s` (at most one identifier, no brackets) has the shape of a
// message identifier: a non-empty local part, one "@", a domain with a dot
// or at least letters, and none of the characters that free text brings
// (quotes, commas, parentheses, an "'s" ending).
bool hasIdentifierShape(std::string_view s) {
    auto at = s.find('@');
    if (at == std::string_view::npos || at == 0 || at + 1 >= s.size()) return false;
    if (s.find('@', at + 1) != std::string_view::npos) return false;
    for (char c : s) {
        if (c == '"' || c == ',' || c == '(' || c == ')' || c == ';' || c == '<' || c == '>' ||
            c == '\'' || isSpace(c)) {
            return false;
        }
    }
    return true;
}

// A bracketed item that free text names as a person rather than a message:
// "Message from Ann <ann@x> of "Mon, 2 Sep 2002 ..." <id@x>" and
// "<ann@x>'s message of ..." and "Ann <ann@x> "Re: Plan" (Sep 25)". A quoted
// date or subject follows the address; an item
// followed by an unquoted date ("message-id <id@x> of Tue, ...") is kept.
bool isAddressInText(std::string_view after) {
    if (startsWithNoCase(after, 0, "'s")) return true;
    while (!after.empty() && isSpace(after.front())) after.remove_prefix(1);
    if (!after.empty() && after.front() == '"') return true;  // "Ann <ann@x> "Re: Plan" (...)"
    if (!startsWithNoCase(after, 0, "of")) return false;
    after.remove_prefix(2);
    while (!after.empty() && isSpace(after.front())) after.remove_prefix(1);
    return !after.empty() && after.front() == '"';
}

}  // namespace

std::vector<InternetMessageID> ThreadingKeys::parseIDList(std::string_view value) {
    std::vector<InternetMessageID> out;
    auto add = [&](std::string_view item) {
        if (auto id = InternetMessageID::normalizing(item)) out.push_back(std::move(*id));
    };
    if (value.find('<') != std::string_view::npos) {
        // Bracketed identifiers only; words around them are free text.
        std::size_t pos = 0;
        while ((pos = value.find('<', pos)) != std::string_view::npos) {
            auto end = value.find('>', pos + 1);
            if (end == std::string_view::npos) {
                // A header cut inside its last identifier keeps it when what
                // remains still has the shape of one.
                auto rest = trim(value.substr(pos + 1));
                if (hasIdentifierShape(rest)) add(rest);
                break;
            }
            auto inner = value.substr(pos + 1, end - pos - 1);
            if (inner.find('<') != std::string_view::npos) {
                pos = pos + 1;  // "<<id>": start again at the inner bracket
                continue;
            }
            if (!isAddressInText(value.substr(end + 1))) add(inner);
            pos = end + 1;
        }
        return out;
    }
    // Without brackets, identifiers separated by white space count only when
    // every word has the shape of one: "ann@x's message of ..." is text.
    std::vector<std::string_view> words;
    std::size_t i = 0;
    while (i < value.size()) {
        while (i < value.size() && isSpace(value[i])) ++i;
        std::size_t start = i;
        while (i < value.size() && !isSpace(value[i])) ++i;
        if (i > start) words.push_back(value.substr(start, i - start));
    }
    if (!std::all_of(words.begin(), words.end(), hasIdentifierShape)) return out;
    for (auto word : words) add(word);
    return out;
}

ThreadingKeys ThreadingKeys::fromHeaders(std::string_view messageID, std::string_view inReplyTo,
                                         std::string_view references, std::string_view subject) {
    ThreadingKeys keys;
    if (messageID.find('<') != std::string_view::npos) {
        auto ids = parseIDList(messageID);
        if (!ids.empty()) keys.messageID = ids.front();
    } else {
        keys.messageID = InternetMessageID::normalizing(messageID);
    }
    keys.inReplyTo = parseIDList(inReplyTo);
    keys.references = parseIDList(references);
    keys.normalizedSubject = normalizeSubject(subject);
    return keys;
}

std::string ThreadingKeys::normalizeSubject(std::string_view subject) {
    std::string s = collapseSpaces(lowerSubject(subject));
    bool changed = true;
    while (changed) {
        changed = false;
        if (!s.empty() && s.front() == '[') {
            auto close = s.find(']');
            if (close != std::string::npos) {
                std::size_t cut = close + 1;
                if (cut < s.size() && s[cut] == ' ') ++cut;
                s.erase(0, cut);
                changed = true;
            }
        }
        if (std::size_t n = replyPrefixLength(s); n > 0) {
            s.erase(0, n);
            changed = true;
        }
    }
    constexpr std::string_view fwdSuffix = "(fwd)";
    if (s.size() >= fwdSuffix.size() &&
        s.compare(s.size() - fwdSuffix.size(), fwdSuffix.size(), fwdSuffix) == 0) {
        s.erase(s.size() - fwdSuffix.size());
    }
    return collapseSpaces(s);
}

bool ThreadingKeys::hasReplyPrefix(std::string_view subject) {
    std::string s = collapseSpaces(lowerSubject(subject));
    while (!s.empty() && s.front() == '[') {
        auto close = s.find(']');
        if (close == std::string::npos) break;
        std::size_t cut = close + 1;
        if (cut < s.size() && s[cut] == ' ') ++cut;
        s.erase(0, cut);
    }
    return replyPrefixLength(s) > 0;
}

std::vector<std::string> ThreadingKeys::referenceKeys() const {
    std::vector<std::string> keys;
    auto add = [&](const InternetMessageID& id) {
        std::string key = id.normalizedKey();
        if (std::find(keys.begin(), keys.end(), key) == keys.end()) keys.push_back(std::move(key));
    };
    for (const auto& id : inReplyTo) add(id);
    for (const auto& id : references) add(id);
    return keys;
}

Json ThreadingKeys::toJson() const {
    Json json = Json::object();
    json["messageID"] = messageID ? Json(messageID->value()) : Json(nullptr);
    Json irt = Json::array();
    for (const auto& id : inReplyTo) irt.push_back(id.value());
    json["inReplyTo"] = std::move(irt);
    Json refs = Json::array();
    for (const auto& id : references) refs.push_back(id.value());
    json["references"] = std::move(refs);
    json["normalizedSubject"] = normalizedSubject;
    return json;
}

ThreadingKeys ThreadingKeys::fromJson(const Json& json) {
    auto fail = [] {
        return MailError::storage(StorageFailureKind::other,
                                  "stored value is not decodable as ThreadingKeys");
    };
    if (!json.is_object()) throw fail();
    ThreadingKeys keys;
    auto readList = [&](const char* name, std::vector<InternetMessageID>& out) {
        auto it = json.find(name);
        if (it == json.end() || !it->is_array()) throw fail();
        for (const auto& item : *it) {
            if (!item.is_string()) throw fail();
            if (auto id = InternetMessageID::normalizing(item.get<std::string>())) {
                out.push_back(*id);
            }
        }
    };
    auto mid = json.find("messageID");
    if (mid != json.end() && !mid->is_null()) {
        if (!mid->is_string()) throw fail();
        keys.messageID = InternetMessageID::normalizing(mid->get<std::string>());
    }
    readList("inReplyTo", keys.inReplyTo);
    readList("references", keys.references);
    auto subject = json.find("normalizedSubject");
    if (subject == json.end() || !subject->is_string()) throw fail();
    keys.normalizedSubject = subject->get<std::string>();
    return keys;
}

}  // namespace mailcore
