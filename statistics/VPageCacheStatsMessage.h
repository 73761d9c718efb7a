#pragma once

#include "VDebug.h"
#include "VMessageBase.h"

#include <QByteArray>
#include <QSqlDatabase>

// A counter fact of one of the product's components.
class VStatisticsMessage : public VMessageBase
{
public:
    explicit VStatisticsMessage(int kind) : VMessageBase(kind) {}

    qint64 timestamp = 0;
    qint32 statisticsId = -1;
    qint32 appId = -1;
    qint32 serverNumber = 0;
    qint32 counterType = -1;
    qint64 counterValue = 0;
    QByteArray serverText;
};

// One fact of the page cache: a rule was consulted (0), a page served (1),
// a page built (2), or what building it took in milliseconds (3).
class VPageCacheStatsMessage : public VStatisticsMessage
{
public:
    // A stale hit sends Hit and Stale; a request that waited for another
    // worker's build sends Wait with the milliseconds it waited. A removal
    // by tag sends TagRemoval with the number of pages it ended.
    enum CounterType { Possible = 0, Hit = 1, Miss = 2, TimeSaved = 3, Stale = 4, Wait = 5, TagRemoval = 6 };
    static constexpr int Kind = 1;

    VPageCacheStatsMessage() : VStatisticsMessage(Kind) {}

    QDataStream& readFrom(QDataStream& stream) override;
    QDataStream& writeTo(QDataStream& stream) const override;
    void merge(const QSharedPointer<VMessageBase>& other) override;
    QString aggregationKey() const override;
    void assignFrom(const QSharedPointer<VMessageBase>& other) override;
    QString toString() const override;
    // Keeps the fact as one row of a table of the receiving side, covering
    // `period` seconds from its time. Throws VException.
    void saveToDb(const QSqlDatabase& connection, const QString& tableName, int period,
                  VDebug::StreamId logStream) const;

    QByteArray ruleName;
    QByteArray key;
    qint64 ruleId = 0;
};
