#pragma once

#include "ResponseRule.h"
#include "VDebug.h"

#include <QList>
#include <QSqlDatabase>
#include <QString>
#include <QStringList>

class QTextStream;

// Makes the rules file from the task daemon's page cache tables: the
// request rules as they stand in META_XML, then the response rules, put in
// place of the old file so that workers pick it up by its date.
namespace TKDPageCacheRule {

// Writes <productDir>/etc/pagecache_rules.xml by way of a ".new" file and
// answers the document; empty when the file can't be opened, or when the new
// file fails validation against the schema beside it: then it stays as the
// ".new" file and the current one is untouched. Throws VException when the
// new file can't be put in place.
QString writeRulesFile(const QSqlDatabase& db, const QString& productDir, VDebug::StreamId logStream);
// The whole document, pretty-printed; empty after a database failure.
QString buildRulesDocument(const QSqlDatabase& db, const QString& productDir, VDebug::StreamId logStream);
void rulesToXml(const QSqlDatabase& db, QTextStream* stream, VDebug::StreamId logStream);
QStringList loadRequestRules(const QSqlDatabase& db, VDebug::StreamId logStream);
QList<ResponseRule> loadResponseRules(const QSqlDatabase& db, VDebug::StreamId logStream);
QString responseRuleToXml(const ResponseRule& rule);

// Why the generator, which may run as root, mustn't trust `path`: a link,
// another user's file, or one others may write; empty when it may, or when
// nothing is there yet.
QString unsafePath(const QString& path);

// The tables, for a database that starts from nothing.
void createTables(const QSqlDatabase& db);

} // namespace TKDPageCacheRule
