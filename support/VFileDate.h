#pragma once

#include <QByteArray>
#include <QDateTime>
#include <QString>

// A file's modification time in UTC, straight from stat(): null when the
// file is missing. Cheaper than QFileInfo::lastModified(), whose local time
// makes the C library look at the time zone file on every call, and the
// request path asks for file dates on every request. In a process that
// settles a VFileWatch per request, a date may come from its memory.
QDateTime fileModified(const char* path);
QDateTime fileModified(const QByteArray& path);
QDateTime fileModified(const QString& path);
