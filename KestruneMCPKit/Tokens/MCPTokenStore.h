// Where harness tokens are kept, keyed by harness id. Tokens never go into
// the policy state file; the policy store asks a token store for them.
//
// Implementations here: MCPMemoryTokenStore (process memory only) and
// MCPFileTokenStore (one JSON object from harness id to token, mode 0600).
// The keychain store (one generic-password item per harness) belongs to the
// macOS build and is not built on Linux; there the file store in the data
// directory serves until a Secret Service store exists.
//
// No operation throws: a token that cannot be read is absent, and a write
// that fails says why in its result. Every implementation serialises its operations on
// its own mutex, so it may be shared between threads.
#pragma once

#include <map>
#include <mutex>
#include <optional>
#include <string>

namespace mcpkit {

class MCPTokenStore {
public:
    virtual ~MCPTokenStore() = default;

    virtual std::optional<std::string> token(const std::string& id) = 0;
    // Stores or replaces the token of `id`. None when stored, else why not
    // (nothing changed then).
    [[nodiscard]] virtual std::optional<std::string> set(const std::string& token,
                                                         const std::string& id) = 0;
    // Deletes the token of `id` when present. None when done, else why not.
    [[nodiscard]] virtual std::optional<std::string> remove(const std::string& id) = 0;
};

class MCPMemoryTokenStore final : public MCPTokenStore {
public:
    MCPMemoryTokenStore() = default;

    std::optional<std::string> token(const std::string& id) override;
    std::optional<std::string> set(const std::string& token, const std::string& id) override;
    std::optional<std::string> remove(const std::string& id) override;

private:
    std::map<std::string, std::string> map_;  // guarded by lock_
    std::mutex lock_;
};

}  // namespace mcpkit
