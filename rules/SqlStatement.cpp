#include "SqlStatement.h"

#include <QSet>
#include <QVector>

#include <cctype>

namespace {

// One word, name, literal or symbol of a statement. Words are kept in lower
// case; quoted text unescaped. Quoted with '"' is a name or a string as the
// dialect sees it, and is taken as whichever its place asks for.
struct Token
{
    enum Type { Word, Name, String, Quoted, Number, Param, Symbol };
    Type type;
    QByteArray text;
};

class Tokenizer
{
public:
    Tokenizer(const QByteArray& sql, bool backslashEscapes) : s(sql), escapes(backslashEscapes) {}

    // False for a text that doesn't split into tokens cleanly: an open
    // quote or comment.
    bool run(QVector<Token>& out)
    {
        while (i < s.size()) {
            const char c = s[i];
            if (isspace(uchar(c))) {
                ++i;
            } else if (c == '#' || (c == '-' && at(1) == '-')) {
                while (i < s.size() && s[i] != '\n')
                    ++i;
            } else if (c == '/' && at(1) == '*' && at(2) == '!' && escapes) {
                // MySQL runs what such a comment holds (after a version).
                if (executable)
                    return false;
                executable = true;
                for (i += 3; i < s.size() && isdigit(uchar(s[i]));)
                    ++i;
            } else if (c == '*' && at(1) == '/' && executable) {
                executable = false;
                i += 2;
            } else if (c == '/' && at(1) == '*') {
                const int end = s.indexOf("*/", i + 2);
                if (end < 0)
                    return false;
                i = end + 2;
            } else if (!token(out)) {
                return false;
            }
        }
        return !executable;
    }

private:
    char at(int ahead) const { return i + ahead < s.size() ? s[i + ahead] : '\0'; }

    bool token(QVector<Token>& out)
    {
        const char c = s[i];
        if (c == '\'' || c == '"' || c == '`' || c == '[') {
            const Token::Type type = c == '\'' ? Token::String : c == '"' ? Token::Quoted : Token::Name;
            QByteArray text;
            if (!quoted(c == '[' ? ']' : c, text))
                return false;
            out.append({type, text});
        } else if (isalpha(uchar(c)) || c == '_' || c == '$' || uchar(c) >= 0x80) {
            const int start = i;
            while (i < s.size() && (isalnum(uchar(s[i])) || s[i] == '_' || s[i] == '$' || uchar(s[i]) >= 0x80))
                ++i;
            out.append({Token::Word, s.mid(start, i - start).toLower()});
        } else if (isdigit(uchar(c)) || (c == '.' && isdigit(uchar(at(1))))) {
            const int start = i;
            while (i < s.size() && (isalnum(uchar(s[i])) || s[i] == '.'))
                ++i;
            out.append({Token::Number, s.mid(start, i - start).toLower()});
        } else if (c == '?' || ((c == ':' || c == '@') && (isalnum(uchar(at(1))) || at(1) == '_' || at(1) == '@'))) {
            const int start = i++;
            while (i < s.size() && (isalnum(uchar(s[i])) || s[i] == '_' || s[i] == '@' || s[i] == '.'))
                ++i;
            out.append({Token::Param, s.mid(start, i - start)});
        } else {
            static const char* const pairs[] = {"<=", ">=", "<>", "!=", "||", "&&", ":=", "<=>"};
            int length = 1;
            for (const char* pair : pairs) {
                if (s.mid(i, int(strlen(pair))) == pair)
                    length = qMax(length, int(strlen(pair)));
            }
            out.append({Token::Symbol, s.mid(i, length)});
            i += length;
        }
        return true;
    }

    // Reads up to the closing quote, a doubled quote standing for one.
    bool quoted(char close, QByteArray& text)
    {
        for (++i; i < s.size(); ++i) {
            const char c = s[i];
            if (escapes && c == '\\' && close != '`' && close != ']') {
                if (++i >= s.size())
                    return false;
                text.append(s[i]);
            } else if (c == close && at(1) == close && close != ']') {
                text.append(c);
                ++i;
            } else if (c == close) {
                ++i;
                return true;
            } else {
                text.append(c);
            }
        }
        return false;
    }

    const QByteArray& s;
    const bool escapes;
    bool executable = false;
    int i = 0;
};

// A table of one FROM list or write, with the alias it goes by.
struct TableRef
{
    QByteArray table;
    QByteArray alias;
};

class Reader
{
public:
    Reader(const QVector<Token>& tokens, const QHash<QByteArray, QByteArray>& keys, SqlStatement& out)
        : t(tokens), keys(keys), out(out)
    {
    }

    bool pair()
    {
        close.fill(-1, t.size());
        QVector<int> open;
        for (int k = 0; k < t.size(); ++k) {
            if (isSymbol(k, "("))
                open.append(k);
            else if (isSymbol(k, ")")) {
                if (open.isEmpty())
                    return false;
                close[open.takeLast()] = k;
            }
        }
        return open.isEmpty();
    }

    void statement(int b, int e);

private:
    bool isSymbol(int k, const char* text) const { return t[k].type == Token::Symbol && t[k].text == text; }
    bool isWord(int k, const char* text) const { return k < t.size() && t[k].type == Token::Word && t[k].text == text; }
    bool isNameToken(int k) const
    {
        return t[k].type == Token::Name || t[k].type == Token::Quoted || (t[k].type == Token::Word && !isClauseWord(k));
    }
    static bool isClauseWordText(const QByteArray& w);
    bool isClauseWord(int k) const { return t[k].type == Token::Word && isClauseWordText(t[k].text); }
    // The next index at this level after `k` (past a parenthesised group).
    int next(int k) const { return t[k].type == Token::Symbol && t[k].text == "(" ? close[k] + 1 : k + 1; }
    int findWord(int b, int e, const char* word) const
    {
        for (int k = b; k < e; k = next(k)) {
            if (isWord(k, word))
                return k;
        }
        return -1;
    }

    void unreadable()
    {
        out.readsAnything = true;
        out.writesAnything = true;
    }
    QByteArray keyOf(const QByteArray& table) const { return keys.value(table, QByteArrayLiteral("id")); }

    int tableName(int k, int e, QByteArray& table) const;
    int tableRef(int k, int e, TableRef& ref) const;
    void scanReads(int b, int e);
    void scanSegment(int b, int e);
    int clauseEnd(int b, int e) const;
    bool schemaRead(int b, int e, const TableRef& ref);
    bool conjuncts(int b, int e, QList<QPair<int, int>>& parts) const;
    int column(int b, int e, const TableRef& ref, QByteArray& name) const;
    bool keyValue(int k, const QByteArray& key, QByteArray& value) const;
    QList<QByteArray> whereRows(int b, int e, const TableRef& ref) const;
    QHash<QByteArray, QByteArray> whereValues(int b, int e, const TableRef& ref) const;
    QList<QPair<int, int>> items(int b, int e) const;
    QList<TableRef> refList(int b, int e) const;
    int findSymbol(int b, int e, const char* symbol) const;
    bool isLiteral(int k) const;
    void combined(int b, int e);
    void inquiry(int b, int e);
    void assignedRow(int b, int e, SqlTableAccess& write, bool& rowsKnown) const;
    void insert(int b, int e, bool replaces);
    void insertValues(int k, int e, const QList<QByteArray>& columns, SqlTableAccess& write, bool& rowsKnown) const;
    void update(int b, int e);
    void removal(int b, int e);
    void schemaChange(int b, int e);
    void setting(int b, int e);
    void writeWhole(const QByteArray& table) { out.writes.append(SqlTableAccess{table, {}, {}}); }

    const QVector<Token>& t;
    const QHash<QByteArray, QByteArray>& keys;
    SqlStatement& out;
    QVector<int> close;
};

bool Reader::isClauseWordText(const QByteArray& w)
{
    static const QSet<QByteArray> words = {
        "select", "from", "where", "group", "order", "limit", "having", "window", "union", "intersect",
        "except", "join", "inner", "left", "right", "full", "outer", "cross", "natural", "straight_join",
        "on", "using", "set", "values", "value", "for", "lock", "returning", "into", "as", "use", "force",
        "ignore", "partition", "offset", "fetch", "and", "or", "not", "procedure", "lateral", "indexed"};
    return words.contains(w);
}

// A possibly qualified table name at `k`: answers the index after it, or -1.
int Reader::tableName(int k, int e, QByteArray& table) const
{
    if (k >= e || !isNameToken(k))
        return -1;
    table = t[k].text.toLower();
    ++k;
    while (k + 1 < e && isSymbol(k, ".") && isNameToken(k + 1)) {
        // The server's own tables of the schema keep that name.
        if (table != "information_schema")
            table = t[k + 1].text.toLower();
        k += 2;
    }
    return k;
}

// A table with its alias; -1 when `k` holds no plain table name.
int Reader::tableRef(int k, int e, TableRef& ref) const
{
    k = tableName(k, e, ref.table);
    if (k < 0)
        return -1;
    ref.alias = ref.table;
    if (isWord(k, "as") && k + 1 < e)
        ++k;
    if (k < e && isNameToken(k))
        ref.alias = t[k++].text.toLower();
    return k;
}

void Reader::scanReads(int b, int e)
{
    int start = b;
    for (int k = b; k < e; k = next(k)) {
        if (isWord(k, "union") || isWord(k, "intersect") || isWord(k, "except")) {
            scanSegment(start, k);
            start = k + 1;
        }
    }
    scanSegment(start, e);
}

// One SELECT at one level: the tables of its FROM list and joins, and the
// rows its WHERE names when it reads a single table.
void Reader::scanSegment(int b, int e)
{
    QList<TableRef> refs;
    bool joined = false;
    int where = -1;
    for (int k = b; k < e;) {
        if (isSymbol(k, "(")) {
            scanReads(k + 1, close[k]);
            k = close[k] + 1;
            continue;
        }
        const bool listStart = isWord(k, "from") || isWord(k, "join") || isWord(k, "straight_join")
                               || (isWord(k, "using") && k + 1 < e && !isSymbol(k + 1, "("));
        if (isWord(k, "where"))
            where = k;
        // SELECT STRAIGHT_JOIN is an order for the joins, not one.
        joined = joined || isWord(k, "join") || (isWord(k, "straight_join") && k > b && !isWord(k - 1, "select"));
        ++k;
        while (listStart) {
            TableRef ref;
            const int after = tableRef(k, e, ref);
            if (after < 0)
                break;
            refs.append(ref);
            k = after;
            if (k >= e || !isSymbol(k, ","))
                break;
            ++k;
        }
    }
    // What the schema holds changes with every change of a table's shape,
    // and what a server counts with nearly every write.
    static const QSet<QByteArray> schemaTables = {"information_schema", "sqlite_master", "sqlite_schema",
                                                  "sqlite_temp_master", "sqlite_sequence"};
    const bool single = refs.size() == 1 && !joined;
    for (const TableRef& ref : refs) {
        if (schemaTables.contains(ref.table) && !(single && where >= 0 && schemaRead(where + 1, e, ref)))
            out.readsAnything = true;
        SqlTableAccess read{ref.table, {}, {}};
        if (single && where >= 0)
            read.rows = whereRows(where + 1, clauseEnd(where + 1, e), ref);
        out.reads.append(read);
    }
}

// SQLite's schema asked about one table by name, as "does it exist" is:
// that table's changes are the ones that change the answer.
bool Reader::schemaRead(int b, int e, const TableRef& ref)
{
    const QHash<QByteArray, QByteArray> values = whereValues(b, clauseEnd(b, e), ref);
    const QByteArray table = values.value("tbl_name", values.value("name"));
    if (!ref.table.startsWith("sqlite_") || table.isEmpty() || table.endsWith('*'))
        return false;
    out.reads.append(SqlTableAccess{table, {}, {}});
    return true;
}

int Reader::clauseEnd(int b, int e) const
{
    static const char* const ends[] = {"group", "order", "limit", "having", "window", "for", "lock", "returning"};
    for (int k = b; k < e; k = next(k)) {
        for (const char* word : ends) {
            if (isWord(k, word))
                return k;
        }
    }
    return e;
}

// The parts of a condition joined by AND at its top; false when anything
// there could make it hold otherwise (OR, XOR, a BETWEEN's AND, CASE).
bool Reader::conjuncts(int b, int e, QList<QPair<int, int>>& parts) const
{
    int start = b;
    for (int k = b; k < e; k = next(k)) {
        if (isWord(k, "or") || isWord(k, "xor") || isWord(k, "between") || isWord(k, "case") || isSymbol(k, "||"))
            return false;
        if (isWord(k, "and") || isSymbol(k, "&&")) {
            parts.append({start, k});
            start = k + 1;
        }
    }
    parts.append({start, e});
    return true;
}

// A column of `ref` at `b` (bare or qualified by the table or its alias):
// answers the index after it, or -1.
int Reader::column(int b, int e, const TableRef& ref, QByteArray& name) const
{
    int k = b;
    QByteArray qualifier;
    if (k >= e || !isNameToken(k))
        return -1;
    name = t[k].text.toLower();
    for (++k; k + 1 < e && isSymbol(k, ".") && isNameToken(k + 1); k += 2) {
        qualifier = name;
        name = t[k + 1].text.toLower();
    }
    if (!qualifier.isEmpty() && qualifier != ref.alias && qualifier != ref.table)
        return -1;
    return k;
}

// A literal that names one key value in a form every row holding it shares:
// a whole number in its plain decimal form, or quoted text of a few plain
// characters that no server reads as a number. Quoted text is compared in
// lower case, as the servers' usual collations do.
bool Reader::keyValue(int k, const QByteArray& key, QByteArray& value) const
{
    const Token& token = t[k];
    const QByteArray text = token.text;
    const bool integer = !text.isEmpty() && text.size() <= 19 && (text == "0" || (text[0] >= '1' && text[0] <= '9'))
                         && std::all_of(text.begin(), text.end(), [](char c) { return isdigit(uchar(c)); });
    if (token.type == Token::Number) {
        value = text;
        return integer && key == "id";
    }
    if (token.type != Token::String && token.type != Token::Quoted)
        return false;
    if (integer) {
        value = text;
        return true;
    }
    if (text.isEmpty() || text.size() > 64 || (!isalpha(uchar(text[0])) && text[0] != '_'))
        return false;
    value = text.toLower();
    return std::all_of(value.begin(), value.end(),
                       [](char c) { return isalnum(uchar(c)) || c == '_' || c == '-' || c == '.'; });
}

// The key values a WHERE limits its table to, or none.
QList<QByteArray> Reader::whereRows(int b, int e, const TableRef& ref) const
{
    QList<QPair<int, int>> parts;
    if (!conjuncts(b, e, parts))
        return {};
    const QByteArray key = keyOf(ref.table);
    for (const auto& part : parts) {
        QByteArray name;
        int k = column(part.first, part.second, ref, name);
        if (k < 0 || name != key || k + 1 >= part.second)
            continue;
        QList<QByteArray> rows;
        QByteArray value;
        if (isSymbol(k, "=") && k + 2 == part.second && keyValue(k + 1, key, value))
            return {value};
        if (!isWord(k, "in") || !isSymbol(k + 1, "(") || close[k + 1] + 1 != part.second)
            continue;
        for (int v = k + 2; v < close[k + 1]; v += 2) {
            if (!keyValue(v, key, value) || !(isSymbol(v + 1, ",") || v + 1 == close[k + 1]))
                return {};
            rows.append(value);
        }
        if (!rows.isEmpty() && rows.size() <= 64)
            return rows;
    }
    return {};
}

// The column values a WHERE's equalities and prefix LIKEs fix.
QHash<QByteArray, QByteArray> Reader::whereValues(int b, int e, const TableRef& ref) const
{
    QHash<QByteArray, QByteArray> values;
    QList<QPair<int, int>> parts;
    if (b >= e || !conjuncts(b, e, parts))
        return values;
    for (const auto& part : parts) {
        QByteArray name;
        const int k = column(part.first, part.second, ref, name);
        if (k < 0 || k + 2 != part.second)
            continue;
        const Token& literal = t[k + 1];
        const bool text = literal.type == Token::String || literal.type == Token::Quoted;
        if (isSymbol(k, "=") && (text || literal.type == Token::Number)) {
            values.insert(name, literal.text.toLower());
        } else if (isWord(k, "like") && text) {
            // Only a prefix whose characters all match themselves.
            const QByteArray pattern = literal.text.toLower();
            const int wild = pattern.indexOf('%');
            const QByteArray head = pattern.left(wild);
            if (wild == pattern.size() - 1 && !head.contains('_') && !head.contains('\\'))
                values.insert(name, head + '*');
        }
    }
    return values;
}

// The items of a list at one level, split at its commas.
QList<QPair<int, int>> Reader::items(int b, int e) const
{
    QList<QPair<int, int>> parts;
    int start = b;
    for (int k = b; k < e; k = next(k)) {
        if (isSymbol(k, ",")) {
            parts.append({start, k});
            start = k + 1;
        }
    }
    if (start < e)
        parts.append({start, e});
    return parts;
}

void Reader::statement(int b, int e)
{
    static const QSet<QByteArray> harmless = {"savepoint", "release", "lock",    "unlock", "use",
                                              "explain",   "describe", "desc",   "analyze", "vacuum",
                                              "reindex",   "optimize", "checksum"};
    static const QSet<QByteArray> schemaWords = {"truncate", "alter", "drop", "create", "rename"};
    const QByteArray first = t[b].type == Token::Word ? t[b].text : QByteArray();
    if (isSymbol(b, "(") || first == "select" || first == "values" || first == "table")
        scanReads(b, e);
    else if (first == "with")
        combined(b, e);
    else if (first == "insert" || first == "replace")
        insert(b, e, first == "replace");
    else if (first == "update")
        update(b, e);
    else if (first == "delete")
        removal(b, e);
    else if (schemaWords.contains(first))
        schemaChange(b, e);
    else if (first == "set")
        setting(b, e);
    else if (first == "begin" || (first == "start" && isWord(b + 1, "transaction")))
        out.control = SqlStatement::Begin;
    else if (first == "commit" || first == "end")
        out.control = SqlStatement::Commit;
    else if (first == "rollback")
        // Back to a savepoint, the writes before it stand.
        out.control = findWord(b, e, "to") < 0 ? SqlStatement::Rollback : out.control;
    else if (first == "show" || first == "pragma")
        inquiry(b, e);
    else if (!harmless.contains(first))
        unreadable();
}

// A WITH may end in a write whose target the reading of names can't tell
// apart from the tables it reads.
void Reader::combined(int b, int e)
{
    for (int k = b; k < e; k = next(k)) {
        if (isWord(k, "insert") || isWord(k, "update") || isWord(k, "delete") || isWord(k, "replace")) {
            unreadable();
            return;
        }
    }
    scanReads(b, e);
}

// SHOW and PRAGMA: settings and counters read nothing of the data; the
// others read the schema, which any write may have changed.
void Reader::inquiry(int b, int e)
{
    static const QSet<QByteArray> settings = {"variables", "status", "warnings", "errors", "session", "global",
                                              "processlist", "engines", "charset", "character", "collation"};
    const bool setsOrCounts = isWord(b, "show") ? b + 1 < e && t[b + 1].type == Token::Word
                                                      && settings.contains(t[b + 1].text)
                                                : findSymbol(b, e, "=") >= 0;
    // The shape of one table (SHOW [FULL] COLUMNS FROM t, SHOW INDEX FROM
    // t, SHOW CREATE TABLE t) changes with that table's changes alone.
    QByteArray table;
    int k = b + 1;
    while (isWord(k, "full") || isWord(k, "columns") || isWord(k, "fields") || isWord(k, "index")
           || isWord(k, "indexes") || isWord(k, "keys") || (isWord(k, "create") && isWord(k + 1, "table")))
        k += isWord(k, "create") ? 2 : 1;
    const bool named = isWord(b, "show") && k > b + 1;
    if (named && (isWord(k, "from") || isWord(k, "in") || isWord(k - 1, "table")))
        k += isWord(k - 1, "table") ? 0 : 1;
    const int after = named ? tableName(k, e, table) : -1;
    if (after >= 0 && !isWord(after, "in"))
        out.reads.append(SqlTableAccess{table, {}, {}});
    else
        out.readsAnything = out.readsAnything || !setsOrCounts;
}

int Reader::findSymbol(int b, int e, const char* symbol) const
{
    for (int k = b; k < e; ++k) {
        if (isSymbol(k, symbol))
            return k;
    }
    return -1;
}

void Reader::insert(int b, int e, bool replaces)
{
    int k = b + 1;
    while (isWord(k, "low_priority") || isWord(k, "delayed") || isWord(k, "high_priority") || isWord(k, "ignore")
           || isWord(k, "into") || isWord(k, "or")) {
        replaces = replaces || (isWord(k, "or") && isWord(k + 1, "replace"));
        k += isWord(k, "or") ? 2 : 1;
    }
    SqlTableAccess write;
    k = tableName(k, e, write.table);
    if (k < 0) {
        unreadable();
        return;
    }
    QList<QByteArray> columns;
    if (k < e && isSymbol(k, "(") && !isWord(k + 1, "select") && !isWord(k + 1, "with")) {
        for (const auto& item : items(k + 1, close[k]))
            columns.append(t[item.first].text.toLower());
        k = close[k] + 1;
    }
    // On a clash with another unique value the row written is one whose
    // key the statement doesn't name.
    bool rowsKnown = !replaces && findWord(k, e, "duplicate") < 0 && findWord(k, e, "conflict") < 0;
    if (isWord(k, "values") || isWord(k, "value"))
        insertValues(k + 1, e, columns, write, rowsKnown);
    else if (isWord(k, "set"))
        assignedRow(k + 1, e, write, rowsKnown);
    else
        rowsKnown = false;
    if (!rowsKnown)
        write.rows.clear();
    out.writes.append(write);
    scanReads(k, e);
}

void Reader::insertValues(int k, int e, const QList<QByteArray>& columns, SqlTableAccess& write,
                          bool& rowsKnown) const
{
    const int key = columns.indexOf(keyOf(write.table));
    rowsKnown = rowsKnown && key >= 0;
    while (k < e && isSymbol(k, "(")) {
        const QList<QPair<int, int>> values = items(k + 1, close[k]);
        QHash<QByteArray, QByteArray> row;
        for (int c = 0; c < columns.size() && c < values.size(); ++c) {
            if (values[c].second == values[c].first + 1 && isLiteral(values[c].first))
                row.insert(columns[c], t[values[c].first].text.toLower());
        }
        write.rowValues.append(row);
        QByteArray value;
        if (key < 0 || key >= values.size() || values[key].second != values[key].first + 1
            || !keyValue(values[key].first, keyOf(write.table), value))
            rowsKnown = false;
        else
            write.rows.append(value);
        k = close[k] + 1;
        if (k >= e || !isSymbol(k, ","))
            break;
        ++k;
    }
}

// INSERT ... SET column = value, ...: one row.
void Reader::assignedRow(int b, int e, SqlTableAccess& write, bool& rowsKnown) const
{
    QHash<QByteArray, QByteArray> row;
    rowsKnown = false;
    for (const auto& item : items(b, e)) {
        if (item.second != item.first + 3 || !isSymbol(item.first + 1, "=") || !isLiteral(item.first + 2))
            continue;
        const QByteArray name = t[item.first].text.toLower();
        row.insert(name, t[item.first + 2].text.toLower());
        QByteArray value;
        if (name == keyOf(write.table) && keyValue(item.first + 2, name, value)) {
            write.rows = {value};
            rowsKnown = rowsKnown || findWord(b, e, "duplicate") < 0;
        }
    }
    write.rowValues.append(row);
}

bool Reader::isLiteral(int k) const
{
    return t[k].type == Token::String || t[k].type == Token::Quoted || t[k].type == Token::Number;
}

void Reader::update(int b, int e)
{
    int k = b + 1;
    while (isWord(k, "low_priority") || isWord(k, "ignore") || isWord(k, "or"))
        k += isWord(k, "or") ? 2 : 1;
    const int set = findWord(k, e, "set");
    TableRef ref;
    const int after = set < 0 ? -1 : tableRef(k, set, ref);
    scanReads(b, e);
    if (after < 0) {
        unreadable();
        return;
    }
    if (after != set) {
        // Several tables: each is written whole.
        for (const TableRef& other : refList(k, set))
            writeWhole(other.table);
        return;
    }
    const int where = findWord(set, e, "where");
    const int whereEnd = where < 0 ? e : clauseEnd(where + 1, e);
    QHash<QByteArray, QByteArray> values;
    if (where >= 0)
        values = whereValues(where + 1, whereEnd, ref);
    bool keyAssigned = findWord(set, e, "from") >= 0;
    for (const auto& item : items(set + 1, where < 0 ? clauseEnd(set + 1, e) : where)) {
        QByteArray name;
        if (column(item.first, item.second, ref, name) < 0)
            continue;
        // A row whose value moves matches neither value alone.
        values.remove(name);
        keyAssigned = keyAssigned || name == keyOf(ref.table);
    }
    SqlTableAccess write{ref.table, {}, {}};
    if (!keyAssigned && where >= 0)
        write.rows = whereRows(where + 1, whereEnd, ref);
    if (!values.isEmpty())
        write.rowValues.append(values);
    out.writes.append(write);
}

// The tables of a list of table references joined by commas or JOIN.
QList<TableRef> Reader::refList(int b, int e) const
{
    QList<TableRef> refs;
    bool start = true;
    for (int k = b; k < e;) {
        TableRef ref;
        const int after = start ? tableRef(k, e, ref) : -1;
        if (after >= 0)
            refs.append(ref);
        k = after >= 0 ? after : next(k);
        start = k < e && (isSymbol(k, ",") || isWord(k, "join") || isWord(k, "straight_join"));
        if (start)
            ++k;
    }
    return refs;
}

void Reader::removal(int b, int e)
{
    int k = b + 1;
    while (isWord(k, "low_priority") || isWord(k, "quick") || isWord(k, "ignore"))
        ++k;
    TableRef ref;
    const int after = isWord(k, "from") ? tableRef(k + 1, e, ref) : -1;
    if (after >= 0 && (after == e || isWord(after, "where") || isWord(after, "order") || isWord(after, "limit")
                       || isWord(after, "returning"))) {
        SqlTableAccess write{ref.table, {}, {}};
        if (isWord(after, "where")) {
            const int whereEnd = clauseEnd(after + 1, e);
            write.rows = whereRows(after + 1, whereEnd, ref);
            const QHash<QByteArray, QByteArray> values = whereValues(after + 1, whereEnd, ref);
            if (!values.isEmpty())
                write.rowValues.append(values);
        }
        out.writes.append(write);
        scanReads(after, e);
        return;
    }
    // Several tables: every table it names is written whole.
    const int before = out.reads.size();
    scanReads(b, e);
    for (int r = before; r < out.reads.size(); ++r)
        writeWhole(out.reads[r].table);
    if (out.reads.size() == before)
        unreadable();
}

void Reader::schemaChange(int b, int e)
{
    int k = b + 1;
    while (isWord(k, "temporary") || isWord(k, "temp") || isWord(k, "online") || isWord(k, "ignore")
           || isWord(k, "unique") || isWord(k, "fulltext") || isWord(k, "spatial"))
        ++k;
    if (isWord(k, "index")) {
        const int on = findWord(k, e, "on");
        QByteArray table;
        if (on < 0 || tableName(on + 1, e, table) < 0)
            unreadable();
        else
            writeWhole(table);
        return;
    }
    if (isWord(k, "table"))
        ++k;
    else if (!isWord(b, "truncate")) {
        unreadable();
        return;
    }
    while (isWord(k, "if") || isWord(k, "not") || isWord(k, "exists"))
        ++k;
    bool any = false;
    for (QByteArray table; (k = tableName(k, e, table)) >= 0; ++k) {
        writeWhole(table);
        any = true;
        if (k >= e || !(isSymbol(k, ",") || isWord(k, "to")))
            break;
    }
    if (!any)
        unreadable();
    else if (k >= 0 && k < e)
        scanReads(k, e);
}

void Reader::setting(int b, int e)
{
    for (int k = b + 1; k + 2 < e; ++k) {
        const bool named = (t[k].type == Token::Word || t[k].type == Token::Param)
                           && t[k].text.toLower().endsWith("autocommit");
        if (!named || !(isSymbol(k + 1, "=") || isSymbol(k + 1, ":=")))
            continue;
        const QByteArray value = t[k + 2].text.toLower();
        if (value == "0" || value == "off" || value == "false")
            out.control = SqlStatement::AutocommitOff;
        else if (value == "1" || value == "on" || value == "true")
            out.control = SqlStatement::AutocommitOn;
    }
    scanReads(b + 1, e);
}
} // namespace

SqlStatement SqlStatement::read(const QByteArray& sql, const QHash<QByteArray, QByteArray>& keys,
                                bool backslashEscapes)
{
    SqlStatement result;
    QVector<Token> tokens;
    Reader reader(tokens, keys, result);
    if (!Tokenizer(sql, backslashEscapes).run(tokens) || !reader.pair()) {
        result.readsAnything = result.writesAnything = true;
        return result;
    }
    QList<QPair<int, int>> parts;
    int start = 0;
    int depth = 0;
    for (int k = 0; k <= tokens.size(); ++k) {
        const bool end = k == tokens.size();
        if (!end && tokens[k].type == Token::Symbol)
            depth += tokens[k].text == "(" ? 1 : tokens[k].text == ")" ? -1 : 0;
        if (end || (depth == 0 && tokens[k].type == Token::Symbol && tokens[k].text == ";")) {
            if (k > start)
                parts.append({start, k});
            start = k + 1;
        }
    }
    for (const auto& part : parts)
        reader.statement(part.first, part.second);
    // Several statements sent as one are read each, but a transaction's
    // start or end among them is more than one answer can say.
    if (parts.size() > 1 && result.control != Plain) {
        result.control = Plain;
        result.readsAnything = result.writesAnything = true;
    }
    return result;
}
