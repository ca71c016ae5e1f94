#include "kestrune_app/Host/HostAccounts.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <cstdlib>

#include "KestruneMCPKit/Link/MCPPaths.h"
#include "MailCore/Accounts/AccountDirectory.h"
#include "MailCore/Accounts/ProviderCatalog.h"
#include "MailCore/Credentials/KeyringCredentialStores.h"
#include "MailCore/Setup/AccountCheck.h"
#include "MailCore/Setup/ProviderLookup.h"
#include "MailCore/Setup/SessionServerChecker.h"

namespace kestrune {

using namespace mailcore;
namespace fs = std::filesystem;

namespace {

struct Failure : HostError {
    explicit Failure(std::string detail) : HostError(Kind::failed, std::move(detail)) {}
};
struct AccountUsageError : HostError {
    explicit AccountUsageError(std::string detail) : HostError(Kind::usage, std::move(detail)) {}
};

std::optional<std::string> takeOption(std::vector<std::string>& args, const std::string& name) {
    for (std::size_t i = 0; i < args.size(); ++i) {
        if (args[i] != name) continue;
        if (i + 1 >= args.size()) throw AccountUsageError(name + " needs a value");
        std::string value = args[i + 1];
        args.erase(args.begin() + static_cast<long>(i), args.begin() + static_cast<long>(i) + 2);
        return value;
    }
    return std::nullopt;
}

bool takeFlag(std::vector<std::string>& args, const std::string& name) {
    const auto it = std::find(args.begin(), args.end(), name);
    if (it == args.end()) return false;
    args.erase(it);
    return true;
}

// The one remaining argument: the address.
std::string addressArgument(const std::vector<std::string>& args, const std::string& verb) {
    for (const auto& a : args)
        if (a.starts_with("--")) throw AccountUsageError("unknown option " + a);
    if (args.empty()) throw AccountUsageError("accounts " + verb + " needs the account's address");
    if (args.size() > 1) throw AccountUsageError("unexpected argument " + args[1]);
    if (!isMailAddress(args[0]))
        throw AccountUsageError(args[0] + " is not a mail address like ada@example.com");
    return args[0];
}

// One line from `fd`, without its line end; none at the end of input.
std::optional<std::string> readLine(int fd) {
    std::string line;
    char c = 0;
    for (;;) {
        const ssize_t n = ::read(fd, &c, 1);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return line.empty() ? std::nullopt : std::optional<std::string>(line);
        if (c == '\n') break;
        if (line.size() < 4096) line.push_back(c);
    }
    if (!line.empty() && line.back() == '\r') line.pop_back();
    return line;
}

std::string ask(const AccountCommandIO& io, const std::string& question, bool secret = false) {
    io.out(question);
    termios saved{};
    const bool hide = secret && ::tcgetattr(io.terminal, &saved) == 0;
    if (hide) {
        termios quiet = saved;
        quiet.c_lflag &= ~static_cast<tcflag_t>(ECHO);
        quiet.c_lflag |= ECHONL;
        ::tcsetattr(io.terminal, TCSAFLUSH, &quiet);
    }
    auto answer = readLine(io.terminal);
    if (hide) ::tcsetattr(io.terminal, TCSAFLUSH, &saved);
    if (!answer) throw Failure("No answer was typed; nothing was changed.");
    return *answer;
}

std::uint16_t defaultPort(ServerRole role, TransportSecurity security) {
    if (role == ServerRole::imap) return security == TransportSecurity::implicitTLS ? 993 : 143;
    return security == TransportSecurity::implicitTLS ? 465 : 587;
}

std::optional<TransportSecurity> securityOption(const std::optional<std::string>& text,
                                                const char* option) {
    if (!text) return std::nullopt;
    if (*text == "tls") return TransportSecurity::implicitTLS;
    if (*text == "starttls") return TransportSecurity::startTLS;
    throw AccountUsageError(std::string(option) + " takes tls or starttls");
}

// "host", "host:port", "[v6]:port" with the security given or guessed from
// the port.
ServerEndpoint endpointOption(const std::string& text, std::optional<TransportSecurity> security,
                              ServerRole role, const char* option) {
    std::string host = text;
    std::optional<std::uint16_t> port;
    const auto colon = text.rfind(':');
    if (colon != std::string::npos && text.find(':') == colon) {
        host = text.substr(0, colon);
        const std::string digits = text.substr(colon + 1);
        if (digits.empty() || digits.size() > 5 ||
            !std::all_of(digits.begin(), digits.end(), ::isdigit) || std::stoi(digits) < 1 ||
            std::stoi(digits) > 65535)
            throw AccountUsageError(std::string(option) + " takes HOST or HOST:PORT");
        port = static_cast<std::uint16_t>(std::stoi(digits));
    }
    if (host.size() > 2 && host.front() == '[' && host.back() == ']')
        host = host.substr(1, host.size() - 2);
    if (host.empty() || host.size() > 253 ||
        std::any_of(host.begin(), host.end(), [](unsigned char c) { return c <= 0x20; }))
        throw AccountUsageError(std::string(option) + " takes HOST or HOST:PORT");
    if (!security) {
        const bool startTLSPort =
            port && (role == ServerRole::imap ? *port == 143 : *port == 587 || *port == 25);
        security = startTLSPort ? TransportSecurity::startTLS : TransportSecurity::implicitTLS;
    }
    return ServerEndpoint{host, port.value_or(defaultPort(role, *security)), *security};
}

std::string describe(const ServerEndpoint& e) {
    return e.host + ":" + std::to_string(e.port) + " (" + std::string(settingLabel(e.security)) +
           ")";
}

std::unique_ptr<SQLiteMailStore> openStore(const HostPaths& paths) {
    mcpkit::MCPPaths::preparePrivateDirectory(paths.root);
    return std::make_unique<SQLiteMailStore>(StoreLocation::file(paths.store.string()));
}

CredentialStoreChoice credentialStore(const HostPaths& paths) {
    return chooseCredentialStore(paths.root / "credentials.json");
}

// Opens the URL in the desktop's browser when there is a desktop; the URL
// is always printed too. Nothing secret is in it.
void openBrowser(const std::string& url) {
    if (!std::getenv("DISPLAY") && !std::getenv("WAYLAND_DISPLAY")) return;
    const pid_t child = ::fork();
    if (child == 0) {
        if (::fork() == 0) {
            const int null = ::open("/dev/null", O_RDWR);
            ::dup2(null, 0);
            ::dup2(null, 1);
            ::dup2(null, 2);
            ::execlp("xdg-open", "xdg-open", url.c_str(), static_cast<char*>(nullptr));
        }
        ::_exit(0);
    }
    if (child > 0) ::waitpid(child, nullptr, 0);
}

OAuthTokens signIn(const AccountRecord& account, const AccountCommandIO& io) {
    LoopbackReceiver receiver;
    const PKCEPair pkce = PKCEPair::generate();
    const std::string url =
        authorizationURL(*account.oauth, receiver.redirectURI(), pkce, account.address);
    io.out("Sign in to " + account.address + " in your browser. If it does not open, open:");
    io.out(url);
    openBrowser(url);
    const std::string code = receiver.waitForCode(pkce.state, std::chrono::minutes(5));
    io.out("Sign-in received; fetching the tokens...");
    return exchangeCode(*account.oauth, code, receiver.redirectURI(), pkce.verifier,
                        systemClock()());
}

int add(std::vector<std::string> args, const HostPaths& paths, const AccountCommandIO& io) {
    const auto name = takeOption(args, "--name");
    const auto imapSecurity =
        securityOption(takeOption(args, "--imap-security"), "--imap-security");
    const auto smtpSecurity =
        securityOption(takeOption(args, "--smtp-security"), "--smtp-security");
    const auto imapText = takeOption(args, "--imap");
    const auto smtpText = takeOption(args, "--smtp");
    const auto user = takeOption(args, "--user");
    const auto caFile = takeOption(args, "--ca-file");
    const bool passwordStdin = takeFlag(args, "--password-stdin");
    const bool oauth = takeFlag(args, "--oauth");
    const bool noCheck = takeFlag(args, "--no-check");
    const std::string address = addressArgument(args, "add");
    if (oauth && passwordStdin)
        throw AccountUsageError("--oauth and --password-stdin do not go together");

    AccountRecord account;
    account.id = AccountID(address);
    account.address = address;
    account.label = address;
    if (caFile) {
        account.caFile = fs::absolute(*caFile).string();
        try {
            extraAnchors(account);
        } catch (const MailError&) {
            throw Failure("The CA file " + *caFile +
                          " cannot be used: it must be readable and hold PEM certificates.");
        }
    }

    std::optional<ProviderMatch> match;
    if (!imapText || !smtpText) {
        const auto catalog = ProviderCatalog::load(paths.root / "providers.json");
        if (catalog.warning) io.out(*catalog.warning);
        io.out("Looking up the mail servers of " + mailDomain(address) + "...");
        match = findProvider(address, catalog.catalog);
        if (match)
            io.out("Found the settings of " + match->provider.name + " in " + match->source + ".");
    }
    const auto server = [&](ServerRole role, const std::optional<std::string>& text,
                            std::optional<TransportSecurity> security) {
        const char* option = role == ServerRole::imap ? "--imap" : "--smtp";
        if (text) return endpointOption(*text, security, role, option);
        if (match) {
            ServerEndpoint e =
                role == ServerRole::imap ? match->provider.imap : match->provider.smtp;
            if (security && *security != e.security) e.port = defaultPort(role, *security);
            if (security) e.security = *security;
            return e;
        }
        const std::string what = role == ServerRole::imap ? "IMAP (incoming)" : "SMTP (outgoing)";
        if (io.terminal < 0)
            throw Failure("Kestrune knows no servers for " + mailDomain(address) +
                          ": give them with " + "--imap HOST[:PORT] and --smtp HOST[:PORT].");
        for (;;) {
            const std::string typed = ask(io, what + " server of " + address + " (HOST[:PORT]):");
            try {
                return endpointOption(typed, security, role, option);
            } catch (const AccountUsageError&) {
                io.out(
                    "That is not a host name, or a host name and a port like "
                    "mail.example.com:993.");
            }
        }
    };
    account.imap = server(ServerRole::imap, imapText, imapSecurity);
    account.smtp = server(ServerRole::smtp, smtpText, smtpSecurity);
    account.loginName = user.value_or(match ? match->loginName : address);
    account.serverFilesSentMail = match && match->provider.serverFilesSent;
    const std::string passwordNote = match ? match->provider.passwordNote : "";

    if (oauth || (match && !match->provider.accepts(AuthMethod::password))) {
        const std::string provider = match ? match->provider.name : mailDomain(address);
        if (!match || !match->provider.oauth)
            throw Failure("Kestrune knows no OAuth sign-in for " + provider +
                          ": leave out --oauth and use its password.");
        if (match->provider.oauth->clientID.empty())
            throw Failure("Kestrune is not yet registered with " + provider +
                          " for OAuth sign-in, so it cannot sign in there this way. " +
                          (match->provider.accepts(AuthMethod::password)
                               ? "Leave out --oauth and use an app password instead."
                               : provider + " accounts cannot be added yet."));
        account.authMethod = AuthMethod::oauth;
        account.oauth = match->provider.oauth;
    }

    if (name)
        account.displayName = *name;
    else if (io.terminal >= 0)
        account.displayName = ask(io, "Your name as recipients see it (Enter for none):");

    auto choice = credentialStore(paths);
    if (choice.warning) io.out(*choice.warning);
    MemoryCredentialStore pending;
    auto store = openStore(paths);
    AccountDirectory directory(*store);
    AccountCredentials credentials(directory, pending, systemClock());
    std::optional<OAuthTokens> tokens;
    if (account.authMethod == AuthMethod::password) {
        std::optional<std::string> password;
        if (passwordStdin)
            password = readLine(io.input);
        else if (io.terminal >= 0)
            password = ask(io, "Password for " + account.loginName + " (not shown):", true);
        else
            throw Failure(
                "No password was given: run the command in a terminal, or pass the "
                "password on standard input with --password-stdin.");
        if (!password || password->empty())
            throw Failure("The password is empty; nothing was saved.");
        pending.setSecret(address, CredentialKind::password, *password);
    } else {
        try {
            tokens = signIn(account, io);
        } catch (const MailError& e) {
            throw Failure("The sign-in did not complete (" + e.detail() + "); nothing was saved.");
        }
        credentials.signedIn(account, *tokens);
    }

    if (noCheck) {
        io.out("Not checking the servers (--no-check): the account is saved as given.");
    } else {
        SessionServerChecker checker;
        if (!checkAccount(account, credentials, checker, io.out, passwordNote).ok())
            throw Failure(
                "The account was not saved: correct what is said above and run the "
                "command again (or add --no-check to save it unchecked).");
    }
    try {
        if (account.authMethod == AuthMethod::password)
            choice.store->setSecret(address, CredentialKind::password,
                                    *pending.secret(address, CredentialKind::password));
        else if (tokens && tokens->refreshToken)
            choice.store->setSecret(address, CredentialKind::oauthRefreshToken,
                                    *tokens->refreshToken);
    } catch (const MailError& e) {
        throw Failure(
            "The " +
            std::string(account.authMethod == AuthMethod::password ? "password" : "sign-in") +
            " could not be stored in " + choice.store->description() + " (" + e.detail() +
            "); the account was not saved.");
    }
    if (const auto existing = directory.find(account.id)) account.label = existing->label;
    directory.save(account, systemClock()());
    io.out("Saved " + address + "; its " +
           (account.authMethod == AuthMethod::password ? "password" : "sign-in") + " is kept in " +
           choice.store->description() + ".");
    return 0;
}

AccountRecord savedAccount(AccountDirectory& directory, const std::string& address) {
    std::optional<AccountRecord> account;
    try {
        account = directory.find(AccountID(address));
    } catch (const MailError&) {
        throw Failure("The settings of " + address +
                      " cannot be read; remove the account and "
                      "add it again.");
    }
    if (!account)
        throw Failure("There is no account " + address + "; add it with: kestrune accounts add " +
                      address);
    return *account;
}

int test(std::vector<std::string> args, const HostPaths& paths, const AccountCommandIO& io) {
    const std::string address = addressArgument(args, "test");
    if (!fs::exists(paths.store))
        throw Failure("There is no account " + address + "; add it with: kestrune accounts add " +
                      address);
    auto store = openStore(paths);
    AccountDirectory directory(*store);
    const AccountRecord account = savedAccount(directory, address);
    if (!account.isServerAccount())
        throw Failure(address + " was imported from files and has no servers to test.");
    auto choice = credentialStore(paths);
    if (choice.warning) io.out(*choice.warning);
    AccountCredentials credentials(directory, *choice.store, systemClock());
    SessionServerChecker checker;
    if (!checkAccount(account, credentials, checker, io.out).ok()) return 1;
    io.out("Both servers of " + address + " work.");
    return 0;
}

int remove(std::vector<std::string> args, const HostPaths& paths, const AccountCommandIO& io) {
    const bool yes = takeFlag(args, "--yes");
    const std::string address = addressArgument(args, "remove");
    if (!fs::exists(paths.store)) throw Failure("There is no account " + address + ".");
    auto store = openStore(paths);
    AccountDirectory directory(*store);
    if (!store->accountExists(AccountID(address)))
        throw Failure("There is no account " + address + ".");
    if (!yes) {
        if (io.terminal < 0)
            throw AccountUsageError(
                "accounts remove asks for a confirmation: run it in a "
                "terminal or add --yes");
        const std::string answer =
            ask(io, "Remove " + address +
                        ", its mail kept by Kestrune and its stored password "
                        "or sign-in? The mail on the server stays. [y/N]");
        if (answer != "y" && answer != "yes") {
            io.out("Nothing was removed.");
            return 0;
        }
    }
    directory.remove(AccountID(address));
    auto choice = credentialStore(paths);
    choice.store->removeAll(address);
    FileCredentialStore(paths.root / "credentials.json").removeAll(address);
    io.out("Removed " + address + " with its mail in Kestrune and its credentials.");
    return 0;
}

}  // namespace

int runAccountCommand(const std::string& verb, std::vector<std::string> args,
                      const HostPaths& paths, const AccountCommandIO& io) {
    try {
        if (verb == "add") return add(std::move(args), paths, io);
        if (verb == "test") return test(std::move(args), paths, io);
        if (verb == "remove") return remove(std::move(args), paths, io);
    } catch (const MailError& e) {
        throw Failure(std::string("The mail store cannot be used: ") + e.detail() + ".");
    }
    throw AccountUsageError("unknown accounts command " + verb);
}

std::string accountDetails(const AccountRecord& account) {
    std::string text;
    if (account.isServerAccount())
        text = "; IMAP " + describe(*account.imap) + ", SMTP " + describe(*account.smtp) +
               (account.authMethod == AuthMethod::oauth ? ", OAuth sign-in" : "");
    if (account.authState == AccountAuthState::reauthorizationRequired)
        text += "; re-authorization required: sign in again with kestrune accounts add " +
                account.address + " --oauth";
    return text;
}

bool hasServerAccounts(const HostPaths& paths) {
    if (!fs::exists(paths.store)) return false;
    try {
        SQLiteMailStore store(StoreLocation::file(paths.store.string()));
        return !AccountDirectory(store).serverAccounts().empty();
    } catch (const MailError&) {
        return false;
    }
}

std::optional<std::string> credentialStoreWarning(const HostPaths& paths) {
    return credentialStore(paths).warning;
}

std::unique_ptr<CredentialStore> openCredentialStore(const HostPaths& paths) {
    return credentialStore(paths).store;
}

}  // namespace kestrune
