#include "MailCore/IMAP/IMAPCommand.h"

#include <algorithm>

#include "MailCore/Common/MailError.h"
#include "MailCore/IMAP/IMAPDate.h"
#include "MailCore/IMAP/IMAPQuote.h"

namespace mailcore {
namespace {

constexpr std::size_t literalMinusLimit = 4096;

MailError invalidArgument() {
    return MailError::protocolViolation(ProtocolIssueKind::invalidInput,
                                        "invalid command argument");
}

bool isASCII(std::string_view text) {
    return std::all_of(text.begin(), text.end(),
                       [](char c) { return static_cast<unsigned char>(c) < 0x80; });
}

}  // namespace

std::string IMAPCommand::mailboxName(std::string_view name, const IMAPCommandOptions& options) {
    if (!options.utf8) return IMAPQuote::mailbox(name);
    const bool control = name.empty() || std::any_of(name.begin(), name.end(), [](char c) {
                             const auto u = static_cast<unsigned char>(c);
                             return u < 32 || u == 127;
                         });
    auto quoted = control ? std::nullopt : IMAPQuote::quoted(name);
    if (!quoted) {
        throw MailError::protocolViolation(ProtocolIssueKind::invalidInput, "invalid mailbox name");
    }
    return *quoted;
}

IMAPWireCommand IMAPCommand::build(const std::string& tag,
                                   const std::vector<IMAPArgument>& arguments,
                                   const IMAPCommandOptions& options) {
    IMAPWireCommand wire;
    std::string current = tag;
    std::string trace = tag;
    bool glue = false;  // no space after an opening parenthesis
    for (const auto& argument : arguments) {
        const bool closing = argument.kind == IMAPArgument::Kind::atom && !argument.text.empty() &&
                             argument.text.front() == ')';
        if (!glue && !closing) {
            current += ' ';
            trace += ' ';
        }
        glue = argument.kind == IMAPArgument::Kind::atom && !argument.text.empty() &&
               argument.text.back() == '(';
        std::string shown;
        std::optional<std::string> literal;
        switch (argument.kind) {
            case IMAPArgument::Kind::atom:
                if (argument.text.empty() || argument.text.find_first_of(std::string_view(
                                                 "\r\n\0", 3)) != std::string::npos) {
                    throw invalidArgument();
                }
                shown = argument.text;
                break;
            case IMAPArgument::Kind::mailbox:
                shown = mailboxName(argument.text, options);
                break;
            case IMAPArgument::Kind::string: {
                auto quoted = IMAPQuote::quoted(argument.text);
                if (quoted && (options.utf8 || isASCII(argument.text)) && quoted->size() <= 1024) {
                    shown = *quoted;
                } else {
                    literal = argument.text;
                }
                break;
            }
            case IMAPArgument::Kind::literal:
                literal = argument.text;
                break;
        }
        if (!literal) {
            current += shown;
            trace += shown;
            continue;
        }
        if (literal->find('\0') != std::string::npos) throw invalidArgument();
        const bool nonSynchronising = options.literals == IMAPLiteralMode::literalPlus ||
                                      (options.literals == IMAPLiteralMode::literalMinus &&
                                       literal->size() <= literalMinusLimit);
        const std::string count = std::to_string(literal->size());
        current += "{" + count + (nonSynchronising ? "+" : "") + "}\r\n";
        trace += "{" + count + " bytes}";
        if (!nonSynchronising) {
            wire.segments.push_back(std::move(current));
            current.clear();
        }
        current += *literal;
    }
    current += "\r\n";
    wire.segments.push_back(std::move(current));
    wire.traceText = std::move(trace);
    return wire;
}

IMAPSearchCriteria IMAPSearchCriteria::all() {
    IMAPSearchCriteria criteria;
    criteria.arguments_.push_back(IMAPArgument::atom("ALL"));
    return criteria;
}

IMAPSearchCriteria& IMAPSearchCriteria::uids(const UIDSet& set) {
    arguments_.push_back(IMAPArgument::atom("UID"));
    arguments_.push_back(IMAPArgument::atom(set.imapString()));
    return *this;
}

IMAPSearchCriteria& IMAPSearchCriteria::header(std::string field, std::string value) {
    arguments_.push_back(IMAPArgument::atom("HEADER"));
    arguments_.push_back(IMAPArgument::string(std::move(field)));
    arguments_.push_back(IMAPArgument::string(std::move(value)));
    return *this;
}

IMAPSearchCriteria& IMAPSearchCriteria::since(Date date) {
    arguments_.push_back(IMAPArgument::atom("SINCE"));
    arguments_.push_back(IMAPArgument::atom(IMAPDate::searchDate(date)));
    return *this;
}

IMAPSearchCriteria& IMAPSearchCriteria::before(Date date) {
    arguments_.push_back(IMAPArgument::atom("BEFORE"));
    arguments_.push_back(IMAPArgument::atom(IMAPDate::searchDate(date)));
    return *this;
}

IMAPSearchCriteria& IMAPSearchCriteria::text(std::string value) {
    arguments_.push_back(IMAPArgument::atom("TEXT"));
    arguments_.push_back(IMAPArgument::string(std::move(value)));
    return *this;
}

IMAPSearchCriteria& IMAPSearchCriteria::keyword(std::string atoms) {
    std::size_t start = 0;
    while (start < atoms.size()) {
        std::size_t end = atoms.find(' ', start);
        if (end == std::string::npos) end = atoms.size();
        if (end > start) arguments_.push_back(IMAPArgument::atom(atoms.substr(start, end - start)));
        start = end + 1;
    }
    return *this;
}

bool IMAPSearchCriteria::needsCharset() const {
    return std::any_of(arguments_.begin(), arguments_.end(), [](const IMAPArgument& a) {
        return a.kind == IMAPArgument::Kind::string && !isASCII(a.text);
    });
}

}  // namespace mailcore
