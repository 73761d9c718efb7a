#include "StatisticsRecords.h"

#include "AppLookup.h"
#include "GlobalDirectives.h"
#include "KeptBehaviour.h"
#include "ModuleState.h"
#include "RequestState.h"
#include "host/vesk_host.h"

#include "VDevBar.h"

bool isRecordChannelOn()
{
    return statisticsEnabled() && kept::pageCacheStatisticsEnabled();
}

void queueStatisticsRecord(int recordType)
{
    PageCacheStatRecord record;
    record.recordType = recordType;
    record.appId = currentAppId(requestState.url.whole());
    requestState.statisticsQueue.append(record);
}

void reportStatisticsRecord(const PageCacheStatRecord& record)
{
    if (!statisticsEnabled())
        return;
    // The toolbar shouldn't see the call as the script's own work.
    VDevBar* devBar = VDevBar::instance();
    const bool collecting = devBar->isCollectionEnabled();
    if (collecting)
        devBar->setCollectionEnabled(false);
    const VeskStatisticsRecord array{record.recordType,  record.recordSubType, record.counterValue,
                                     record.appId,       record.userNamespace, record.extraData};
    if (!vesk_call_statistics_function("vesk_report_statistics", array))
        VLOG(moduleState.logStream, 4) << "No vesk_report_statistics function to report to";
    if (collecting)
        devBar->setCollectionEnabled(true);
}

void reportStatisticsRecords()
{
    QList<PageCacheStatRecord>& queue = requestState.statisticsQueue;
    while (!queue.isEmpty())
        reportStatisticsRecord(queue.takeFirst());
}
