#include "MailCore/MIME/AddressFormat.h"

namespace mailcore {

std::string displayForm(const MailAddress& address) {
    if (address.name.empty()) return address.email;
    if (address.email.empty()) return address.name;
    return address.name + " <" + address.email + ">";
}

std::string displayForm(const std::vector<MailAddress>& addresses) {
    std::string out;
    for (const auto& a : addresses) {
        if (!out.empty()) out += ", ";
        out += displayForm(a);
    }
    return out;
}

}  // namespace mailcore
