#include "MailCore/Store/MessageRows.h"

#include "MailCore/Store/StorageCodec.h"

namespace mailcore::storerows {

const char* const listColumns =
    "m.id, m.thread_id, m.account_id, m.folder_id, m.from_json, m.subject, m.snippet, m.date, "
    "m.flags_system, m.flags_keywords, m.has_attachments, m.local_state";

MessageListRow listRow(const SQLRow& row) {
    MessageListRow r;
    r.id = row.id<MessageID>(0);
    r.threadID = row.id<ThreadID>(1);
    r.accountID = AccountID(row.text(2));
    r.folderID = row.id<FolderID>(3);
    auto from = StorageCodec::decodeAddresses(row.text(4));
    if (!from.empty()) r.from = from.front();
    r.subject = row.text(5);
    r.snippet = row.optionalText(6);
    r.date = row.date(7);
    r.flags.system = row.int64(8);
    r.flags.keywords = StorageCodec::decodeStrings(row.text(9));
    r.hasAttachments = row.boolean(10);
    r.localState = localStateFromRaw(row.text(11));
    return r;
}

}  // namespace mailcore::storerows
