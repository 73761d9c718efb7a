#include "VPageCacheStatsMessage.h"

#include "VeskDB.h"

QDataStream& VPageCacheStatsMessage::readFrom(QDataStream& stream)
{
    return stream >> appId >> serverNumber >> counterType >> counterValue >> ruleName >> ruleId >> key
           >> timestamp;
}

QDataStream& VPageCacheStatsMessage::writeTo(QDataStream& stream) const
{
    return stream << appId << serverNumber << counterType << counterValue << ruleName << ruleId << key
                  << timestamp;
}

void VPageCacheStatsMessage::merge(const QSharedPointer<VMessageBase>& other)
{
    counterValue += other.staticCast<VPageCacheStatsMessage>()->counterValue;
}

QString VPageCacheStatsMessage::aggregationKey() const
{
    return QStringLiteral("%1.%2.%3.%4")
        .arg(counterType)
        .arg(ruleId)
        .arg(QString::fromLocal8Bit(key.constData()))
        .arg(appId);
}

void VPageCacheStatsMessage::assignFrom(const QSharedPointer<VMessageBase>& other)
{
    const QSharedPointer<VPageCacheStatsMessage> from = other.staticCast<VPageCacheStatsMessage>();
    statisticsId = from->statisticsId;
    appId = from->appId;
    serverNumber = from->serverNumber;
    counterType = from->counterType;
    counterValue = from->counterValue;
    timestamp = from->timestamp;
    ruleName = from->ruleName;
    key = from->key;
    ruleId = from->ruleId;
}

QString VPageCacheStatsMessage::toString() const
{
    return QStringLiteral("Page Cache Message: {CounterType: %1, CounterValue: %2, RuleName: %3, Key: %4, AppID: %5}")
        .arg(counterType)
        .arg(counterValue)
        .arg(QString::fromLocal8Bit(ruleName), QString::fromLocal8Bit(key))
        .arg(appId);
}

void VPageCacheStatsMessage::saveToDb(const QSqlDatabase& connection, const QString& tableName, int period,
                                      VDebug::StreamId logStream) const
{
    VSafeSqlQuery query(connection, true);
    query.prepare(QStringLiteral("replace into %1 (id, entry_type_id, rule_id, app_id, counter_value, from_time, "
                                 "until_time) values (NULL, :entry_type_id, :rule_id, :app_id, :counter_value, "
                                 ":from_time, :until_time)")
                      .arg(tableName));
    query.bindValue(QStringLiteral(":entry_type_id"), counterType);
    query.bindValue(QStringLiteral(":rule_id"), ruleId);
    query.bindValue(QStringLiteral(":app_id"), appId);
    query.bindValue(QStringLiteral(":counter_value"), counterValue);
    query.bindValue(QStringLiteral(":from_time"), timestamp);
    query.bindValue(QStringLiteral(":until_time"), timestamp + period);
    query.execWithRetries(logStream, 10);
}
