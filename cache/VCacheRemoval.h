#pragma once

#include "TKDTaskInserter.h"

#include <QByteArray>
#include <QDateTime>
#include <QList>
#include <QString>

class VHTMLCache;

// One removal of stored pages, as a script function, the command-line tool
// or a task from another node of the farm asks for it. It is carried out
// here the same way whoever asked, and it names itself as the task that
// asks the other nodes for the same: a JSON array of the script function's
// name and its arguments.
class VCacheRemoval
{
public:
    enum Kind { ByPattern, ByUri, ByRule, ByRuleIds, All, Purge, ByTags };

    // The rule's URL pattern, with ordinary groups or non-capturing ones.
    static VCacheRemoval byPattern(const QByteArray& url);
    static VCacheRemoval byUri(const QByteArray& rule, const QByteArray& uri);
    static VCacheRemoval byRule(const QByteArray& rule);
    static VCacheRemoval byRuleIds(const QList<qint64>& ids);
    static VCacheRemoval all();
    // The pages holding any of `tags`.
    static VCacheRemoval byTags(const QList<QByteArray>& tags);
    // The pages a purge rule covers: those of `url` (empty for none), and
    // those created at or before `createdUntil` (invalid for none), to the
    // millisecond. The store
    // doesn't know a page's application, so a purge for one application
    // removes such pages of every application: one miss more, never a
    // stale page.
    static VCacheRemoval purge(const QString& url, const QDateTime& createdUntil, const QString& application);

    // The removal a task's payload asks for; false, with the reason in
    // `error`, for anything else.
    static bool fromPayload(const QByteArray& payload, VCacheRemoval* removal, QString* error);

    // Removes the pages from this process's store, logging as the script
    // functions do; false when the store or the rules refused.
    bool carryOut(VHTMLCache& cache) const;

    Kind kind() const { return m_kind; }
    tkd::TaskType taskType() const;
    QString payload() const;
    // What the log says when the task can't be queued.
    const char* queueFailure() const;

private:
    bool removeByRuleIds(VHTMLCache& cache) const;
    bool removePurged(VHTMLCache& cache) const;
    bool removeByTags(VHTMLCache& cache) const;

    Kind m_kind = All;
    QByteArray m_first;  // the pattern, or the rule's name
    QByteArray m_second; // the URI
    QList<qint64> m_ids;
    QList<QByteArray> m_tags;
    QString m_url;
    QDateTime m_createdUntil;
    QString m_application;
};
