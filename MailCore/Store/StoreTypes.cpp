#include "MailCore/Store/StoreTypes.h"

#include <array>

namespace mailcore {
namespace {

constexpr std::array<std::string_view, 8> roleNames{"inbox",   "sent", "drafts",  "trash",
                                                    "archive", "junk", "flagged", "custom"};
constexpr std::array<std::string_view, 3> bodyStateNames{"notFetched", "partial", "complete"};
constexpr std::array<std::string_view, 3> localStateNames{"synced", "pendingMove", "pendingDelete"};

template <std::size_t N>
std::size_t indexOf(const std::array<std::string_view, N>& names, std::string_view raw,
                    std::size_t fallback) {
    for (std::size_t i = 0; i < N; ++i) {
        if (names[i] == raw) return i;
    }
    return fallback;
}

}  // namespace

std::string_view rawValue(FolderRole role) { return roleNames.at(static_cast<std::size_t>(role)); }

FolderRole folderRoleFromRaw(std::string_view raw) {
    return static_cast<FolderRole>(indexOf(roleNames, raw, 7));
}

std::string_view rawValue(BodyState state) {
    return bodyStateNames.at(static_cast<std::size_t>(state));
}

std::string_view rawValue(LocalState state) {
    return localStateNames.at(static_cast<std::size_t>(state));
}

LocalState localStateFromRaw(std::string_view raw) {
    return static_cast<LocalState>(indexOf(localStateNames, raw, 0));
}

}  // namespace mailcore
