#pragma once

#include "ApplicationRecord.h"

#include "VDebug.h"
#include "VeskServerInfo.h"

#include <QDateTime>
#include <QList>
#include <QMap>
#include <QString>

// The deployed applications of this server, read from the deployment
// database and read again only when the deployment tools touch the marker
// file. Each object keeps a cache of its own.
class VDeploymentInfo
{
public:
    VDeploymentInfo(const VeskServerInfo& serverInfo, VDebug::StreamId logStream,
                    const QString& connectionName);

    // Re-reads the tables when the marker file is newer than the last read.
    void refresh();
    // Between these two, every object takes the marker's date from one look
    // at the file: a request asks up to three lookups, and a deployment is
    // seen by the next request all the same. Outside, each refresh looks.
    static void beginRequest();
    static void endRequest();

    bool hasApplications() const { return !byId.isEmpty(); }

    ApplicationRecord applicationById(qint32 id) const;
    // The record whose base URL occurs in `url`, the longest base URL first.
    ApplicationRecord applicationForUrl(const QString& url) const;
    // The record whose path occurs in the script's path (or in the target
    // of a script that is a symbolic link), the shortest path first.
    ApplicationRecord applicationForPath(const QString& path) const;

    QString markerFileName() const { return markerFile; }
    QDateTime lastFetchTime() const { return lastFetch; }

    static const int QueryRetries = 10;

private:
    void fetch(const QString& connectionName);
    QDateTime markerDate() const;

    QString markerFile;
    QByteArray markerPath; // the same, as the file system names it
    QDateTime lastFetch;
    VeskServerInfo serverInfo;
    VDebug::StreamId logStream;
    QMap<qint32, ApplicationRecord> byId;
    QList<ApplicationRecord> byUrl;
    QList<ApplicationRecord> byPath;
    QList<LibraryRecord> libraries;
};
