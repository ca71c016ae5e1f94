// UID sets: the values with which IMAP commands name messages by UID, their
// text form ("3:5,9", "7:*") and their splitting into bounded chunks. Plain
// values; safe to copy between threads.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <iterator>
#include <optional>
#include <string>
#include <vector>

#include "MailCore/Common/Json.h"

namespace mailcore {

// A message UID on the wire: an unsigned 32-bit value (the raw value of the
// store's IMAPUID identifier; the protocol layer works with raw numbers).
using UIDValue = std::uint32_t;

struct UIDRange {
    UIDValue lower = 0;
    // Absent means open-ended, written "*".
    std::optional<UIDValue> upper;

    bool operator==(const UIDRange&) const = default;
};

struct UIDSet {
    std::vector<UIDRange> ranges;

    UIDSet() = default;
    // The set holding one UID.
    explicit UIDSet(UIDValue uid);

    // Duplicates removed, sorted ascending, consecutive UIDs merged into
    // ranges. Takes any range of UIDValue (vector, set, span, ...).
    template <typename UIDs>
    static UIDSet fromUIDs(const UIDs& uids) {
        return fromSortedCopy(std::vector<UIDValue>(std::begin(uids), std::end(uids)));
    }
    static UIDSet fromUIDs(std::initializer_list<UIDValue> uids) {
        return fromSortedCopy(std::vector<UIDValue>(uids));
    }
    // The ranges as given, in their order.
    static UIDSet fromRanges(std::vector<UIDRange> ranges);

    bool isEmpty() const { return ranges.empty(); }

    // "3:5,9,12:*": ranges in stored order, joined by commas, no spaces.
    std::string imapString() const;

    // Sets of at most `limit` UIDs each (a limit below 1 counts as 1), in
    // order. A closed range that does not fit is cut across chunks; an
    // open-ended range closes the current chunk and forms a chunk of its own.
    // An empty set gives no chunks.
    std::vector<UIDSet> chunked(std::int64_t limit) const;

    bool operator==(const UIDSet&) const = default;

    // {"ranges":[{"lower":3,"upper":5},{"lower":7}]}; an open upper bound is
    // left out. fromJson throws MailError storage(other, "stored value is not
    // decodable as UIDSet").
    Json toJson() const;
    static UIDSet fromJson(const Json& json);

private:
    static UIDSet fromSortedCopy(std::vector<UIDValue> uids);
};

}  // namespace mailcore
