#include "MailCore/IMAP/UIDSet.h"

#include <algorithm>
#include <limits>
#include <nlohmann/json.hpp>

#include "MailCore/Common/MailError.h"

namespace mailcore {

UIDSet::UIDSet(UIDValue uid) : ranges{UIDRange{uid, uid}} {}

UIDSet UIDSet::fromRanges(std::vector<UIDRange> ranges) {
    UIDSet set;
    set.ranges = std::move(ranges);
    return set;
}

UIDSet UIDSet::fromSortedCopy(std::vector<UIDValue> uids) {
    std::sort(uids.begin(), uids.end());
    uids.erase(std::unique(uids.begin(), uids.end()), uids.end());
    UIDSet set;
    for (UIDValue uid : uids) {
        if (!set.ranges.empty()) {
            UIDRange& last = set.ranges.back();
            if (last.upper && *last.upper != std::numeric_limits<UIDValue>::max() &&
                uid == *last.upper + 1) {
                last.upper = uid;
                continue;
            }
        }
        set.ranges.push_back(UIDRange{uid, uid});
    }
    return set;
}

std::string UIDSet::imapString() const {
    std::string out;
    for (const UIDRange& range : ranges) {
        if (!out.empty()) out.push_back(',');
        out += std::to_string(range.lower);
        if (!range.upper) {
            out += ":*";
        } else if (*range.upper != range.lower) {
            out.push_back(':');
            out += std::to_string(*range.upper);
        }
    }
    return out;
}

std::vector<UIDSet> UIDSet::chunked(std::int64_t limit) const {
    const std::uint64_t cap = static_cast<std::uint64_t>(std::max<std::int64_t>(limit, 1));
    std::vector<UIDSet> chunks;
    UIDSet current;
    std::uint64_t count = 0;
    auto close = [&] {
        if (!current.isEmpty()) chunks.push_back(std::move(current));
        current = UIDSet();
        count = 0;
    };
    for (const UIDRange& range : ranges) {
        if (!range.upper) {
            close();
            current.ranges.push_back(range);
            close();
            continue;
        }
        // A range written high to low names the same UIDs as low to high.
        std::uint64_t lower = std::min(range.lower, *range.upper);
        std::uint64_t upper = std::max(range.lower, *range.upper);
        while (lower <= upper) {
            std::uint64_t take = std::min(cap - count, upper - lower + 1);
            current.ranges.push_back(
                UIDRange{static_cast<UIDValue>(lower), static_cast<UIDValue>(lower + take - 1)});
            count += take;
            lower += take;
            if (count == cap) close();
        }
    }
    close();
    return chunks;
}

Json UIDSet::toJson() const {
    Json list = Json::array();
    for (const UIDRange& range : ranges) {
        Json item = Json::object();
        item["lower"] = range.lower;
        if (range.upper) item["upper"] = *range.upper;
        list.push_back(std::move(item));
    }
    Json json = Json::object();
    json["ranges"] = std::move(list);
    return json;
}

UIDSet UIDSet::fromJson(const Json& json) {
    auto fail = [] {
        return MailError::storage(StorageFailureKind::other,
                                  "stored value is not decodable as UIDSet");
    };
    auto uidValue = [&](const Json& value) {
        if (!value.is_number_unsigned() ||
            value.get<std::uint64_t>() > std::numeric_limits<UIDValue>::max()) {
            throw fail();
        }
        return static_cast<UIDValue>(value.get<std::uint64_t>());
    };
    if (!json.is_object() || !json.contains("ranges") || !json["ranges"].is_array()) throw fail();
    UIDSet set;
    for (const Json& item : json["ranges"]) {
        if (!item.is_object() || !item.contains("lower")) throw fail();
        UIDRange range{uidValue(item["lower"]), std::nullopt};
        if (item.contains("upper") && !item["upper"].is_null())
            range.upper = uidValue(item["upper"]);
        set.ranges.push_back(range);
    }
    return set;
}

}  // namespace mailcore
