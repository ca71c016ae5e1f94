#include "MailCore/Engine/SendExecutor.h"

#include <algorithm>
#include <cctype>

#include "MailCore/MIME/OutgoingComposer.h"

namespace mailcore {
namespace {

bool isSend(const OutboxItem& item) { return item.operation.kind() == OutboxOperation::Kind::send; }

std::string lower(std::string text) {
    for (auto& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return text;
}

}  // namespace

std::vector<std::string> envelopeRecipients(const OutgoingMessage& message) {
    std::vector<std::string> out;
    std::vector<std::string> seen;
    for (const auto* list : {&message.to, &message.cc, &message.bcc}) {
        for (const auto& a : *list) {
            const std::string key = lower(a.email);
            if (a.email.empty() || std::find(seen.begin(), seen.end(), key) != seen.end()) continue;
            seen.push_back(key);
            out.push_back(a.email);
        }
    }
    return out;
}

SendExecutor::SendExecutor(SQLiteMailStore& store, SendServices services, OutboxExecutor& others,
                           Clock clock)
    : store_(store),
      journal_(store),
      services_(std::move(services)),
      others_(others),
      clock_(clock ? std::move(clock) : systemClock()) {
    journal_.prune();
}

OutboxResult SendExecutor::execute(const OutboxItem& item) {
    if (!isSend(item)) return others_.execute(item);
    const auto account = services_.account ? services_.account(item.accountID) : std::nullopt;
    if (!account) return others_.execute(item);
    return send(item, *account);
}

OutboxResult SendExecutor::send(const OutboxItem& item, const SubmissionAccount& account) {
    const OutboxSend& payload = item.operation.sendPayload();
    if (const auto entry = journal_.entry(item.id)) {
        if (entry->stage == SubmissionJournal::Stage::accepted)
            return file(item, account, entry->message);
        // The end was written before and no reply was recorded: never again
        // without looking first.
        return OutboxResult::uncertain();
    }
    if (!payload.message.messageID)
        return OutboxResult::failed(MailError::protocolViolation(ProtocolIssueKind::invalidInput,
                                                                 "message has no Message-ID"));
    if (payload.message.from.empty())
        return OutboxResult::failed(
            MailError::protocolViolation(ProtocolIssueKind::invalidInput, "missing from address"));
    const std::string message = buildOutgoing(payload.message, clock_(), false).data;
    const SMTPEnvelope envelope{payload.message.from.front().email,
                                envelopeRecipients(payload.message)};

    std::unique_ptr<SMTPSession> session;
    try {
        session = signIn(item.accountID, account);
    } catch (const MailError& error) {
        return OutboxResult::failed(error, true);
    }
    try {
        session->send(envelope, message, [&] {
            journal_.record(item.id, SubmissionJournal::Stage::endWritten, message);
            if (beforeEnd_) beforeEnd_(item);
        });
    } catch (const MailError& error) {
        session->quit();
        if (error.errorCase() == MailError::Case::network &&
            error.networkKind() == NetworkFailureKind::outcomeUnknown)
            return OutboxResult::uncertain();
        // The server answered: whatever was written was not delivered.
        journal_.forget(item.id);
        return OutboxResult::failed(error);
    }
    journal_.record(item.id, SubmissionJournal::Stage::accepted, message);
    session->quit();
    return file(item, account, message);
}

std::unique_ptr<SMTPSession> SendExecutor::signIn(const AccountID& id,
                                                  const SubmissionAccount& account) {
    const auto attempt = [&](const SubmissionAccount& a) {
        std::unique_ptr<SMTPSession> session = services_.smtp(a);
        try {
            session->connect();
            session->authenticate(a.credentials);
        } catch (const MailError&) {
            session->quit();
            throw;
        }
        return session;
    };
    try {
        return attempt(account);
    } catch (const MailError& error) {
        const bool tokenRefused = error.errorCase() == MailError::Case::auth &&
                                  error.authKind() == AuthFailureKind::invalidCredentials &&
                                  account.credentials.isOAuthToken;
        if (!tokenRefused || !services_.signInRefused) throw;
        services_.signInRefused(id, account.credentials.secret);
        const auto fresh = services_.account(id);
        if (!fresh) throw;
        return attempt(*fresh);
    }
}

OutboxResult SendExecutor::file(const OutboxItem& item, const SubmissionAccount& account,
                                const std::string& message) {
    const OutboxSend& payload = item.operation.sendPayload();
    if (payload.saveToSent && !account.providerFilesSent && services_.sent &&
        payload.message.messageID) {
        // A failure here leaves the journal at "accepted": the next attempt
        // only files the message.
        auto sent = services_.sent(item.accountID);
        if (!sent->contains(*payload.message.messageID)) sent->append(message);
    }
    if (payload.draftID) store_.deleteDraft(*payload.draftID);
    return OutboxResult::done();
}

SentState SendExecutor::verifySent(const OutboxItem& item) {
    if (!isSend(item)) return others_.verifySent(item);
    const auto account = services_.account ? services_.account(item.accountID) : std::nullopt;
    if (!account) return others_.verifySent(item);
    const auto entry = journal_.entry(item.id);
    if (!entry) return SentState::notSent;  // the end of the message was never written
    if (entry->stage == SubmissionJournal::Stage::accepted) {
        try {
            file(item, *account, entry->message);
        } catch (const MailError&) {
            // Sent; only its copy in Sent is missing.
        }
        return SentState::sent;
    }
    const auto& messageID = item.operation.sendPayload().message.messageID;
    if (!messageID || !services_.sent) return SentState::unknown;
    if (services_.sent(item.accountID)->contains(*messageID)) {
        journal_.record(item.id, SubmissionJournal::Stage::accepted, entry->message);
        if (const auto& draft = item.operation.sendPayload().draftID) store_.deleteDraft(*draft);
        return SentState::sent;
    }
    // Not in Sent: proof that it did not go out only where the provider
    // files every submitted message there itself.
    if (!account->providerFilesSent) return SentState::unknown;
    journal_.forget(item.id);
    return SentState::notSent;
}

}  // namespace mailcore
