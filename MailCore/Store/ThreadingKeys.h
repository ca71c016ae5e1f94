// InternetMessageID and ThreadingKeys: what threading takes from a message's
// headers. Plain values; thread-safe to share.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "MailCore/Common/Json.h"

namespace mailcore {

// A Message-ID without its angle brackets.
class InternetMessageID {
public:
    // Trims white space, drops one leading "<" and one trailing ">", trims
    // again; nothing when the result is empty or contains white space.
    static std::optional<InternetMessageID> normalizing(std::string_view text);

    const std::string& value() const { return value_; }
    // The local part as written, the domain (after the last "@") lower-cased.
    // Threading compares keys, never raw identifiers.
    std::string normalizedKey() const;

    bool operator==(const InternetMessageID&) const = default;

private:
    explicit InternetMessageID(std::string value) : value_(std::move(value)) {}
    std::string value_;
};

struct ThreadingKeys {
    std::optional<InternetMessageID> messageID;
    std::vector<InternetMessageID> inReplyTo;
    std::vector<InternetMessageID> references;
    std::string normalizedSubject;

    // From the raw header values (unfolded or not): Message-ID, In-Reply-To,
    // References and Subject. The Message-ID is its first "<...>" item, or the
    // whole value without brackets; lists take every "<...>" item, or split a
    // value without brackets at white space. Invalid identifiers are dropped.
    static ThreadingKeys fromHeaders(std::string_view messageID, std::string_view inReplyTo,
                                     std::string_view references, std::string_view subject);

    // Every identifier of an In-Reply-To or References value, in order.
    static std::vector<InternetMessageID> parseIDList(std::string_view value);

    // Lower-cases, collapses white space, strips list tags ("[list] "), the
    // reply and forward prefixes (antw, fwd, re, fw, aw, sv, vs, wg, tr, rv,
    // each with an optional "[n]" counter, always followed by a colon) and a
    // trailing "(fwd)". The result may be empty.
    static std::string normalizeSubject(std::string_view subject);

    // True when the subject, after any list tags, starts with one of the
    // reply or forward prefixes ("Re: [team] x" and "[team] AW: x" do).
    static bool hasReplyPrefix(std::string_view subject);

    // The normalised keys of inReplyTo then references, without repeats.
    std::vector<std::string> referenceKeys() const;

    // {"messageID":..,"inReplyTo":[..],"references":[..],"normalizedSubject":..}
    Json toJson() const;
    // Throws storage(other, "stored value is not decodable as ThreadingKeys").
    static ThreadingKeys fromJson(const Json& json);

    bool operator==(const ThreadingKeys&) const = default;
};

}  // namespace mailcore
