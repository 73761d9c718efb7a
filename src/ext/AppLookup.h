#pragma once
// Which deployed application the running request belongs to; -1 for none.

#include <QtGlobal>

qint32 appIdForUrl(const char* url);
qint32 appIdForPath(const char* path);
qint32 currentAppId();
