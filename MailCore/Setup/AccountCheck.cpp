#include "MailCore/Setup/AccountCheck.h"

namespace mailcore {
namespace {

std::string serverName(ServerRole role, const ServerEndpoint& e) {
    return std::string(role == ServerRole::imap ? "The IMAP server " : "The SMTP server ") +
           e.host + ":" + std::to_string(e.port);
}

}  // namespace

std::string explainFailure(const MailError& error, ServerRole role, const ServerEndpoint& e,
                           const std::string& passwordNote) {
    const std::string server = serverName(role, e);
    const std::string port = std::to_string(e.port);
    switch (error.errorCase()) {
        case MailError::Case::network:
            switch (error.networkKind()) {
                case NetworkFailureKind::dnsFailure:
                    return server + " could not be found: check the host name.";
                case NetworkFailureKind::connectionRefused:
                    return server + " refused the connection: check the host name and port " +
                           port + ".";
                case NetworkFailureKind::timeout:
                    return server + " did not answer in time: check the host, the port " + port +
                           " and your network connection.";
                case NetworkFailureKind::unreachable:
                    return server + " cannot be reached: check your network connection.";
                default:
                    return server + " closed the connection (" + error.detail() +
                           "): check the port " + port + " and its security setting (" +
                           std::string(settingLabel(e.security)) + ").";
            }
        case MailError::Case::tls:
            switch (error.tlsKind()) {
                case TLSFailureKind::certificateExpired:
                    return server +
                           " presented an expired certificate; ask the provider to "
                           "renew it.";
                case TLSFailureKind::hostnameMismatch:
                    return server +
                           " presented a certificate made for another name: check the "
                           "host name (use the name the provider gives).";
                case TLSFailureKind::untrustedRoot:
                case TLSFailureKind::certificateInvalid:
                    return server +
                           " presented a certificate that is not trusted; if the "
                           "server uses a private certificate authority, name its "
                           "certificate with --ca-file.";
                case TLSFailureKind::startTLSUnavailable:
                    return server +
                           " does not offer STARTTLS, so the password would travel "
                           "unprotected: use the port with SSL/TLS (often " +
                           std::string(role == ServerRole::imap ? "993" : "465") + ") and --" +
                           (role == ServerRole::imap ? "imap" : "smtp") + "-security tls.";
                case TLSFailureKind::protocolVersionTooLow:
                    return server + " offers only an outdated TLS version (below 1.2).";
                default:
                    return server + " failed the secure handshake (" + error.detail() +
                           "): check that port " + port + " uses " +
                           std::string(settingLabel(e.security)) + ".";
            }
        case MailError::Case::auth:
            if (error.authKind() == AuthFailureKind::reauthorizationRequired)
                return "The sign-in for this account has expired or was revoked: sign in again "
                       "with `kestrune accounts add ADDRESS --oauth`.";
            if (error.authKind() == AuthFailureKind::temporaryFailure)
                return server + " could not check the credentials just now (" + error.detail() +
                       "); try again in a few minutes.";
            return server + " refused the user name or password: check them" +
                   (passwordNote.empty() ? std::string(" (some providers want an app password).")
                                         : ". " + passwordNote);
        case MailError::Case::unsupportedCapability:
            return server + " does not offer a way to sign in that Kestrune can use (" +
                   error.detail() + ").";
        case MailError::Case::protocolViolation:
            return server + " did not answer as a" +
                   (role == ServerRole::imap ? "n IMAP" : "n SMTP") + " server (" + error.detail() +
                   "): check the host and port.";
        default:
            return server + " could not be checked (" + error.detail() + ").";
    }
}

CheckReport checkAccount(const AccountRecord& account, AccountCredentials& credentials,
                         ServerChecker& checker, const std::function<void(const std::string&)>& say,
                         const std::string& passwordNote) {
    CheckReport report;
    const auto step = [&](ServerRole role, const ServerEndpoint& e) {
        const char* name = role == ServerRole::imap ? "IMAP" : "SMTP";
        say(std::string("Connecting to the ") + name + " server " + e.host + ":" +
            std::to_string(e.port) + " (" + std::string(settingLabel(e.security)) + ")...");
        const auto attempt = [&](const LoginSecret& login) {
            if (role == ServerRole::imap)
                checker.checkIMAP(account, login);
            else
                checker.checkSMTP(account, login);
        };
        try {
            LoginSecret login = credentials.loginSecret(account);
            try {
                attempt(login);
            } catch (const MailError& e1) {
                if (login.method != AuthMethod::oauth || e1.errorCase() != MailError::Case::auth)
                    throw;
                credentials.loginRefused(account, login.secret);
                attempt(credentials.loginSecret(account));
            }
            say(std::string(name) + ": signed in as " + login.loginName + ".");
            return true;
        } catch (const MailError& error) {
            say(explainFailure(error, role, e, passwordNote));
            return false;
        }
    };
    if (account.imap) report.imapOK = step(ServerRole::imap, *account.imap);
    if (account.smtp) report.smtpOK = step(ServerRole::smtp, *account.smtp);
    return report;
}

}  // namespace mailcore
