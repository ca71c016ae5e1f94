#include "MailCore/MIME/GMimeSupport.h"

#include <mutex>

namespace mailcore {

namespace {

std::mutex& setupLock() {
    static std::mutex lock;
    return lock;
}

bool initialised = false;                     // guarded by setupLock()
GMimeParserOptions* parserOptions = nullptr;  // guarded by setupLock()

}  // namespace

void ensureGMime() {
    std::lock_guard<std::mutex> guard(setupLock());
    if (initialised) return;
    g_mime_init();
    parserOptions = g_mime_parser_options_new();
    g_mime_parser_options_set_rfc2047_compliance_mode(parserOptions, GMIME_RFC_COMPLIANCE_LOOSE);
    g_mime_parser_options_set_address_compliance_mode(parserOptions, GMIME_RFC_COMPLIANCE_LOOSE);
    g_mime_parser_options_set_parameter_compliance_mode(parserOptions, GMIME_RFC_COMPLIANCE_LOOSE);
    g_mime_parser_options_set_allow_addresses_without_domain(parserOptions, TRUE);
    const char* fallbacks[] = {"utf-8", "windows-1252", nullptr};
    g_mime_parser_options_set_fallback_charsets(parserOptions, fallbacks);
    initialised = true;
}

void shutdownGMime() {
    std::lock_guard<std::mutex> guard(setupLock());
    if (!initialised) return;
    g_mime_parser_options_free(parserOptions);
    parserOptions = nullptr;
    g_mime_shutdown();
    initialised = false;
}

GMimeParserOptions* mimeParserOptions() {
    ensureGMime();
    std::lock_guard<std::mutex> guard(setupLock());
    return parserOptions;
}

}  // namespace mailcore
