#include "KestruneMCPKit/Installer/TOMLBlock.h"

#include <cstdio>
#include <utility>

#include "KestruneMCPKit/Installer/MCPConfigFile.h"
#include "KestruneMCPKit/Installer/MCPInstallError.h"
#include "MailCore/Common/UTF8.h"

namespace mcpkit::TOMLBlock {

namespace {

using Path = std::vector<std::string>;

constexpr int maxNesting = 64;

// A value as far as the installer needs it: strings, arrays and inline
// tables are kept; numbers, booleans and dates are only skipped.
struct Value {
    enum class Kind { string, array, table, other };
    Kind kind = Kind::other;
    std::string text;
    std::vector<Value> items;  // array items, or inline-table values
    std::vector<Path> keys;    // inline-table keys, one per item
};

// One statement of the file with the lines it covers (a multi-line string or
// array makes a key-value span several lines).
struct Statement {
    enum class Kind { trivia, table, arrayTable, keyValue };
    Kind kind = Kind::trivia;
    std::size_t firstLine = 0;
    std::size_t lastLine = 0;
    Path path;  // the table's path, or the key's full path (table + key)
    Value value;
};

class ParseFailure {};

bool isBareKeyChar(char c) {
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '_' ||
           c == '-';
}

// A reader for the statements of a TOML document. It checks the structure
// that decides where statements begin and end (strings, arrays, inline
// tables, headers, keys) and throws ParseFailure where that structure is
// broken; it does not check every rule of the format (number syntax, table
// redefinition).
class Parser {
public:
    explicit Parser(std::string_view text) : s_(text) {}

    std::vector<Statement> parse() {
        std::vector<Statement> statements;
        Path table;
        while (!atEnd()) {
            Statement statement;
            statement.firstLine = line_;
            skipSpaces();
            if (atEnd() || atNewline() || peek() == '#') {
                statement.kind = Statement::Kind::trivia;
            } else if (peek() == '[') {
                ++i_;
                bool array = !atEnd() && peek() == '[';
                if (array) ++i_;
                skipSpaces();
                statement.path = parseKey();
                skipSpaces();
                expect(']');
                if (array) expect(']');
                statement.kind = array ? Statement::Kind::arrayTable : Statement::Kind::table;
                table = statement.path;
            } else {
                Path key = parseKey();
                skipSpaces();
                expect('=');
                skipSpaces();
                statement.value = parseValue(0);
                statement.kind = Statement::Kind::keyValue;
                statement.path = table;
                statement.path.insert(statement.path.end(), key.begin(), key.end());
            }
            bool newline = finishLine();
            statement.lastLine = line_;
            statements.push_back(std::move(statement));
            if (newline) ++line_;
        }
        return statements;
    }

private:
    std::string_view s_;
    std::size_t i_ = 0;
    std::size_t line_ = 0;

    [[noreturn]] static void fail() { throw ParseFailure(); }
    bool atEnd() const { return i_ >= s_.size(); }
    char peek(std::size_t ahead = 0) const {
        return i_ + ahead < s_.size() ? s_[i_ + ahead] : '\0';
    }
    bool lookingAt(std::string_view what) const { return s_.substr(i_, what.size()) == what; }
    bool atNewline() const { return peek() == '\n' || (peek() == '\r' && peek(1) == '\n'); }

    void expect(char c) {
        if (peek() != c || atEnd()) fail();
        ++i_;
    }

    void skipSpaces() {
        while (!atEnd() && (peek() == ' ' || peek() == '\t')) ++i_;
    }

    // Consumes a line feed (or CRLF) inside a multi-line construct.
    void consumeNewline() {
        if (peek() == '\r') ++i_;
        expect('\n');
        ++line_;
    }

    void skipComment() {
        if (peek() != '#') return;
        while (!atEnd() && !atNewline()) {
            char c = peek();
            if ((static_cast<unsigned char>(c) < 0x20 && c != '\t') || c == 0x7F) fail();
            ++i_;
        }
    }

    // Spaces, an optional comment, then the line feed (consumed, without
    // counting the line; true) or the end of the text (false).
    bool finishLine() {
        skipSpaces();
        skipComment();
        if (atEnd()) return false;
        if (!atNewline()) fail();
        if (peek() == '\r') ++i_;
        ++i_;
        return true;
    }

    // Whitespace, line feeds and comments inside arrays and inline tables.
    void skipBlankSpace() {
        for (;;) {
            skipSpaces();
            if (peek() == '#') skipComment();
            if (!atEnd() && atNewline()) {
                consumeNewline();
                continue;
            }
            return;
        }
    }

    Path parseKey() {
        Path key;
        key.push_back(parseSimpleKey());
        for (;;) {
            std::size_t mark = i_;
            skipSpaces();
            if (peek() != '.') {
                i_ = mark;
                return key;
            }
            ++i_;
            skipSpaces();
            key.push_back(parseSimpleKey());
        }
    }

    std::string parseSimpleKey() {
        if (peek() == '"') {
            if (lookingAt("\"\"\"")) fail();
            return parseBasicString();
        }
        if (peek() == '\'') {
            if (lookingAt("'''")) fail();
            return parseLiteralString();
        }
        std::size_t start = i_;
        while (!atEnd() && isBareKeyChar(peek())) ++i_;
        if (i_ == start) fail();
        return std::string(s_.substr(start, i_ - start));
    }

    void checkStringChar(char c) {
        auto u = static_cast<unsigned char>(c);
        if ((u < 0x20 && c != '\t') || u == 0x7F) fail();
    }

    char32_t parseHex(int digits) {
        char32_t value = 0;
        for (int k = 0; k < digits; ++k) {
            char c = peek();
            int digit;
            if (c >= '0' && c <= '9')
                digit = c - '0';
            else if (c >= 'a' && c <= 'f')
                digit = c - 'a' + 10;
            else if (c >= 'A' && c <= 'F')
                digit = c - 'A' + 10;
            else
                fail();
            value = value * 16 + static_cast<char32_t>(digit);
            ++i_;
        }
        if (value > 0x10FFFF || (value >= 0xD800 && value <= 0xDFFF)) fail();
        return value;
    }

    // After the backslash of an escape in a basic string.
    void parseEscape(std::string& out) {
        char c = peek();
        ++i_;
        switch (c) {
            case 'b':
                out += '\b';
                break;
            case 't':
                out += '\t';
                break;
            case 'n':
                out += '\n';
                break;
            case 'f':
                out += '\f';
                break;
            case 'r':
                out += '\r';
                break;
            case 'e':
                out += '\x1B';
                break;
            case '"':
                out += '"';
                break;
            case '\\':
                out += '\\';
                break;
            case 'x':
                mailcore::utf8::append(out, parseHex(2));
                break;
            case 'u':
                mailcore::utf8::append(out, parseHex(4));
                break;
            case 'U':
                mailcore::utf8::append(out, parseHex(8));
                break;
            default:
                fail();
        }
    }

    std::string parseBasicString() {
        expect('"');
        std::string out;
        for (;;) {
            if (atEnd()) fail();
            char c = peek();
            if (c == '"') {
                ++i_;
                return out;
            }
            if (c == '\\') {
                ++i_;
                parseEscape(out);
                continue;
            }
            checkStringChar(c);
            out += c;
            ++i_;
        }
    }

    std::string parseLiteralString() {
        expect('\'');
        std::size_t start = i_;
        for (;;) {
            if (atEnd()) fail();
            char c = peek();
            if (c == '\'') break;
            checkStringChar(c);
            ++i_;
        }
        std::string out(s_.substr(start, i_ - start));
        ++i_;
        return out;
    }

    // Multi-line strings: `quote` is '"' or '\''; escapes only in basic ones.
    std::string parseMultiline(char quoteChar) {
        i_ += 3;
        std::string out;
        if (atNewline()) consumeNewline();  // a line feed right after the opening is trimmed
        for (;;) {
            if (atEnd()) fail();
            char c = peek();
            if (c == quoteChar && peek(1) == quoteChar && peek(2) == quoteChar) {
                // Up to two more quotes belong to the content.
                std::size_t run = 3;
                while (run < 5 && peek(run) == quoteChar) ++run;
                out.append(run - 3, quoteChar);
                i_ += run;
                return out;
            }
            if (atNewline()) {
                out += '\n';
                consumeNewline();
                continue;
            }
            if (quoteChar == '"' && c == '\\') {
                ++i_;
                std::size_t mark = i_;
                skipSpaces();
                if (atNewline()) {
                    // A line-ending backslash trims the following white space.
                    while (!atEnd()) {
                        skipSpaces();
                        if (!atNewline()) break;
                        consumeNewline();
                    }
                    continue;
                }
                i_ = mark;
                parseEscape(out);
                continue;
            }
            checkStringChar(c);
            out += c;
            ++i_;
        }
    }

    Value parseValue(int depth) {
        if (depth > maxNesting) fail();
        Value value;
        char c = peek();
        if (atEnd()) fail();
        if (c == '"') {
            value.kind = Value::Kind::string;
            value.text = lookingAt("\"\"\"") ? parseMultiline('"') : parseBasicString();
        } else if (c == '\'') {
            value.kind = Value::Kind::string;
            value.text = lookingAt("'''") ? parseMultiline('\'') : parseLiteralString();
        } else if (c == '[') {
            value.kind = Value::Kind::array;
            ++i_;
            for (;;) {
                skipBlankSpace();
                if (peek() == ']') {
                    ++i_;
                    break;
                }
                value.items.push_back(parseValue(depth + 1));
                skipBlankSpace();
                if (peek() == ',') {
                    ++i_;
                    continue;
                }
                expect(']');
                break;
            }
        } else if (c == '{') {
            value.kind = Value::Kind::table;
            ++i_;
            for (;;) {
                skipBlankSpace();
                if (peek() == '}') {
                    ++i_;
                    break;
                }
                Path key = parseKey();
                skipSpaces();
                expect('=');
                skipSpaces();
                value.keys.push_back(std::move(key));
                value.items.push_back(parseValue(depth + 1));
                skipBlankSpace();
                if (peek() == ',') {
                    ++i_;
                    continue;
                }
                expect('}');
                break;
            }
        } else {
            // Numbers, booleans, dates and times: letters, digits and + - . : _
            // with one blank allowed between a date and its time.
            std::size_t start = i_;
            auto tokenChar = [](char ch) {
                return isBareKeyChar(ch) || ch == '+' || ch == '.' || ch == ':';
            };
            while (!atEnd() && tokenChar(peek())) ++i_;
            if (i_ == start) fail();
            std::string_view token = s_.substr(start, i_ - start);
            bool isDate = token.size() == 10 && token[4] == '-' && token[7] == '-';
            if (isDate && peek() == ' ' && peek(1) >= '0' && peek(1) <= '9') {
                ++i_;
                while (!atEnd() && tokenChar(peek())) ++i_;
            }
            value.kind = Value::Kind::other;
        }
        return value;
    }
};

std::vector<Statement> parseStatements(std::string_view text) {
    try {
        return Parser(text).parse();
    } catch (const ParseFailure&) {
        throw MCPInstallError::unreadable(
            "not a TOML file this installer can edit; use the snippet");
    }
}

std::vector<std::string_view> splitLines(std::string_view text) {
    std::vector<std::string_view> lines;
    std::size_t start = 0;
    while (start < text.size()) {
        std::size_t end = text.find('\n', start);
        if (end == std::string_view::npos) {
            lines.push_back(text.substr(start));
            break;
        }
        lines.push_back(text.substr(start, end + 1 - start));
        start = end + 1;
    }
    return lines;
}

bool isBlank(std::string_view line) {
    for (char c : line) {
        if (c != ' ' && c != '\t' && c != '\r' && c != '\n') return false;
    }
    return true;
}

bool startsWith(const Path& path, const Path& prefix) {
    if (path.size() < prefix.size()) return false;
    for (std::size_t k = 0; k < prefix.size(); ++k) {
        if (path[k] != prefix[k]) return false;
    }
    return true;
}

struct Region {
    std::size_t first = 0;
    std::size_t last = 0;  // inclusive
};

struct Layout {
    std::vector<Statement> statements;
    std::vector<Region> regions;  // our tables, in file order
};

[[noreturn]] void refuseForm() {
    throw MCPInstallError::unreadable(
        "the kestrune entry is written in a form this installer does not edit; use the snippet");
}

// Finds our tables and refuses shapes that cannot be edited line by line.
Layout locate(std::string_view text, const std::string& name, bool forInstall) {
    Layout layout;
    layout.statements = parseStatements(text);
    const auto& statements = layout.statements;
    const Path ours = {"mcp_servers", name};
    const Path servers = {"mcp_servers"};

    std::vector<std::size_t> headers;
    for (std::size_t k = 0; k < statements.size(); ++k) {
        const Statement& statement = statements[k];
        if (statement.kind == Statement::Kind::table ||
            statement.kind == Statement::Kind::arrayTable) {
            headers.push_back(k);
        }
    }

    bool inOurs = false;
    for (const Statement& statement : statements) {
        switch (statement.kind) {
            case Statement::Kind::trivia:
                break;
            case Statement::Kind::table:
                inOurs = startsWith(statement.path, ours);
                break;
            case Statement::Kind::arrayTable:
                inOurs = false;
                if (startsWith(statement.path, ours)) refuseForm();
                if (forInstall && startsWith(statement.path, servers) && statement.path.size() <= 2)
                    refuseForm();
                break;
            case Statement::Kind::keyValue:
                if (inOurs) break;
                if (startsWith(statement.path, ours)) refuseForm();
                if (statement.path == servers) {
                    if (forInstall) refuseForm();
                    if (statement.value.kind == Value::Kind::table) {
                        for (const Path& key : statement.value.keys) {
                            if (!key.empty() && key[0] == name) refuseForm();
                        }
                    }
                }
                break;
        }
    }

    // Group runs of consecutive headers of ours into regions; a region ends at
    // its last line that is not blank or a comment.
    for (std::size_t h = 0; h < headers.size(); ++h) {
        const Statement& header = statements[headers[h]];
        if (header.kind != Statement::Kind::table || !startsWith(header.path, ours)) continue;
        std::size_t lastHeader = h;
        while (lastHeader + 1 < headers.size()) {
            const Statement& next = statements[headers[lastHeader + 1]];
            if (next.kind != Statement::Kind::table || !startsWith(next.path, ours)) break;
            ++lastHeader;
        }
        std::size_t end =
            lastHeader + 1 < headers.size() ? headers[lastHeader + 1] : statements.size();
        std::size_t last = end - 1;
        while (last > headers[lastHeader] && statements[last].kind == Statement::Kind::trivia) {
            --last;
        }
        layout.regions.push_back({header.firstLine, statements[last].lastLine});
        h = lastHeader;
    }
    return layout;
}

// Marks the lines of `region` for removal, together with the blank lines that
// set it apart: those after it, or, at the end of the file, those before it.
void markRemoval(const std::vector<std::string_view>& lines, const Region& region,
                 std::vector<bool>& removed) {
    for (std::size_t k = region.first; k <= region.last && k < lines.size(); ++k) removed[k] = true;
    std::size_t after = region.last + 1;
    while (after < lines.size() && isBlank(lines[after])) {
        removed[after] = true;
        ++after;
    }
    if (after >= lines.size()) {
        std::size_t before = region.first;
        while (before > 0 && isBlank(lines[before - 1]) && !removed[before - 1]) {
            removed[before - 1] = true;
            --before;
        }
    }
}

bool usesCRLF(std::string_view text) {
    std::size_t lf = text.find('\n');
    return lf != std::string_view::npos && lf > 0 && text[lf - 1] == '\r';
}

std::string withLineEndings(std::string_view blockText, bool crlf) {
    if (!crlf) return std::string(blockText);
    std::string out;
    for (std::size_t k = 0; k < blockText.size(); ++k) {
        if (blockText[k] == '\n' && (k == 0 || blockText[k - 1] != '\r')) out += '\r';
        out += blockText[k];
    }
    return out;
}

std::string keyText(const std::string& key) {
    bool bare = !key.empty();
    for (char c : key) bare = bare && isBareKeyChar(c);
    return bare ? key : quote(key);
}

}  // namespace

std::string quote(std::string_view value) {
    if (!mailcore::utf8::isValid(value)) throw MCPInstallError::io("could not serialize");
    std::string out = "\"";
    for (char c : value) {
        auto u = static_cast<unsigned char>(c);
        switch (c) {
            case '"':
                out += "\\\"";
                break;
            case '\\':
                out += "\\\\";
                break;
            case '\b':
                out += "\\b";
                break;
            case '\t':
                out += "\\t";
                break;
            case '\n':
                out += "\\n";
                break;
            case '\f':
                out += "\\f";
                break;
            case '\r':
                out += "\\r";
                break;
            default:
                if (u < 0x20 || u == 0x7F) {
                    char escape[8];
                    std::snprintf(escape, sizeof escape, "\\u%04X", static_cast<unsigned>(u));
                    out += escape;
                } else {
                    out += c;
                }
        }
    }
    out += '"';
    return out;
}

std::string block(const std::string& name, const MCPServerEntry& entry) {
    std::string table = "mcp_servers." + keyText(name);
    std::string out = "[" + table + "]\n";
    out += "command = " + quote(entry.command) + "\n";
    out += "args = [";
    for (std::size_t k = 0; k < entry.args.size(); ++k) {
        if (k > 0) out += ", ";
        out += quote(entry.args[k]);
    }
    out += "]\n\n";
    out += "[" + table + ".env]\n";
    for (const auto& [key, value] : entry.env) out += keyText(key) + " = " + quote(value) + "\n";
    return out;
}

std::string install(std::string_view text, const std::string& name, std::string_view blockText) {
    Layout layout = locate(text, name, true);
    std::string newBlock = withLineEndings(blockText, usesCRLF(text));
    std::vector<std::string_view> lines = splitLines(text);
    std::string out;

    if (layout.regions.empty()) {
        out.assign(text);
        if (!out.empty()) {
            std::string_view eol = usesCRLF(text) ? "\r\n" : "\n";
            if (out.back() != '\n') out += eol;
            if (!isBlank(lines.back())) out += eol;
        }
        return out + newBlock;
    }

    std::vector<bool> removed(lines.size(), false);
    for (std::size_t r = 1; r < layout.regions.size(); ++r) {
        markRemoval(lines, layout.regions[r], removed);
    }
    const Region& first = layout.regions.front();
    for (std::size_t k = 0; k < lines.size(); ++k) {
        if (k == first.first) {
            out += newBlock;
            continue;
        }
        if (k > first.first && k <= first.last) continue;
        if (!removed[k]) out += lines[k];
    }
    return out;
}

std::optional<std::string> remove(std::string_view text, const std::string& name) {
    Layout layout = locate(text, name, false);
    if (layout.regions.empty()) return std::nullopt;
    std::vector<std::string_view> lines = splitLines(text);
    std::vector<bool> removed(lines.size(), false);
    for (const Region& region : layout.regions) markRemoval(lines, region, removed);
    std::string out;
    for (std::size_t k = 0; k < lines.size(); ++k) {
        if (!removed[k]) out += lines[k];
    }
    return out;
}

std::optional<Found> read(std::string_view text, const std::string& name) {
    Layout layout = locate(text, name, false);
    if (layout.regions.empty()) return std::nullopt;

    Found found;
    bool envValid = true;
    std::map<std::string, std::string> env;
    const Path ours = {"mcp_servers", name};
    bool inOurs = false;
    for (const Statement& statement : layout.statements) {
        if (statement.kind == Statement::Kind::table ||
            statement.kind == Statement::Kind::arrayTable) {
            inOurs = statement.kind == Statement::Kind::table && startsWith(statement.path, ours);
            continue;
        }
        if (!inOurs || statement.kind != Statement::Kind::keyValue) continue;
        Path relative(statement.path.begin() + 2, statement.path.end());
        const Value& value = statement.value;
        if (relative == Path{"command"}) {
            if (value.kind == Value::Kind::string) found.command = value.text;
        } else if (relative == Path{"args"}) {
            if (value.kind != Value::Kind::array) continue;
            std::vector<std::string> args;
            bool valid = true;
            for (const Value& item : value.items) {
                if (item.kind != Value::Kind::string) valid = false;
                args.push_back(item.text);
            }
            if (valid) found.args = std::move(args);
        } else if (relative.size() == 2 && relative[0] == "env") {
            if (value.kind == Value::Kind::string)
                env[relative[1]] = value.text;
            else
                envValid = false;
        } else if (relative == Path{"env"}) {
            if (value.kind != Value::Kind::table) {
                envValid = false;
                continue;
            }
            for (std::size_t k = 0; k < value.keys.size(); ++k) {
                const Path& key = value.keys[k];
                const Value& member = value.items[k];
                if (key.size() == 1 && member.kind == Value::Kind::string) {
                    env[key[0]] = member.text;
                } else {
                    envValid = false;
                }
            }
        } else if (relative.size() > 2 && relative[0] == "env") {
            envValid = false;
        }
    }
    if (envValid) found.env = std::move(env);
    return found;
}

}  // namespace mcpkit::TOMLBlock
