#pragma once

#include <QDateTime>
#include <QList>
#include <QRegExp>
#include <QString>
#include <QUrl>

// A response header condition of a purge rule. Stored and read back; no
// matching looks at it yet.
struct PurgeResponseHeader
{
    QString name;
    QString op;
    QString value;
};

// One purge rule: what it covers (a URL, a pattern, pages older than a time)
// and for which application; the empty name means all applications.
struct PurgeRule
{
    QDateTime ruleCreationTime;
    QString applicationName;
    qint64 id = -1;
    QList<PurgeResponseHeader> responseHeaders;
    QUrl url;
    QRegExp regex;
    QDateTime creationTime;
    QString name;
};
