#pragma once
// Which deployed application the running request belongs to; -1 for none.

#include <QByteArray>
#include <QtGlobal>

// By the script's path first, then by `url`, the request's whole URL.
qint32 currentAppId(const QByteArray& url);
