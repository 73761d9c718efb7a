#pragma once
// The record channel: hit and miss facts handed to the script's own
// statistics function "vesk_report_statistics" at request end.

#include "PageCachePulse.h"

// Both statistics switches of the record channel, read afresh.
bool isRecordChannelOn();
// Appends a record of that type for the current application.
void queueStatisticsRecord(int recordType);
// Reports and empties the request's queue.
void reportStatisticsRecords();
void reportStatisticsRecord(const PageCacheStatRecord& record);
