// Internal to the store: the columns of a message list row and their
// decoding, shared by lists, thread messages and search.
#pragma once

#include "MailCore/Store/MessageRecords.h"
#include "MailCore/Store/SQLiteDatabase.h"

namespace mailcore::storerows {

// "m.id, m.thread_id, ..., m.local_state" (12 columns).
extern const char* const listColumns;

// Decodes the 12 list columns starting at column 0.
MessageListRow listRow(const SQLRow& row);

}  // namespace mailcore::storerows
