// ServerSending: how the send executor reaches the servers of the user's
// mail accounts. A server account (one with IMAP and SMTP endpoints)
// submits through its SMTP server, signed in with what AccountCredentials
// presents (its password, or an OAuth access token, refreshed once after a
// refusal), and has its sent mail filed in its Sent folder over IMAP unless
// its provider files it by itself. Both connections trust the account's
// extra anchors besides the platform's. Accounts without servers (the
// demonstration, imports) are not served here: the send executor leaves
// them to the local one.
//
// The credential store is opened at the first sign-in, not before, so that a
// host with only local accounts never asks the keyring for anything.
//
// Thread-safe: the services may be called from several outbox threads.
#pragma once

#include <functional>
#include <memory>

#include "MailCore/Accounts/CredentialStore.h"
#include "MailCore/Engine/SendExecutor.h"
#include "MailCore/Store/SQLiteMailStore.h"

namespace kestrune {

mailcore::SendServices serverSendServices(
    std::shared_ptr<mailcore::SQLiteMailStore> store,
    std::function<std::unique_ptr<mailcore::CredentialStore>()> openCredentials,
    mailcore::ConnectionTimeouts timeouts = {20, 60, 0, 60, 300});

}  // namespace kestrune
