// WorkflowStore: the workflows agents have proposed, kept in
// "workflows.json" inside a private directory (created with mode 0700; the
// file is written atomically with mode 0600 on every change, and read only
// when it is a regular file, never through a link).
//
// Agents reach it only through WorkflowToolHandler, which can add, replace,
// pause and delete the workflows of the calling harness. approve() and
// resume() are for the application alone, on the user's command: no tool
// calls them.
//
// Thread-safe: one lock guards the records and the file; callbacks passed to
// modify() and remove() run under it and must not call back into the store.
// A failed write throws MailError (storage, ioError) and leaves both the
// records in memory and the file as they were.
#pragma once

#include <cstddef>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "MailCore/Common/Clock.h"
#include "MailCore/Common/Json.h"
#include "MailCore/Common/PrivateFiles.h"
#include "MailCore/Workflow/WorkflowSpec.h"

namespace mailcore {

enum class WorkflowStatus { pendingApproval, active, paused };

// "pending_approval", "active", "paused".
std::string_view statusName(WorkflowStatus status);
std::optional<WorkflowStatus> statusNamed(std::string_view name);

struct StoredWorkflow {
    std::string id;          // upper-case UUID
    std::string author;      // the harness id that proposed it
    std::string authorName;  // that harness's display name when it proposed it
    WorkflowStatus status = WorkflowStatus::pendingApproval;
    bool approved = false;  // the user approved the current spec
    std::string risk;       // "low", "medium" or "high" (see WorkflowDescription.h)
    Date createdAt;
    Date updatedAt;
    WorkflowSpec spec;

    // Persisted form; times as seconds since 1970.
    Json toJson() const;
    // Throws WorkflowSpecReadError when the record cannot be read.
    static StoredWorkflow fromJson(const Json& json);
};

class WorkflowStore {
public:
    // Creates `directory` when missing (mode 0700) and loads "workflows.json"
    // from it. A file that cannot be read is moved aside to
    // "workflows.json.unreadable-<seconds>" (nothing is lost) and the store
    // starts empty; loadProblem() then says so. Throws MailError when the
    // directory cannot be created or is not a private directory of this user.
    explicit WorkflowStore(std::filesystem::path directory,
                           std::shared_ptr<const PrivateFiles> files = systemFiles());

    // A workflows file larger than this is not read (it is moved aside).
    static constexpr std::size_t maxFileBytes = 16 * 1024 * 1024;

    const std::filesystem::path& fileURL() const { return file_; }
    std::optional<std::string> loadProblem() const;

    std::vector<StoredWorkflow> all() const;
    std::vector<StoredWorkflow> byAuthor(const std::string& author) const;
    std::optional<StoredWorkflow> find(const std::string& id) const;
    std::size_t countByAuthor(const std::string& author) const;

    // Adds `workflow` unless its author already has `maxPerAuthor`
    // workflows; returns none when added, else that author's count.
    std::optional<std::size_t> insert(const StoredWorkflow& workflow, std::size_t maxPerAuthor);

    enum class Outcome { changed, unchanged, notFound };
    struct Change {
        Outcome outcome = Outcome::notFound;
        StoredWorkflow workflow;  // after the change (or as it was, when unchanged)
    };

    // Runs `change` on the workflow `id`; when it returns true the change is
    // saved. Returns notFound without calling it when there is no such id.
    Change modify(const std::string& id, const std::function<bool(StoredWorkflow&)>& change);

    // Removes the workflow `id` when `allow` returns true for it.
    Change remove(const std::string& id, const std::function<bool(const StoredWorkflow&)>& allow);

    // The user's decisions (application only). approve: the current spec may
    // run; the workflow becomes active. resume: an approved, paused workflow
    // becomes active again (unchanged when not approved). pause: stops it.
    Change approve(const std::string& id, Date now);
    Change resume(const std::string& id, Date now);
    Change pause(const std::string& id, Date now);
    Change removeByUser(const std::string& id);

private:
    void load();
    void save(const std::vector<StoredWorkflow>& records) const;  // caller holds lock_

    std::filesystem::path directory_;
    std::filesystem::path file_;
    std::shared_ptr<const PrivateFiles> files_;
    mutable std::mutex lock_;
    std::vector<StoredWorkflow> records_;     // guarded by lock_
    std::optional<std::string> loadProblem_;  // guarded by lock_
};

}  // namespace mailcore
