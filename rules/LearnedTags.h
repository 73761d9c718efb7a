#pragma once

#include "SqlStatement.h"

#include <QByteArray>
#include <QList>
#include <QSet>
#include <QString>

// What a rule says of the writes that don't change its pages. Pages of
// rules with different lists carry different marks on their learned tags,
// so that a write one rule ignores still removes the pages of the others.
class LearnIgnoreList
{
public:
    // Entries separated by blanks: "TABLE", or "TABLE.COLUMN=VALUE" for the
    // rows holding that value. A name or value ending in "*" stands for any
    // it begins, a table beginning with "*" for any it ends (a prefix of
    // the application's tables). False, with the entry in `bad`, for an
    // entry that says neither.
    bool parse(const QString& text, QString* bad);
    // Whether every row `write` touches is one the list names.
    bool ignores(const SqlTableAccess& write) const;
    // The mark on the tags of this list's pages: empty for an empty list.
    QByteArray mark() const { return m_mark; }
    bool isEmpty() const { return entries.isEmpty(); }

private:
    struct Entry
    {
        QByteArray table;
        QByteArray column; // empty for the whole table
        QByteArray value;
    };
    bool rowIgnored(const QByteArray& table, const QHash<QByteArray, QByteArray>& row) const;
    QList<Entry> entries;
    QByteArray m_mark;
};

// The tags that tie a page to what it read. A page that read a whole table
// holds "db:TABLE"; one that read rows by key holds "db:TABLE=KEY" for each
// and "db:TABLE~"; one that read what can't be named holds "db:*"; every
// page that learned anything holds "db". A write to rows by key removes
// their row tags and the whole table's; a write to a table it can't narrow
// to rows removes the table's and every row's; every write removes "db:*",
// and a write of what can't be named removes "db". Each tag ends in its
// rule's mark ("@" and the mark) when the rule ignores some writes.
namespace LearnedTags {
// The tags reading `statement` gives a page whose rule's list has `mark`.
QSet<QString> read(const SqlStatement& statement, const QByteArray& mark);
// The tag that stands for all a page may have read.
QString everything(const QByteArray& mark);
// The tags `statement` removes, for pages under each of the lists.
QSet<QString> removed(const SqlStatement& statement, const QList<LearnIgnoreList>& lists);
} // namespace LearnedTags
