#include "kestrune_app/Host/RawMessageSource.h"

#include <fcntl.h>
#include <glib.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>
#include <unordered_map>

#include "MailCore/Common/Json.h"
#include "MailCore/MIME/MailSources.h"
#include "kestrune_app/Host/HostError.h"
#include "kestrune_app/Host/HostSync.h"

namespace kestrune {

using namespace mailcore;
namespace fs = std::filesystem;

namespace {

// A file's bytes mapped read-only (empty when it cannot be).
class MappedBytes {
public:
    explicit MappedBytes(const fs::path& file) {
        const int fd = ::open(file.c_str(), O_RDONLY | O_CLOEXEC);
        if (fd < 0) return;
        struct stat info {};
        if (::fstat(fd, &info) == 0 && info.st_size > 0) {
            void* at = ::mmap(nullptr, static_cast<std::size_t>(info.st_size), PROT_READ,
                              MAP_PRIVATE, fd, 0);
            if (at != MAP_FAILED) {
                data_ = static_cast<const char*>(at);
                size_ = static_cast<std::size_t>(info.st_size);
            }
        }
        ::close(fd);
    }
    ~MappedBytes() {
        if (data_) ::munmap(const_cast<char*>(data_), size_);
    }
    MappedBytes(const MappedBytes&) = delete;
    MappedBytes& operator=(const MappedBytes&) = delete;
    std::string_view view() const { return {data_ ? data_ : "", size_}; }

private:
    const char* data_ = nullptr;
    std::size_t size_ = 0;
};

std::string settingKey(const std::string& account) { return "import_sources." + account; }

Json importSources(SQLiteMailStore& store, const std::string& account) {
    const auto blob = store.setting(settingKey(account));
    Json list;
    if (!blob || !tryParseJson(std::string(blob->begin(), blob->end()), list) || !list.is_array())
        return Json::array();
    return list;
}

HostError unavailable(const std::string& why) {
    return HostError(HostError::Kind::notFound,
                     "The original of this message cannot be read: " + why + ".");
}

std::optional<std::string> fromServer(const std::shared_ptr<SQLiteMailStore>& store,
                                      const HostPaths& paths, const MessageIndexFields& fields,
                                      const FolderRecord& folder) {
    auto session = serverIMAPSessions(store, paths)(fields.accountID);
    if (!session) return std::nullopt;  // not a server account
    IMAPSelectOptions examine;
    examine.readOnly = true;
    const auto selected = session->select(folder.path, examine);
    if (!folder.cursor.uidValidity || selected.uidValidity != folder.cursor.uidValidity->value)
        throw unavailable("the folder " + folder.path +
                          " changed on the server since the last sync (run kestrune sync)");
    IMAPFetchRequest request;
    request.sections = {""};
    std::optional<std::string> raw;
    session->fetch(UIDSet::fromUIDs({fields.uid->value}), request, [&](const IMAPFetchData& d) {
        if (const std::string* section = d.section(""); section && d.uid == fields.uid->value)
            raw = *section;
    });
    session->logout();
    if (!raw) throw unavailable("the server no longer has it in " + folder.path);
    return raw;
}

// The import ledger's key of the message, none when it was not imported.
std::optional<std::string> ledgerKey(SQLiteMailStore& store, const MessageIndexFields& fields) {
    std::optional<std::string> key;
    store.read([&](SQLiteDatabase& db) {
        if (!db.scalarInt("SELECT COUNT(*) FROM sqlite_master WHERE name = 'import_sources'", {})
                 .value_or(0))
            return;
        key = db.queryOne<std::string>(
            "SELECT source_key FROM import_sources WHERE folder_id = ? AND uid = ?",
            {fields.folderID, static_cast<std::int64_t>(fields.uid->value)},
            [](const SQLRow& row) { return row.text(0); });
    });
    return key;
}

std::optional<std::string> fromMaildir(const fs::path& root, const FolderRecord& folder,
                                       const std::string& key) {
    if (!fs::is_directory(root)) return std::nullopt;
    for (const auto& f : findMaildirFolders(root)) {
        if (f.path != folder.path) continue;
        for (const auto& m : listMaildirMessages(f.directory)) {
            if (m.uniqueName != key) continue;
            std::ifstream in(m.file, std::ios::binary);
            std::ostringstream bytes;
            if (in && (bytes << in.rdbuf())) return bytes.str();
        }
    }
    return std::nullopt;
}

std::optional<std::string> fromMbox(const fs::path& file, const std::string& key) {
    const auto hash = key.find('#');
    if (!key.starts_with("sha1:") || hash == std::string::npos || !fs::is_regular_file(file))
        return std::nullopt;
    const std::string wanted = key.substr(5, hash - 5);
    const std::string copy = key.substr(hash + 1);
    const MappedBytes mapped(file);
    const std::string_view data = mapped.view();
    std::unordered_map<std::string, int> copies;
    for (const auto& m : splitMbox(data)) {
        gchar* digest = g_compute_checksum_for_data(
            G_CHECKSUM_SHA1, reinterpret_cast<const guchar*>(data.data() + m.offset), m.length);
        const std::string hex = digest ? digest : "";
        g_free(digest);
        if (hex == wanted && std::to_string(copies[hex]++) == copy) return mboxMessageText(data, m);
    }
    return std::nullopt;
}

}  // namespace

std::string rawMessageSource(const std::shared_ptr<SQLiteMailStore>& store, const HostPaths& paths,
                             MessageID id) {
    const auto fields = store->messageFields(id);
    const auto folder = fields ? store->folder(fields->folderID) : std::nullopt;
    if (!fields || !folder || !fields->uid)
        throw unavailable("it was written here and never came from a server or a file");
    if (auto raw = fromServer(store, paths, *fields, *folder)) return *raw;
    const auto key = ledgerKey(*store, *fields);
    if (!key) throw unavailable("Kestrune does not know where it came from");
    for (const auto& source : importSources(*store, fields->accountID.value)) {
        std::optional<std::string> raw;
        if (source.contains("maildir") && source["maildir"].is_string())
            raw = fromMaildir(source["maildir"].get<std::string>(), *folder, *key);
        else if (source.contains("mbox") && source["mbox"].is_string())
            raw = fromMbox(source["mbox"].get<std::string>(), *key);
        if (raw) return *raw;
    }
    throw unavailable("it is no longer in the Maildir or mbox it was imported from");
}

void rememberImportSource(SQLiteMailStore& store, const std::string& account,
                          const fs::path& source, bool mbox) {
    Json entry{{mbox ? "mbox" : "maildir", fs::absolute(source).lexically_normal().string()}};
    Json list = importSources(store, account);
    for (const auto& e : list)
        if (e == entry) return;
    list.push_back(entry);
    const std::string text = encodeJson(list);
    store.setSetting(settingKey(account), Blob(text.begin(), text.end()));
}

}  // namespace kestrune
