// The sanitizer's regular expressions, compiled once per process on first
// use (internal to MailCoreAI). Every pattern's work is bounded: either it is
// linear by construction, or its driver bounds it (see the token shapes in
// SecretRedaction.cpp), and every match attempt has PCRE2Pattern::matchLimit.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "MailCore/Common/PCRE2Pattern.h"

namespace mailcore {

struct SanitizerPatterns {
    PCRE2Pattern htmlHint;
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

}  // namespace mailcore
