#include "LearnedTags.h"

#include <QCryptographicHash>
#include <QStringList>

namespace {

bool matches(const QByteArray& pattern, const QByteArray& text)
{
    if (pattern.endsWith('*'))
        return text.startsWith(pattern.left(pattern.size() - 1));
    if (pattern.startsWith('*'))
        return text.endsWith(pattern.mid(1));
    return text == pattern;
}

// A row's value, which may itself stand for every value it begins (a
// LIKE), matched against an entry's value.
bool valueMatches(const QByteArray& pattern, const QByteArray& value)
{
    if (value.endsWith('*'))
        return pattern.endsWith('*') && value.startsWith(pattern.left(pattern.size() - 1));
    return matches(pattern, value);
}

QString suffix(const QByteArray& mark)
{
    return mark.isEmpty() ? QString() : QLatin1Char('@') + QString::fromLatin1(mark);
}

// Table names and key values go into tags with only plain characters.
QString tablePart(const QByteArray& table)
{
    return QString::fromLatin1(table.toPercentEncoding("$"));
}

} // namespace

bool LearnIgnoreList::parse(const QString& text, QString* bad)
{
    QStringList canonical;
    for (const QString& item : text.split(QLatin1Char(' '), Qt::SkipEmptyParts)) {
        const QByteArray entry = item.toUtf8().toLower();
        const int equals = entry.indexOf('=');
        const int dot = entry.lastIndexOf('.', equals);
        Entry parsed{entry, QByteArray(), QByteArray()};
        if (equals >= 0) {
            parsed = Entry{entry.left(dot), entry.mid(dot + 1, equals - dot - 1), entry.mid(equals + 1)};
        }
        if (parsed.table.isEmpty() || parsed.table == "*" || (equals >= 0 && (dot < 0 || parsed.column.isEmpty()))) {
            if (bad)
                *bad = item;
            return false;
        }
        entries.append(parsed);
        canonical.append(QString::fromUtf8(entry));
    }
    canonical.sort();
    if (!entries.isEmpty())
        m_mark = QCryptographicHash::hash(canonical.join(QLatin1Char(' ')).toUtf8(), QCryptographicHash::Md5)
                     .toHex()
                     .left(8);
    return true;
}

bool LearnIgnoreList::rowIgnored(const QByteArray& table, const QHash<QByteArray, QByteArray>& row) const
{
    for (const Entry& entry : entries) {
        if (!entry.column.isEmpty() && matches(entry.table, table) && row.contains(entry.column)
            && valueMatches(entry.value, row.value(entry.column)))
            return true;
    }
    return false;
}

bool LearnIgnoreList::ignores(const SqlTableAccess& write) const
{
    for (const Entry& entry : entries) {
        if (entry.column.isEmpty() && matches(entry.table, write.table))
            return true;
    }
    if (write.rowValues.isEmpty())
        return false;
    for (const auto& row : write.rowValues) {
        if (!rowIgnored(write.table, row))
            return false;
    }
    return true;
}

QString LearnedTags::everything(const QByteArray& mark)
{
    return QStringLiteral("db:*") + suffix(mark);
}

QSet<QString> LearnedTags::read(const SqlStatement& statement, const QByteArray& mark)
{
    const QString end = suffix(mark);
    QSet<QString> tags;
    if (statement.readsAnything)
        tags.insert(everything(mark));
    for (const SqlTableAccess& read : statement.reads) {
        const QString table = QStringLiteral("db:") + tablePart(read.table);
        if (read.rows.isEmpty())
            tags.insert(table + end);
        else
            tags.insert(table + QLatin1Char('~') + end);
        for (const QByteArray& row : read.rows)
            tags.insert(table + QLatin1Char('=') + QString::fromLatin1(row) + end);
    }
    if (!tags.isEmpty())
        tags.insert(QStringLiteral("db") + end);
    return tags;
}

QSet<QString> LearnedTags::removed(const SqlStatement& statement, const QList<LearnIgnoreList>& lists)
{
    QSet<QString> tags;
    for (const LearnIgnoreList& list : lists) {
        const QString end = suffix(list.mark());
        if (statement.writesAnything)
            tags.insert(QStringLiteral("db") + end);
        for (const SqlTableAccess& write : statement.writes) {
            if (list.ignores(write))
                continue;
            const QString table = QStringLiteral("db:") + tablePart(write.table);
            tags.insert(everything(list.mark()));
            tags.insert(table + end);
            if (write.rows.isEmpty())
                tags.insert(table + QLatin1Char('~') + end);
            for (const QByteArray& row : write.rows)
                tags.insert(table + QLatin1Char('=') + QString::fromLatin1(row) + end);
        }
    }
    return tags;
}
