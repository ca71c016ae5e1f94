#include "KestruneMCPKit/Installer/MCPJSONConfig.h"

#include <nlohmann/json.hpp>
#include <set>

#include "KestruneMCPKit/Installer/MCPInstallError.h"

namespace mcpkit::MCPJSONConfig {

using mailcore::Json;

namespace {

class NotPlain {};

[[noreturn]] void refuseShape() {
    throw MCPInstallError::unreadable(
        "not a plain JSON object (comments or a different shape); use the snippet");
}

std::string dotted(const std::vector<std::string>& keyPath, std::size_t count) {
    std::string out;
    for (std::size_t k = 0; k < count; ++k) {
        if (k > 0) out += '.';
        out += keyPath[k];
    }
    return out;
}

[[noreturn]] void refuseMember(const std::vector<std::string>& keyPath, std::size_t count) {
    throw MCPInstallError::unreadable("'" + dotted(keyPath, count) + "' is not an object");
}

// True when every number in the (already valid) JSON text is written back
// with the same bytes: a number that the parse would round or normalise
// ("123456789012345678901234567890", "-0", "1e5") would otherwise change in
// a file whose other parts the installer promises to keep.
bool numbersRoundTrip(std::string_view text) {
    for (std::size_t i = 0; i < text.size(); ++i) {
        const char c = text[i];
        if (c == '"') {
            for (++i; i < text.size() && text[i] != '"'; ++i) {
                if (text[i] == '\\') ++i;
            }
            continue;
        }
        if (c != '-' && (c < '0' || c > '9')) continue;
        std::size_t end = i;
        while (end < text.size() &&
               std::string_view("+-.eE0123456789").find(text[end]) != std::string_view::npos) {
            ++end;
        }
        const std::string_view number = text.substr(i, end - i);
        const bool plainInteger = number.size() <= 18 && number != "-0" &&
                                  number.find_first_not_of("-0123456789") == std::string_view::npos;
        if (!plainInteger && Json::parse(number).dump() != number) return false;
        i = end - 1;
    }
    return true;
}

}  // namespace

Json parse(std::string_view text) {
    if (text.find_first_not_of(" \t\r\n") == std::string_view::npos) return Json::object();
    // Member names seen so far in each open object, to refuse duplicates
    // (which a parse would otherwise silently collapse into one).
    std::vector<std::set<std::string>> open;
    auto watch = [&open](int depth, Json::parse_event_t event, Json& parsed) {
        if (depth > maxDepth) throw NotPlain();
        switch (event) {
            case Json::parse_event_t::object_start:
                open.emplace_back();
                break;
            case Json::parse_event_t::object_end:
                if (!open.empty()) open.pop_back();
                break;
            case Json::parse_event_t::key:
                if (open.empty() || !open.back().insert(parsed.get<std::string>()).second) {
                    throw NotPlain();
                }
                break;
            default:
                break;
        }
        return true;
    };
    Json root;
    try {
        root = Json::parse(text.begin(), text.end(), watch, true, false);
    } catch (const NotPlain&) {
        refuseShape();
    } catch (const nlohmann::json::exception&) {
        refuseShape();
    }
    if (!root.is_object()) refuseShape();
    if (!numbersRoundTrip(text)) {
        throw MCPInstallError::unreadable(
            "holds a number that would not be written back exactly as it is (very long, -0 or "
            "with an exponent); use the snippet");
    }
    return root;
}

bool install(Json& root, const std::vector<std::string>& keyPath, const std::string& name,
             const Json& value) {
    if (!root.is_object()) refuseShape();
    Json* current = &root;
    for (std::size_t k = 0; k < keyPath.size(); ++k) {
        auto found = current->find(keyPath[k]);
        if (found == current->end()) {
            current = &((*current)[keyPath[k]] = Json::object());
        } else if (found->is_object()) {
            current = &*found;
        } else {
            refuseMember(keyPath, k + 1);
        }
    }
    auto existing = current->find(name);
    if (existing != current->end() && sameValue(*existing, value)) return false;
    (*current)[name] = value;
    return true;
}

bool remove(Json& root, const std::vector<std::string>& keyPath, const std::string& name) {
    Json* current = &root;
    for (const std::string& key : keyPath) {
        if (!current->is_object()) return false;
        auto found = current->find(key);
        if (found == current->end()) return false;
        current = &*found;
    }
    if (!current->is_object()) return false;
    return current->erase(name) > 0;
}

std::optional<Json> entry(const Json& root, const std::vector<std::string>& keyPath,
                          const std::string& name) {
    if (!root.is_object()) refuseShape();
    const Json* current = &root;
    for (std::size_t k = 0; k < keyPath.size(); ++k) {
        auto found = current->find(keyPath[k]);
        if (found == current->end()) return std::nullopt;
        if (!found->is_object()) refuseMember(keyPath, k + 1);
        current = &*found;
    }
    auto found = current->find(name);
    if (found == current->end()) return std::nullopt;
    return *found;
}

std::string serialize(const Json& root) {
    try {
        return root.dump(2, ' ', false, nlohmann::json::error_handler_t::strict) + "\n";
    } catch (const nlohmann::json::exception&) {
        throw MCPInstallError::io("could not serialize");
    }
}

bool sameValue(const Json& a, const Json& b) {
    if (a.is_object() && b.is_object()) {
        if (a.size() != b.size()) return false;
        for (auto it = a.begin(); it != a.end(); ++it) {
            auto other = b.find(it.key());
            if (other == b.end() || !sameValue(it.value(), *other)) return false;
        }
        return true;
    }
    if (a.is_array() && b.is_array()) {
        if (a.size() != b.size()) return false;
        for (std::size_t k = 0; k < a.size(); ++k) {
            if (!sameValue(a[k], b[k])) return false;
        }
        return true;
    }
    return a == b;
}

}  // namespace mcpkit::MCPJSONConfig
