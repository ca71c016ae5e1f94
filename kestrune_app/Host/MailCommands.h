// `kestrune search` and `kestrune show`: the mail held by Kestrune read from
// a terminal, with the handles agents get ("m123") and the query language
// of their search: words that must all match, "quoted phrases", and word
// prefixes ("budg*").
//
// Text from mail that reaches a terminal passes through the display-text
// rule, so that a message cannot move the cursor, clear the screen or fake
// lines; --json output is JSON (strings escaped), and `show --raw` writes
// the message's bytes as they are only when standard output is not a
// terminal.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "kestrune_app/Host/HostPaths.h"

namespace kestrune {

struct MailCommandIO {
    std::function<void(const std::string&)> out;  // one line, the line feed added
    std::function<void(const std::string&)> err;
    std::function<void(std::string_view)> write;  // bytes as they are
    bool terminal = false;                        // standard output is a terminal
};

struct SearchRequest {
    std::string text;  // may be empty: the newest messages
    std::optional<std::string> account;
    std::optional<std::string> folder;  // a role ("inbox", "sent", ...) or a folder path
    bool unreadOnly = false;
    std::int64_t limit = 50;  // 1 to 1000
    bool json = false;
};

// One line per message, best match first: date (local time), sender,
// subject, handle. No match prints nothing on standard output (with --json:
// "[]") and says so on standard error; that is still success. Throws
// HostError notFound for an unknown account or folder, failed when there
// is no mail store.
void searchMail(const SearchRequest& request, const HostPaths& paths, const MailCommandIO& io);

struct ShowRequest {
    std::string handle;
    bool raw = false;
    bool json = false;
};

// The message's headers and text body (or with `raw` its original bytes,
// see rawMessageSource). Throws HostError notFound when nothing matches the
// handle, invalidInput when it is not a handle.
void showMail(const ShowRequest& request, const HostPaths& paths, const MailCommandIO& io);

}  // namespace kestrune
