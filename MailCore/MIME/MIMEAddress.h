// One mailbox of an address header: a display name (possibly empty) and an
// e-mail address, both UTF-8. Plain value type.
#pragma once

#include <string>
#include <vector>

namespace mailcore {

struct MIMEAddress {
    std::string name;
    std::string email;

    bool operator==(const MIMEAddress&) const = default;
};

// "Name <email>", or the bare address when there is no name. For display and
// for the full-text index, not for headers (see MessageBuilder).
std::string displayForm(const MIMEAddress& address);

// The display forms joined by ", ".
std::string displayForm(const std::vector<MIMEAddress>& addresses);

}  // namespace mailcore
