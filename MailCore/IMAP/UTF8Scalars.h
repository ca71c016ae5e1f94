// Small UTF-8 helpers for the IMAP encoders (internal to MailCoreIMAP).
#pragma once

#include <string>
#include <string_view>

#include "MailCore/Common/UTF8.h"  // append

namespace mailcore::utf8 {

// The scalar starting at `pos`, advancing `pos` past it. An invalid or
// truncated sequence yields U+FFFD and advances by one byte.
char32_t next(std::string_view text, std::size_t& pos);

// The text with every invalid sequence replaced by U+FFFD.
std::string repaired(std::string_view text);

}  // namespace mailcore::utf8
