#include "MailCore/Setup/ProviderLookup.h"

#include <arpa/nameser.h>
#include <netinet/in.h>
#include <resolv.h>

#include <algorithm>

namespace mailcore {

std::vector<std::string> lookupMX(const std::string& domain) {
    if (domain.empty() || domain.size() > 253) return {};
    struct __res_state state {};
    if (res_ninit(&state) != 0) return {};
    state.retrans = 2;
    state.retry = 1;
    unsigned char answer[4096];
    const int length = res_nquery(&state, domain.c_str(), ns_c_in, ns_t_mx, answer, sizeof answer);
    res_nclose(&state);
    if (length <= 0) return {};
    ns_msg message;
    if (ns_initparse(answer, length, &message) != 0) return {};
    std::vector<std::pair<int, std::string>> hosts;
    for (int i = 0; i < ns_msg_count(message, ns_s_an); ++i) {
        ns_rr record;
        if (ns_parserr(&message, ns_s_an, i, &record) != 0 || ns_rr_type(record) != ns_t_mx ||
            ns_rr_rdlen(record) < 3)
            continue;
        char name[NS_MAXDNAME];
        if (dn_expand(ns_msg_base(message), ns_msg_end(message), ns_rr_rdata(record) + 2, name,
                      sizeof name) < 0)
            continue;
        hosts.emplace_back(ns_get16(ns_rr_rdata(record)), name);
    }
    std::stable_sort(hosts.begin(), hosts.end(),
                     [](const auto& a, const auto& b) { return a.first < b.first; });
    std::vector<std::string> out;
    for (auto& h : hosts) out.push_back(std::move(h.second));
    return out;
}

std::optional<ProviderMatch> findProvider(const std::string& address,
                                          const ProviderCatalog& catalog,
                                          const ProviderLookupOptions& options) {
    const std::string domain = mailDomain(address);
    if (const ProviderEntry* p = catalog.forDomain(domain))
        return ProviderMatch{*p, address, "the provider catalog"};
    if (options.mx) {
        if (const ProviderEntry* p = catalog.forMXHosts(options.mx(domain)))
            return ProviderMatch{*p, address,
                                 "the provider catalog (by the mail servers of " + domain + ")"};
    }
    if (auto found = lookupAutoconfig(address, options.autoconfig))
        return ProviderMatch{found->provider, found->loginName,
                             "the settings " + domain + " publishes"};
    return std::nullopt;
}

}  // namespace mailcore
