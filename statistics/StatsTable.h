#pragma once

#include <QByteArray>
#include <QMap>
#include <QPair>

class VPageCacheStatsMessage;

// Text from the stream as a terminal may be shown it: control characters
// (C0, DEL, C1), backslashes and, in text that isn't UTF-8, every byte
// above 127 become \xHH, so that no sender moves the cursor, starts an
// escape sequence or begins a line of its own.
QByteArray printableText(const QByteArray& text);

// Hits, misses and time saved per rule and application, summed from the
// statistics stream the workers send.
class StatsTable
{
public:
    struct Figures
    {
        QByteArray name;
        qint64 possible = 0;
        qint64 hits = 0;
        qint64 misses = 0;
        qint64 timeSavedMs = 0;
        // Hits that were served past their lifetime, within the rule's grace.
        qint64 staleHits = 0;
        qint64 waits = 0;
        qint64 waitedMs = 0;
        // Removals by tag, and the pages they ended (the row of rule 0).
        qint64 tagRemovals = 0;
        qint64 pagesRemovedByTag = 0;
        // Of the pages answered, the share served from the store; 0 with none.
        double hitRatio() const;
    };
    typedef QPair<qint64, qint32> RuleAndApp;

    void add(const VPageCacheStatsMessage& message);
    // Takes the messages of one frame of the stream; false for another
    // component's message or a damaged one, which count for nothing.
    bool addFrame(const QByteArray& payload);

    const QMap<RuleAndApp, Figures>& rules() const { return m_rules; }
    // A table for a terminal, one line per rule.
    QByteArray text() const;
    // The same figures in Prometheus's text exposition format.
    QByteArray prometheus() const;

private:
    QMap<RuleAndApp, Figures> m_rules;
};
