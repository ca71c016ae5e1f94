// Any text a user or an agent types becomes an FTS5 expression that SQLite
// accepts: matching it against a real search table never fails.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "MailCore/Store/SQLiteDatabase.h"
#include "MailCore/Store/SearchExpression.h"

using namespace mailcore;

namespace {

SQLiteDatabase& database() {
    static SQLiteDatabase* db = [] {
        auto* d = new SQLiteDatabase(":memory:");
        d->execute(
            "CREATE VIRTUAL TABLE message_search USING fts5(\n"
            "    subject, sender, recipients, snippet, body,\n"
            "    tokenize = 'unicode61 remove_diacritics 2', prefix = '2 3');"
            "INSERT INTO message_search VALUES ('Quarterly budget', 'Ann ann@example.com', "
            "'bob@example.com', 'numbers', 'the quick brown fox');"
            "INSERT INTO message_search VALUES ('Crème brûlée', 'Zoë', '', '', 'e-mail AND or');");
        return d;
    }();
    return *db;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::string text(reinterpret_cast<const char*>(data), size);
    auto expression = SearchExpression::build(text);
    if (!expression) return 0;
    try {
        database().forEachRow(
            "SELECT rowid, bm25(message_search, 10.0, 6.0, 3.0, 4.0, 1.0), "
            "snippet(message_search, -1, '\u2039', '\u203a', '\u2026', 12) FROM message_search "
            "WHERE message_search MATCH ?",
            {*expression}, [](const SQLRow&) { return true; });
    } catch (const MailError& e) {
        std::fprintf(stderr, "expression %s failed: %s\n", expression->c_str(), e.what());
        std::abort();
    }
    return 0;
}
