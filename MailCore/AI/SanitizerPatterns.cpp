#include "MailCore/AI/SanitizerPatterns.h"

#define PCRE2_CODE_UNIT_WIDTH 8
#include <pcre2.h>

#include <algorithm>

namespace mailcore {

// The patterns are used exactly as written here; their quirks are part of
// the behaviour (the pixel pattern is case-sensitive and does not match an
// unquoted `width=1>`: the generic tag step removes such images anyway).
SanitizerPatterns::SanitizerPatterns()
    : htmlHint(
          R"((?i)<(?:!doctype\s+html\b|/?(?:html|head|body|div|p|br|hr|table|tbody|thead|td|th|tr|span|a|img|font|style|meta|center|strong|b|i|u|em|h[1-6]|ul|ol|li|blockquote|title|section|article|header|footer|pre|small|sup|sub)(?=[\s/>])[^<>]{0,2000}>))"),
      trackingPixel(
          R"(<img\b[^>]*?(?:(?:width|height)\s*=\s*["']?[0-2]["'\s/>]|display\s*:\s*none)[^>]*>)"),
      lineBreakTag(R"(<\s*(?:br|/p|/div|/li|/tr|/h[1-6]|hr)\b[^>]*>)"),
      anyTag(R"(</?[A-Za-z][^<>]{0,2000}>|<![A-Za-z][^<>]*>)"),
      dataURI(R"(data:[A-Za-z0-9.+/-]+;base64,[A-Za-z0-9+/=_-]{16,})"),
      base64Run(R"([A-Za-z0-9+/=]{60,})"),
      webAddress(R"((?i)\bhttps?://[^\s<>"'\])]+)"),
      trackingHost(
          R"((?i)^(?:click|clicks|track|tracking|trk|links?|email|e|go|r|t|u\d+|url\d+|elink\d*|tracking\d*|mandrillapp|sendgrid)\.|\.(?:list-manage|mandrillapp|sendgrid|mailchimp|hubspotlinks|hs-sites|exacttarget|rs6|rs\d+)\.|(?:\.|^)(?:ct\.sendgrid|clicks\.mlsend|links\.iterable|trk\.klclick))"),
      trackingPath(
          R"((?i)/(?:track|tracking|click|clicks|open|pixel|beacon|redirect|wf/click|e/c|ls/click)(?:/|$|\?))"),
      trackingParameter(
          R"((?i)(?:^|[?&])(?:utm_[a-z]+|fbclid|gclid|dclid|msclkid|mc_eid|mc_cid|mkt_tok|_hsenc|_hsmi|trk|trkid|trackingid|tracking_id|sg_uid|sid|cid|ref_?id|oly_enc_id|vero_id|s_cid)=)"),
      privateKey(R"(-----BEGIN [A-Z ]*PRIVATE KEY-----.*?(?:-----END [A-Z ]*PRIVATE KEY-----|\z))",
                 PCRE2_DOTALL),
      authorizationHeader(R"((?im)^(\s*(?:proxy-)?authorization\s*:)[ \t]*.+$)"),
      bearerCredential(R"((?i)\b(bearer|basic)[ \t]+[A-Za-z0-9._~+/=-]{8,})"),
      keyValueSecret(
          R"((?i)\b((?:api[_-]?key|access[_-]?token|refresh[_-]?token|auth[_-]?token|token|secret|client[_-]?secret|password|passwd|pwd)\s*[:=]\s*)["']?[^\s"',;]{4,}["']?)"),
      keyValueSecretAt(
          R"((?i)\b((?:api[_-]?key|access[_-]?token|refresh[_-]?token|auth[_-]?token|token|secret|client[_-]?secret|password|passwd|pwd)\s*[:=]\s*)["']?[^\s"',;]{4,}["']?)",
          PCRE2_ANCHORED),
      keyPrefixAt(
          R"((?i)\b(?:api[_-]?key|access[_-]?token|refresh[_-]?token|auth[_-]?token|token|secret|client[_-]?secret|password|passwd|pwd)\s*[:=]\s*)",
          PCRE2_ANCHORED),
      tokenShapeAt(
          R"(\b(?:sk-[A-Za-z0-9_-]{16,}|gh[pousr]_[A-Za-z0-9]{20,}|xox[abprs]-[A-Za-z0-9-]{10,}|AKIA[0-9A-Z]{16}|AIza[0-9A-Za-z_-]{30,}|eyJ[A-Za-z0-9_-]{8,}\.[A-Za-z0-9_-]{8,}\.[A-Za-z0-9_-]{8,})\b)",
          PCRE2_ANCHORED),
      wordBoundaryAt(R"(\b)", PCRE2_ANCHORED),
      cardNumber(R"((?<![0-9])[0-9](?:[ -]?[0-9]){12,18}(?![0-9]))") {}

const SanitizerPatterns& SanitizerPatterns::shared() {
    static const SanitizerPatterns patterns;
    return patterns;
}

std::string replaceAll(const PCRE2Pattern& pattern, std::string_view text, const Replacer& replace,
                       const FailureHandler& onFailure) {
    std::string out;
    out.reserve(text.size());
    std::size_t pos = 0;
    PCRE2Pattern::Match match;
    while (pos < text.size()) {
        auto outcome = pattern.search(text, pos, match);
        if (outcome == PCRE2Pattern::Outcome::noMatch) break;
        if (outcome == PCRE2Pattern::Outcome::failed) {
            std::size_t next = 0;
            if (onFailure) {
                next = onFailure(text, pos, out);
            } else {
                std::size_t lineEnd = text.find('\n', pos);
                next = lineEnd == std::string_view::npos ? text.size() : lineEnd + 1;
                out.append(text.substr(pos, next - pos));
            }
            if (next <= pos) {  // a handler that cannot go on: keep the rest
                out.append(text.substr(pos));
                return out;
            }
            pos = next;
            continue;
        }
        out.append(text.substr(pos, match.start - pos));
        if (match.end == match.start) {
            // No pattern here matches empty text; step over it all the same.
            if (match.start < text.size()) out.push_back(text[match.start]);
            pos = match.start + 1;
            continue;
        }
        if (Replacement replacement = replace(match)) {
            out.append(*replacement);
        } else {
            out.append(text.substr(match.start, match.end - match.start));
        }
        pos = match.end;
    }
    if (pos < text.size()) out.append(text.substr(pos));
    return out;
}

}  // namespace mailcore
