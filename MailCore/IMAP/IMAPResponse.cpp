#include "MailCore/IMAP/IMAPResponse.h"

#include <strings.h>

namespace mailcore {

const std::string* IMAPFetchData::section(std::string_view name) const {
    for (const auto& s : sections) {
        if (s.section.size() == name.size() &&
            ::strncasecmp(s.section.data(), name.data(), name.size()) == 0) {
            return s.data ? &*s.data : nullptr;
        }
    }
    return nullptr;
}

const std::string& IMAPResponse::tag() const {
    static const std::string none;
    const auto* status = as<IMAPStatusResponse>();
    return status ? status->tag : none;
}

}  // namespace mailcore
