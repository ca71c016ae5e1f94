// Small UTF-8 helpers for the IMAP encoders (internal to MailCoreIMAP).
#pragma once

#include <string>
#include <string_view>

namespace mailcore::utf8 {

// The scalar starting at `pos`, advancing `pos` past it. An invalid or
// truncated sequence yields U+FFFD and advances by one byte.
char32_t next(std::string_view text, std::size_t& pos);

// Appends the UTF-8 form of a scalar (surrogates and values above 0x10FFFF
// are written as U+FFFD).
void append(std::string& out, char32_t scalar);

// The text with every invalid sequence replaced by U+FFFD.
std::string repaired(std::string_view text);

}  // namespace mailcore::utf8
