#include "MailCore/Setup/Autoconfig.h"

#include <glib.h>

#include <cstring>

#include "MailCore/Common/MailError.h"
#include "MailCore/Setup/HTTPSClient.h"

namespace mailcore {
namespace {

struct Server {
    std::string type;  // "imap", "smtp"
    std::string hostname, port, socketType, username;
    std::vector<std::string> authentication;
};

struct ParseState {
    std::vector<std::string> path;
    std::vector<Server> incoming, outgoing;
    Server* current = nullptr;
    std::string text;
    bool inProvider = false;
    bool rootSeen = false;
};

void startElement(GMarkupParseContext*, const gchar* name, const gchar** names,
                  const gchar** values, gpointer data, GError**) {
    auto* s = static_cast<ParseState*>(data);
    if (s->path.empty()) s->rootSeen = std::strcmp(name, "clientConfig") == 0;
    s->path.emplace_back(name);
    s->text.clear();
    const bool inEmailProvider = s->path.size() == 3 && s->path[1] == "emailProvider";
    if (inEmailProvider &&
        (std::strcmp(name, "incomingServer") == 0 || std::strcmp(name, "outgoingServer") == 0)) {
        Server server;
        for (int i = 0; names[i]; ++i)
            if (std::strcmp(names[i], "type") == 0) server.type = values[i];
        auto& list = name[0] == 'i' ? s->incoming : s->outgoing;
        list.push_back(std::move(server));
        s->current = &list.back();
    }
}

void endElement(GMarkupParseContext*, const gchar* name, gpointer data, GError**) {
    auto* s = static_cast<ParseState*>(data);
    if (s->current && s->path.size() == 4) {
        std::string value = s->text;
        const auto first = value.find_first_not_of(" \t\r\n");
        const auto last = value.find_last_not_of(" \t\r\n");
        value = first == std::string::npos ? "" : value.substr(first, last - first + 1);
        const std::string element = name;
        if (element == "hostname") s->current->hostname = value;
        if (element == "port") s->current->port = value;
        if (element == "socketType") s->current->socketType = value;
        if (element == "username") s->current->username = value;
        if (element == "authentication") s->current->authentication.push_back(value);
    }
    if (s->path.size() == 3 && s->current) s->current = nullptr;
    s->path.pop_back();
    s->text.clear();
}

void textOf(GMarkupParseContext*, const gchar* text, gsize length, gpointer data, GError**) {
    auto* s = static_cast<ParseState*>(data);
    if (s->text.size() + length < 4096) s->text.append(text, length);
}

std::string substitute(std::string text, const std::string& address) {
    const auto at = address.rfind('@');
    const std::pair<std::string, std::string> fields[] = {
        {"%EMAILADDRESS%", address},
        {"%EMAILLOCALPART%", address.substr(0, at)},
        {"%EMAILDOMAIN%", mailDomain(address)}};
    for (const auto& [key, value] : fields)
        for (auto p = text.find(key); p != std::string::npos; p = text.find(key, p + value.size()))
            text.replace(p, key.size(), value);
    return text;
}

std::optional<ServerEndpoint> endpointOf(const Server& s) {
    TransportSecurity security;
    if (s.socketType == "SSL")
        security = TransportSecurity::implicitTLS;
    else if (s.socketType == "STARTTLS")
        security = TransportSecurity::startTLS;
    else
        return std::nullopt;
    if (s.hostname.empty() || s.hostname.size() > 253) return std::nullopt;
    for (char c : s.hostname)
        if (!std::isalnum(static_cast<unsigned char>(c)) && c != '.' && c != '-')
            return std::nullopt;
    int port = 0;
    for (char c : s.port) {
        if (!std::isdigit(static_cast<unsigned char>(c)) || port > 65535) return std::nullopt;
        port = port * 10 + (c - '0');
    }
    if (port < 1 || port > 65535) return std::nullopt;
    return ServerEndpoint{s.hostname, static_cast<std::uint16_t>(port), security};
}

}  // namespace

std::optional<AutoconfigResult> parseAutoconfig(std::string_view xml, const std::string& address) {
    ParseState state;
    GMarkupParser parser{startElement, endElement, textOf, nullptr, nullptr};
    GMarkupParseContext* context =
        g_markup_parse_context_new(&parser, G_MARKUP_PREFIX_ERROR_POSITION, &state, nullptr);
    GError* error = nullptr;
    const bool parsed = g_markup_parse_context_parse(context, xml.data(),
                                                     static_cast<gssize>(xml.size()), &error) &&
                        g_markup_parse_context_end_parse(context, &error);
    if (error) g_error_free(error);
    g_markup_parse_context_free(context);
    if (!parsed || !state.rootSeen) return std::nullopt;

    AutoconfigResult result;
    const Server* imap = nullptr;
    const Server* smtp = nullptr;
    for (const auto& s : state.incoming) {
        if (s.type == "imap" && endpointOf(s)) {
            imap = &s;
            break;
        }
    }
    for (const auto& s : state.outgoing) {
        if (s.type == "smtp" && endpointOf(s)) {
            smtp = &s;
            break;
        }
    }
    if (!imap || !smtp) return std::nullopt;
    ProviderEntry& p = result.provider;
    p.id = "autoconfig:" + mailDomain(address);
    p.name = mailDomain(address);
    p.domains = {mailDomain(address)};
    p.imap = *endpointOf(*imap);
    p.smtp = *endpointOf(*smtp);
    for (const auto& a : imap->authentication) {
        if ((a == "password-cleartext" || a == "password-encrypted" || a == "plain") &&
            !p.accepts(AuthMethod::password))
            p.authMethods.push_back(AuthMethod::password);
        if (a == "OAuth2" && !p.accepts(AuthMethod::oauth))
            p.authMethods.push_back(AuthMethod::oauth);
    }
    if (p.authMethods.empty()) p.authMethods.push_back(AuthMethod::password);
    result.loginName =
        substitute(imap->username.empty() ? "%EMAILADDRESS%" : imap->username, address);
    return result;
}

std::vector<std::string> autoconfigURLs(const std::string& address) {
    const std::string domain = mailDomain(address);
    return {"https://autoconfig." + domain +
                "/mail/config-v1.1.xml?emailaddress=" + formEncode(address),
            "https://" + domain + "/.well-known/autoconfig/mail/config-v1.1.xml"};
}

std::optional<AutoconfigResult> lookupAutoconfig(const std::string& address,
                                                 const AutoconfigOptions& options) {
    const auto urls = options.urls.empty() ? autoconfigURLs(address) : options.urls;
    for (const auto& url : urls) {
        HTTPSRequest request;
        request.url = url;
        request.caFile = options.caFile;
        request.connectTimeout = options.timeout / 2;
        request.totalTimeout = options.timeout;
        request.maxResponseBytes = 256 * 1024;
        request.maxRedirects = 2;
        try {
            const auto response = httpsFetch(request);
            if (response.status != 200) continue;
            if (auto result = parseAutoconfig(response.body, address)) return result;
        } catch (const MailError&) {
        }
    }
    return std::nullopt;
}

}  // namespace mailcore
