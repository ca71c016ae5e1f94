// Finding the servers of a mail address: the provider catalog by domain,
// then by the domain's MX hosts, then the domain's published
// autoconfiguration over HTTPS.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "MailCore/Accounts/ProviderCatalog.h"
#include "MailCore/Setup/Autoconfig.h"

namespace mailcore {

struct ProviderMatch {
    ProviderEntry provider;
    std::string loginName;  // the user name to use; the address unless told otherwise
    std::string source;     // "the provider catalog", "the MX records of example.com", ...
};

// The MX host names of a domain, best preference first, from the system's
// resolver with a short timeout; empty when there are none or the lookup
// fails.
std::vector<std::string> lookupMX(const std::string& domain);

struct ProviderLookupOptions {
    std::function<std::vector<std::string>(const std::string&)> mx = lookupMX;
    AutoconfigOptions autoconfig;
};

std::optional<ProviderMatch> findProvider(const std::string& address,
                                          const ProviderCatalog& catalog,
                                          const ProviderLookupOptions& options = {});

}  // namespace mailcore
