// Reading local mail stores: Maildir trees and mbox files. These functions
// only find messages and their flags; MailImporter files them into the store.
//
// Maildir: a directory with cur/ and new/ is one folder. The root, if it is
// one, is "INBOX"; Maildir++ sub-folders (".Sent", ".Work.2024" directly in
// the root) keep their dotted names with "." as delimiter; other nested
// folders ("Archive/2024") are named by their relative path with "/" as
// delimiter. tmp/ is never read (messages there are still being delivered).
//
// mbox: messages start at a line beginning with "From " at the start of the
// file, or after an empty line when the line also carries a time ("hh:mm"),
// as every separator line does; ">From " lines (any number of ">") lose one
// ">" when a message is read (mboxrd). Status and X-Status headers give flags.
//
// All functions are thread-safe; they read the file system only.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "MailCore/Store/StoreTypes.h"

namespace mailcore {

struct MaildirFolderSource {
    std::string path;  // the folder's name in the store
    std::optional<std::string> delimiter;
    FolderRole role = FolderRole::custom;
    std::filesystem::path directory;
};

struct MaildirMessageSource {
    // The file name up to the info separator: stays the same when another
    // program changes the message's flags (and so its file name).
    std::string uniqueName;
    std::filesystem::path file;
    MessageFlags flags;
};

// The role a folder's name suggests ("Sent Items" -> sent, "Spam" -> junk).
FolderRole folderRoleForName(std::string_view name);

// Every folder of the Maildir tree under `root`, the root first, then in
// name order. Symbolic links are not followed. Throws MailError::storage(
// ioError, "cannot read maildir <path>") when `root` is not a directory.
std::vector<MaildirFolderSource> findMaildirFolders(const std::filesystem::path& root);

// The messages in cur/ and new/ of one folder, by unique name.
std::vector<MaildirMessageSource> listMaildirMessages(const std::filesystem::path& folder);

// Flags from a Maildir file name: the letters after ":2," (or "!2,", used
// where ":" cannot appear in file names): D draft, F flagged, P forwarded
// (keyword "$Forwarded"), R answered, S seen, T deleted. Files in new/ have
// none.
MessageFlags flagsFromMaildirName(std::string_view fileName);

struct MboxMessageSource {
    std::uint64_t offset = 0;          // of the message's first header line
    std::uint64_t length = 0;          // up to, not including, the next "From " line
    std::optional<Date> internalDate;  // from the "From " line
    MessageFlags flags;
};

// Splits mbox text into messages. Text before the first "From " line is
// taken as one message when it looks like headers.
std::vector<MboxMessageSource> splitMbox(std::string_view data);

// One message's text from the mbox: ">From " quoting removed.
std::string mboxMessageText(std::string_view data, const MboxMessageSource& source);

}  // namespace mailcore
