#pragma once

#include <QByteArray>
#include <QHash>
#include <QList>

// One table that a statement reads or writes.
struct SqlTableAccess
{
    // In lower case, without quotes or schema.
    QByteArray table;
    // The values of the table's key column that the statement names as all
    // the rows it touches; empty for the whole table, or rows it can't tell.
    QList<QByteArray> rows;
    // For a write: what the written rows are known to hold, column to
    // value in lower case, one map per row or one for all; a value ending
    // in "*" stands for any value it begins (LIKE 'x%'). Empty when the
    // statement doesn't say.
    QList<QHash<QByteArray, QByteArray>> rowValues;
};

// What one SQL text does to the data, as far as its words tell. A text
// it can't read well enough reads and writes anything: never nothing.
class SqlStatement
{
public:
    // Autocommit off holds every write that follows until a commit, and
    // turning it on again commits.
    enum Control { Plain, Begin, Commit, Rollback, AutocommitOff, AutocommitOn };

    // `keys` names the key column of a table (both in lower case); a table
    // not listed has "id". `backslashEscapes`: a backslash escapes in
    // quoted text (MySQL's dialect; SQLite's has none).
    static SqlStatement read(const QByteArray& sql, const QHash<QByteArray, QByteArray>& keys,
                             bool backslashEscapes);

    Control control = Plain;
    // Reads something it can't name: it depends on every write.
    bool readsAnything = false;
    // Writes something it can't name: every page that learned anything
    // depends on it.
    bool writesAnything = false;
    QList<SqlTableAccess> reads;
    QList<SqlTableAccess> writes;
};
