#include "MailCore/Common/CaseFolding.h"

#include <glib.h>

#include <memory>

#include "MailCore/Common/UTF8.h"

namespace mailcore {
namespace {

char lowerByte(char c) { return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c; }

struct GFree {
    void operator()(gchar* p) const { g_free(p); }
};
using GString = std::unique_ptr<gchar, GFree>;

std::string foldPiece(std::string_view text);

}  // namespace

std::string asciiLower(std::string_view text) {
    std::string out(text);
    for (char& c : out) c = lowerByte(c);
    return out;
}

bool equalsNoCase(std::string_view a, std::string_view b) {
    return a.size() == b.size() && startsWithNoCase(a, 0, b);
}

bool startsWithNoCase(std::string_view text, std::size_t at, std::string_view prefix) {
    if (at > text.size() || text.size() - at < prefix.size()) return false;
    for (std::size_t i = 0; i < prefix.size(); ++i) {
        if (lowerByte(text[at + i]) != lowerByte(prefix[i])) return false;
    }
    return true;
}

std::string foldCase(std::string_view text) {
    // GLib reads up to a NUL: fold the pieces between NULs one by one.
    if (text.find('\0') != std::string_view::npos) {
        std::string out;
        std::size_t start = 0;
        for (std::size_t nul; (nul = text.find('\0', start)) != std::string_view::npos;
             start = nul + 1) {
            out += foldPiece(text.substr(start, nul - start));
            out += '\0';
        }
        return out + foldPiece(text.substr(start));
    }
    return foldPiece(text);
}

namespace {

std::string foldPiece(std::string_view text) {
    bool ascii = true;
    for (char c : text) ascii = ascii && static_cast<unsigned char>(c) < 0x80;
    if (ascii) return asciiLower(text);
    const std::string valid = utf8::repaired(text);
    // Canonical caseless matching: decompose, fold, then compose again so
    // the key is short and in the form most text already has.
    GString decomposed(
        g_utf8_normalize(valid.data(), static_cast<gssize>(valid.size()), G_NORMALIZE_NFD));
    if (!decomposed) return asciiLower(valid);
    GString folded(g_utf8_casefold(decomposed.get(), -1));
    if (!folded) return asciiLower(valid);
    GString composed(g_utf8_normalize(folded.get(), -1, G_NORMALIZE_NFC));
    return composed ? std::string(composed.get()) : std::string(folded.get());
}

}  // namespace

}  // namespace mailcore
