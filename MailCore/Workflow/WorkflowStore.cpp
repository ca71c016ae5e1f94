#include "MailCore/Workflow/WorkflowStore.h"

#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <cstring>
#include <nlohmann/json.hpp>

#include "MailCore/Common/MailError.h"
#include "MailCore/Workflow/WorkflowText.h"

namespace mailcore {

namespace {

constexpr int storeFormatVersion = 1;

[[noreturn]] void ioFailure(const std::string& what) {
    throw MailError::storage(StorageFailureKind::ioError, what + ": " + std::strerror(errno));
}

std::string requireText(const Json& json, const char* key) {
    const auto it = json.find(key);
    if (it == json.end() || !it->is_string()) {
        throw WorkflowSpecReadError(std::string("stored workflow has no ") + key);
    }
    return it->get<std::string>();
}

Date requireDate(const Json& json, const char* key) {
    const auto it = json.find(key);
    if (it == json.end() || !it->is_number() || !std::isfinite(it->get<double>())) {
        throw WorkflowSpecReadError(std::string("stored workflow has no ") + key);
    }
    return dateFromSeconds(it->get<double>());
}

// Creates the directory (mode 0700) and checks that it is a real directory
// of this user; removes group and other permission bits.
void preparePrivateDirectory(const std::filesystem::path& dir) {
    std::error_code error;
    std::filesystem::create_directories(dir, error);
    struct stat info {};
    if (::lstat(dir.c_str(), &info) != 0) ioFailure("cannot create workflow directory");
    if (!S_ISDIR(info.st_mode) || info.st_uid != ::getuid()) {
        throw MailError::storage(StorageFailureKind::ioError,
                                 "workflow directory is not a private directory of this user");
    }
    if ((info.st_mode & 0777) != 0700 && ::chmod(dir.c_str(), 0700) != 0) {
        ioFailure("cannot make workflow directory private");
    }
}

}  // namespace

std::string_view statusName(WorkflowStatus status) {
    switch (status) {
        case WorkflowStatus::pendingApproval:
            return "pending_approval";
        case WorkflowStatus::active:
            return "active";
        case WorkflowStatus::paused:
            return "paused";
    }
    return "paused";
}

std::optional<WorkflowStatus> statusNamed(std::string_view name) {
    if (name == "pending_approval") return WorkflowStatus::pendingApproval;
    if (name == "active") return WorkflowStatus::active;
    if (name == "paused") return WorkflowStatus::paused;
    return std::nullopt;
}

Json StoredWorkflow::toJson() const {
    Json out = Json::object();
    out["id"] = id;
    out["author"] = author;
    out["authorName"] = authorName;
    out["status"] = statusName(status);
    out["approved"] = approved;
    out["risk"] = risk;
    out["createdAt"] = secondsSince1970(createdAt);
    out["updatedAt"] = secondsSince1970(updatedAt);
    out["spec"] = spec.toJson();
    return out;
}

StoredWorkflow StoredWorkflow::fromJson(const Json& json) {
    if (!json.is_object()) throw WorkflowSpecReadError("stored workflow is not an object");
    StoredWorkflow w;
    w.id = requireText(json, "id");
    w.author = requireText(json, "author");
    if (json.contains("authorName") && json["authorName"].is_string()) {
        w.authorName = json["authorName"].get<std::string>();
    }
    const auto status = statusNamed(requireText(json, "status"));
    if (!status) throw WorkflowSpecReadError("stored workflow has an unknown status");
    w.status = *status;
    const auto approved = json.find("approved");
    if (approved == json.end() || !approved->is_boolean()) {
        throw WorkflowSpecReadError("stored workflow has no approved flag");
    }
    w.approved = approved->get<bool>();
    w.risk = requireText(json, "risk");
    w.createdAt = requireDate(json, "createdAt");
    w.updatedAt = requireDate(json, "updatedAt");
    const auto spec = json.find("spec");
    if (spec == json.end()) throw WorkflowSpecReadError("stored workflow has no spec");
    w.spec = WorkflowSpec::fromJson(*spec);
    return w;
}

WorkflowStore::WorkflowStore(std::filesystem::path directory,
                             std::shared_ptr<const PrivateFiles> files)
    : directory_(std::move(directory)),
      file_(directory_ / "workflows.json"),
      files_(std::move(files)) {
    preparePrivateDirectory(directory_);
    load();
}

void WorkflowStore::load() {
    const FileRead file = files_->read(file_, maxFileBytes);
    if (file.missing()) return;  // no file yet: no workflows
    try {
        if (file.refused()) throw WorkflowSpecReadError("it " + file.problem);
        Json json;
        if (!tryParseJson(file.bytes, json) || !json.is_object()) {
            throw WorkflowSpecReadError("not a JSON object");
        }
        const auto list = json.find("workflows");
        if (list == json.end() || !list->is_array())
            throw WorkflowSpecReadError("no workflows list");
        std::vector<StoredWorkflow> records;
        for (const Json& record : *list) records.push_back(StoredWorkflow::fromJson(record));
        records_ = std::move(records);
    } catch (const std::exception& error) {
        const auto now = static_cast<long long>(secondsSince1970(systemClock()()));
        const auto aside = directory_ / fmt::format("workflows.json.unreadable-{}", now);
        std::error_code ignored;
        std::filesystem::rename(file_, aside, ignored);
        loadProblem_ =
            fmt::format("The saved workflows could not be read ({}); the file was kept as {}.",
                        workflowtext::displayText(error.what(), 120), aside.filename().string());
        records_.clear();
    }
}

void WorkflowStore::save(const std::vector<StoredWorkflow>& records) const {
    Json list = Json::array();
    for (const StoredWorkflow& w : records) list.push_back(w.toJson());
    Json document = Json::object();
    document["version"] = storeFormatVersion;
    document["workflows"] = std::move(list);
    const std::string text =
        document.dump(2, ' ', false, nlohmann::json::error_handler_t::replace) + "\n";
    std::string error;
    if (!files_->writeAtomically(file_, text, &error)) {
        throw MailError::storage(StorageFailureKind::ioError,
                                 "cannot save " + file_.string() + ": " + error);
    }
}

std::optional<std::string> WorkflowStore::loadProblem() const {
    std::lock_guard guard(lock_);
    return loadProblem_;
}

std::vector<StoredWorkflow> WorkflowStore::all() const {
    std::lock_guard guard(lock_);
    return records_;
}

std::vector<StoredWorkflow> WorkflowStore::byAuthor(const std::string& author) const {
    std::lock_guard guard(lock_);
    std::vector<StoredWorkflow> out;
    for (const StoredWorkflow& w : records_) {
        if (w.author == author) out.push_back(w);
    }
    return out;
}

std::optional<StoredWorkflow> WorkflowStore::find(const std::string& id) const {
    std::lock_guard guard(lock_);
    for (const StoredWorkflow& w : records_) {
        if (w.id == id) return w;
    }
    return std::nullopt;
}

std::size_t WorkflowStore::countByAuthor(const std::string& author) const {
    std::lock_guard guard(lock_);
    std::size_t count = 0;
    for (const StoredWorkflow& w : records_) count += w.author == author ? 1 : 0;
    return count;
}

std::optional<std::size_t> WorkflowStore::insert(const StoredWorkflow& workflow,
                                                 std::size_t maxPerAuthor) {
    std::lock_guard guard(lock_);
    std::size_t count = 0;
    for (const StoredWorkflow& w : records_) count += w.author == workflow.author ? 1 : 0;
    if (count >= maxPerAuthor) return count;
    std::vector<StoredWorkflow> next = records_;
    next.push_back(workflow);
    save(next);
    records_ = std::move(next);
    return std::nullopt;
}

WorkflowStore::Change WorkflowStore::modify(const std::string& id,
                                            const std::function<bool(StoredWorkflow&)>& change) {
    std::lock_guard guard(lock_);
    for (std::size_t i = 0; i < records_.size(); ++i) {
        if (records_[i].id != id) continue;
        StoredWorkflow updated = records_[i];
        if (!change(updated)) return {Outcome::unchanged, records_[i]};
        std::vector<StoredWorkflow> next = records_;
        next[i] = updated;
        save(next);
        records_ = std::move(next);
        return {Outcome::changed, std::move(updated)};
    }
    return {};
}

WorkflowStore::Change WorkflowStore::remove(
    const std::string& id, const std::function<bool(const StoredWorkflow&)>& allow) {
    std::lock_guard guard(lock_);
    for (std::size_t i = 0; i < records_.size(); ++i) {
        if (records_[i].id != id) continue;
        if (!allow(records_[i])) return {Outcome::unchanged, records_[i]};
        std::vector<StoredWorkflow> next = records_;
        next.erase(next.begin() + static_cast<std::ptrdiff_t>(i));
        save(next);
        StoredWorkflow removed = std::move(records_[i]);
        records_ = std::move(next);
        return {Outcome::changed, std::move(removed)};
    }
    return {};
}

WorkflowStore::Change WorkflowStore::approve(const std::string& id, Date now) {
    return modify(id, [&](StoredWorkflow& w) {
        if (w.approved && w.status == WorkflowStatus::active) return false;
        w.approved = true;
        w.status = WorkflowStatus::active;
        w.updatedAt = now;
        return true;
    });
}

WorkflowStore::Change WorkflowStore::resume(const std::string& id, Date now) {
    return modify(id, [&](StoredWorkflow& w) {
        if (!w.approved || w.status != WorkflowStatus::paused) return false;
        w.status = WorkflowStatus::active;
        w.updatedAt = now;
        return true;
    });
}

WorkflowStore::Change WorkflowStore::pause(const std::string& id, Date now) {
    return modify(id, [&](StoredWorkflow& w) {
        if (w.status == WorkflowStatus::paused) return false;
        w.status = WorkflowStatus::paused;
        w.updatedAt = now;
        return true;
    });
}

WorkflowStore::Change WorkflowStore::removeByUser(const std::string& id) {
    return remove(id, [](const StoredWorkflow&) { return true; });
}

}  // namespace mailcore
