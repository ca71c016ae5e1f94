// The sanitizer's regular expressions, compiled once per process on first
// use (internal to MailCoreAI). Every pattern's work is bounded: either it is
// linear by construction, or its driver bounds it (see the token shapes in
// SecretRedaction.cpp), and every match attempt has PCRE2Pattern::matchLimit.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "MailCore/AI/PCRE2Pattern.h"

namespace mailcore {

struct SanitizerPatterns {
    PCRE2Pattern htmlHint;
    PCRE2Pattern trackingPixel;
    PCRE2Pattern lineBreakTag;
    PCRE2Pattern anyTag;
    PCRE2Pattern dataURI;
    PCRE2Pattern base64Run;
    PCRE2Pattern webAddress;
    PCRE2Pattern trackingHost;
    PCRE2Pattern trackingPath;
    PCRE2Pattern trackingParameter;
    PCRE2Pattern privateKey;
    PCRE2Pattern authorizationHeader;
    PCRE2Pattern bearerCredential;
    PCRE2Pattern keyValueSecret;
    PCRE2Pattern keyValueSecretAt;  // the same, anchored
    PCRE2Pattern keyPrefixAt;       // its key and separator alone, anchored
    PCRE2Pattern tokenShapeAt;      // anchored
    PCRE2Pattern wordBoundaryAt;    // anchored
    PCRE2Pattern cardNumber;

    static const SanitizerPatterns& shared();

private:
    SanitizerPatterns();
};

// What a replacement callback returns: the text to write instead of the
// match, or nothing to keep the match as it is.
using Replacement = std::optional<std::string>;
using Replacer = std::function<Replacement(const PCRE2Pattern::Match&)>;

// Every non-overlapping match, left to right, handed to `replace`. When a
// match attempt fails (match limit), `onFailure` is asked where to go on: it
// gets the text and the offset where the search started, may append to `out`
// what the text from that offset becomes up to the returned offset, and the
// search resumes there. The default copies the rest of the line unchanged.
using FailureHandler =
    std::function<std::size_t(std::string_view text, std::size_t from, std::string& out)>;
std::string replaceAll(const PCRE2Pattern& pattern, std::string_view text, const Replacer& replace,
                       const FailureHandler& onFailure = {});

}  // namespace mailcore
