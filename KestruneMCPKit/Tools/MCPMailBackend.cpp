#include "KestruneMCPKit/Tools/MCPMailBackend.h"

#include <nlohmann/json.hpp>

namespace mcpkit {

using mailcore::Json;

const char* toString(MCPSendDelivery delivery) {
    switch (delivery) {
        case MCPSendDelivery::sent:
            return "sent";
        case MCPSendDelivery::undone:
            return "undone";
        case MCPSendDelivery::failed:
            return "failed";
    }
    return "failed";
}

namespace {

template <typename T>
void readOptional(const Json& json, const char* key, std::optional<T>& out) {
    auto it = json.find(key);
    if (it == json.end() || it->is_null()) {
        out.reset();
    } else {
        out = it->template get<T>();
    }
}

}  // namespace

void to_json(Json& json, const MCPAccount& v) {
    json = Json{{"email", v.email}, {"label", v.label}};
}
void from_json(const Json& json, MCPAccount& v) {
    json.at("email").get_to(v.email);
    json.at("label").get_to(v.label);
}

void to_json(Json& json, const MCPFolder& v) {
    json = Json{{"id", v.id}, {"name", v.name}, {"unread", v.unread}};
}
void from_json(const Json& json, MCPFolder& v) {
    json.at("id").get_to(v.id);
    json.at("name").get_to(v.name);
    json.at("unread").get_to(v.unread);
}

void to_json(Json& json, const MCPSearchQuery& v) {
    json = Json{{"accounts", v.accounts}, {"text", v.text}};
    if (v.folder) json["folder"] = *v.folder;
    if (v.from) json["from"] = *v.from;
    json["unreadOnly"] = v.unreadOnly;
    json["limit"] = v.limit;
    json["offset"] = v.offset;
}
void from_json(const Json& json, MCPSearchQuery& v) {
    json.at("accounts").get_to(v.accounts);
    json.at("text").get_to(v.text);
    readOptional(json, "folder", v.folder);
    readOptional(json, "from", v.from);
    json.at("unreadOnly").get_to(v.unreadOnly);
    json.at("limit").get_to(v.limit);
    json.at("offset").get_to(v.offset);
}

void to_json(Json& json, const MCPMessageSummary& v) {
    json = Json{{"id", v.id},           {"account", v.account}, {"folder", v.folder},
                {"from", v.from},       {"subject", v.subject}, {"date", v.date},
                {"snippet", v.snippet}, {"unread", v.unread}};
}
void from_json(const Json& json, MCPMessageSummary& v) {
    json.at("id").get_to(v.id);
    json.at("account").get_to(v.account);
    json.at("folder").get_to(v.folder);
    json.at("from").get_to(v.from);
    json.at("subject").get_to(v.subject);
    json.at("date").get_to(v.date);
    json.at("snippet").get_to(v.snippet);
    json.at("unread").get_to(v.unread);
}

void to_json(Json& json, const MCPSearchPage& v) {
    json = Json{{"results", v.results}, {"total", v.total}};
}
void from_json(const Json& json, MCPSearchPage& v) {
    json.at("results").get_to(v.results);
    json.at("total").get_to(v.total);
}

void to_json(Json& json, const MCPAttachment& v) {
    json = Json{{"name", v.name}, {"type", v.type}};
}
void from_json(const Json& json, MCPAttachment& v) {
    json.at("name").get_to(v.name);
    json.at("type").get_to(v.type);
}

void to_json(Json& json, const MCPMessage& v) {
    json = Json{{"id", v.id},
                {"account", v.account},
                {"from", v.from},
                {"to", v.to},
                {"cc", v.cc},
                {"date", v.date},
                {"subject", v.subject},
                {"bodyText", v.bodyText},
                {"attachments", v.attachments}};
}
void from_json(const Json& json, MCPMessage& v) {
    json.at("id").get_to(v.id);
    json.at("account").get_to(v.account);
    json.at("from").get_to(v.from);
    json.at("to").get_to(v.to);
    json.at("cc").get_to(v.cc);
    json.at("date").get_to(v.date);
    json.at("subject").get_to(v.subject);
    json.at("bodyText").get_to(v.bodyText);
    json.at("attachments").get_to(v.attachments);
}

void to_json(Json& json, const MCPOutgoing& v) {
    json = Json{{"account", v.account},
                {"to", v.to},
                {"cc", v.cc},
                {"subject", v.subject},
                {"body", v.body}};
    if (v.fromDraft) {
        Json attachments = Json::array();
        for (const auto& [name, size] : v.fromDraft->attachments)
            attachments.push_back(Json{{"name", name}, {"size", size}});
        json["fromDraft"] = Json{{"id", v.fromDraft->id},
                                 {"bcc", v.fromDraft->bcc},
                                 {"replyTo", v.fromDraft->replyTo},
                                 {"attachments", attachments}};
        if (v.fromDraft->htmlCharacters)
            json["fromDraft"]["htmlCharacters"] = *v.fromDraft->htmlCharacters;
    }
}
void from_json(const Json& json, MCPOutgoing& v) {
    json.at("account").get_to(v.account);
    json.at("to").get_to(v.to);
    json.at("cc").get_to(v.cc);
    json.at("subject").get_to(v.subject);
    json.at("body").get_to(v.body);
    v.fromDraft.reset();
    if (json.contains("fromDraft")) {
        const Json& d = json.at("fromDraft");
        MCPDraftExtras extras;
        d.at("id").get_to(extras.id);
        d.at("bcc").get_to(extras.bcc);
        d.at("replyTo").get_to(extras.replyTo);
        if (d.contains("htmlCharacters"))
            extras.htmlCharacters = d.at("htmlCharacters").get<std::size_t>();
        for (const auto& a : d.at("attachments"))
            extras.attachments.emplace_back(a.at("name").get<std::string>(),
                                            a.at("size").get<std::int64_t>());
        v.fromDraft = std::move(extras);
    }
}

}  // namespace mcpkit
