// What account set-up reads from outside: autoconfiguration XML from a mail
// domain, a token endpoint's JSON answer, and a provider catalog. The first
// byte picks the reader; none may crash, and a catalog that parses keeps
// answering lookups.
#include <cstddef>
#include <cstdint>
#include <string>

#include "MailCore/Accounts/ProviderCatalog.h"
#include "MailCore/Common/MailError.h"
#include "MailCore/Setup/Autoconfig.h"
#include "MailCore/Setup/OAuthFlow.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) return 0;
    const std::string text(reinterpret_cast<const char*>(data) + 1, size - 1);
    using namespace mailcore;
    try {
        switch (data[0] % 3) {
            case 0:
                if (auto found = parseAutoconfig(text, "ada@example.com")) {
                    if (found->provider.imap.port == 0 || found->provider.smtp.port == 0)
                        __builtin_trap();
                }
                break;
            case 1:
                parseTokenResponse(200, text, dateFromSeconds(0));
                break;
            default: {
                const ProviderCatalog catalog = ProviderCatalog::parse(text);
                for (const auto& p : catalog.providers())
                    for (const auto& d : p.domains)
                        if (!catalog.forDomain(d)) __builtin_trap();
                catalog.forMXHosts({"mx.example.com"});
            }
        }
    } catch (const MailError&) {
    }
    return 0;
}
