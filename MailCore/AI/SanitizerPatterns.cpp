#include "MailCore/AI/SanitizerPatterns.h"

#include <algorithm>

namespace mailcore {

// The patterns are used exactly as written here; their quirks are part of
// the behaviour.
SanitizerPatterns::SanitizerPatterns()
    : htmlHint(
          R"((?i)<(?:!doctype\s+html\b|/?(?:html|head|body|div|p|br|hr|table|tbody|thead|td|th|tr|span|a|img|font|style|meta|center|strong|b|i|u|em|h[1-6]|ul|ol|li|blockquote|title|section|article|header|footer|pre|small|sup|sub)(?=[\s/>])[^<>]{0,2000}>))"),
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
                 PCRE2Pattern::optionDotAll),
      authorizationHeader(R"((?im)^(\s*(?:proxy-)?authorization\s*:)[ \t]*.+$)"),
      bearerCredential(R"((?i)\b(bearer|basic)[ \t]+[A-Za-z0-9._~+/=-]{8,})"),
      keyValueSecret(
          R"((?i)\b((?:api[_-]?key|access[_-]?token|refresh[_-]?token|auth[_-]?token|token|secret|client[_-]?secret|password|passwd|pwd)\s*[:=]\s*)["']?[^\s"',;]{4,}["']?)"),
      keyValueSecretAt(
          R"((?i)\b((?:api[_-]?key|access[_-]?token|refresh[_-]?token|auth[_-]?token|token|secret|client[_-]?secret|password|passwd|pwd)\s*[:=]\s*)["']?[^\s"',;]{4,}["']?)",
          PCRE2Pattern::optionAnchored),
      keyPrefixAt(
          R"((?i)\b(?:api[_-]?key|access[_-]?token|refresh[_-]?token|auth[_-]?token|token|secret|client[_-]?secret|password|passwd|pwd)\s*[:=]\s*)",
          PCRE2Pattern::optionAnchored),
      tokenShapeAt(
          R"(\b(?:sk-[A-Za-z0-9_-]{16,}|gh[pousr]_[A-Za-z0-9]{20,}|xox[abprs]-[A-Za-z0-9-]{10,}|AKIA[0-9A-Z]{16}|AIza[0-9A-Za-z_-]{30,}|eyJ[A-Za-z0-9_-]{8,}\.[A-Za-z0-9_-]{8,}\.[A-Za-z0-9_-]{8,})\b)",
          PCRE2Pattern::optionAnchored),
      wordBoundaryAt(R"(\b)", PCRE2Pattern::optionAnchored),
      cardNumber(R"((?<![0-9])[0-9](?:[ -]?[0-9]){12,18}(?![0-9]))") {}

const SanitizerPatterns& SanitizerPatterns::shared() {
    static const SanitizerPatterns patterns;
    return patterns;
}

}  // namespace mailcore
