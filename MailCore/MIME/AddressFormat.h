// Display forms of mail addresses, for the forwarded-message header block
// and for people reading them; headers are written by MessageBuilder.
#pragma once

#include <string>
#include <vector>

#include "MailCore/Store/StoreTypes.h"

namespace mailcore {

// "Name <email>", or the bare address when there is no name.
std::string displayForm(const MailAddress& address);

// The display forms joined by ", ".
std::string displayForm(const std::vector<MailAddress>& addresses);

}  // namespace mailcore
