// The user's mail accounts on the command line: `kestrune accounts add`,
// `test` and `remove`, and the sign-in state shown by `kestrune accounts`
// and `kestrune outbox`.
//
// Secrets go only to the credential store (the Secret Service, or the 0600
// file "credentials.json" in the data directory where none answers): never
// into the mail store, a log or a process's arguments. Questions are asked
// only on a terminal; the password is read without echo.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "MailCore/Accounts/AccountRecord.h"
#include "MailCore/Accounts/CredentialStore.h"
#include "kestrune_app/Host/HostError.h"
#include "kestrune_app/Host/HostPaths.h"

namespace kestrune {

struct AccountCommandIO {
    std::function<void(const std::string&)> out;
    int terminal = -1;  // a terminal to ask on (and read the password from), or -1
    int input = 0;      // where --password-stdin reads
};

// Runs `accounts add|test|remove` with the arguments after the verb.
// Returns the exit status; throws HostError: usage for a mistake on the
// command line, failed with a sentence for the person otherwise.
int runAccountCommand(const std::string& verb, std::vector<std::string> args,
                      const HostPaths& paths, const AccountCommandIO& io);

// What `kestrune accounts` adds after an account: its servers, and
// "re-authorization required: ..." when its sign-in must be renewed.
std::string accountDetails(const mailcore::AccountRecord& account);

// True when the store holds an account reached over IMAP and SMTP.
bool hasServerAccounts(const HostPaths& paths);

// The warning to show once when account secrets go to the private file
// because no keyring answers; none where a keyring is used.
std::optional<std::string> credentialStoreWarning(const HostPaths& paths);

// The store of account secrets the account commands use: the keyring when
// one answers, else the private file.
std::unique_ptr<mailcore::CredentialStore> openCredentialStore(const HostPaths& paths);

}  // namespace kestrune
