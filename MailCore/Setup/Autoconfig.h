// Mail server settings published by a mail domain in the autoconfiguration
// format (clientConfig XML, version 1.1): `parseAutoconfig` reads such a
// document, `lookupAutoconfig` fetches it over HTTPS from the domain's
// well-known locations.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "MailCore/Accounts/ProviderCatalog.h"

namespace mailcore {

struct AutoconfigResult {
    ProviderEntry provider;  // id "autoconfig:<domain>", serverFilesSent false
    std::string loginName;   // the user name the document gives for `address`
};

// The first IMAP and the first SMTP server with TLS ("SSL") or STARTTLS, for
// `address` (placeholders %EMAILADDRESS%, %EMAILLOCALPART% and %EMAILDOMAIN%
// are filled in). None when the document is not such XML or lacks either
// server; plain-text servers are never taken.
std::optional<AutoconfigResult> parseAutoconfig(std::string_view xml, const std::string& address);

// The locations tried, in order:
// https://autoconfig.<domain>/mail/config-v1.1.xml?emailaddress=<address> and
// https://<domain>/.well-known/autoconfig/mail/config-v1.1.xml.
std::vector<std::string> autoconfigURLs(const std::string& address);

struct AutoconfigOptions {
    std::vector<std::string> urls;      // empty: autoconfigURLs(address)
    std::optional<std::string> caFile;  // tests: the anchors of a local server
    double timeout = 6;                 // seconds for each location
};

// The first location that answers 200 with a usable document. None when no
// location does (unreachable, not found, unusable); never throws.
std::optional<AutoconfigResult> lookupAutoconfig(const std::string& address,
                                                 const AutoconfigOptions& options = {});

}  // namespace mailcore
