#include "VDeploymentInfo.h"

#include "VException.h"
#include "VFileDate.h"
#include "VeskDB.h"

#include <QDir>
#include <QFileInfo>

#include <algorithm>
#include <utility>
#include <vector>

namespace {

const char defaultConnectionName[] = "VDeploymentInfoFetchData";
const char appsAndLibsQuery[] =
    "select 'app', app_id, base_url, path, name, version, webserver_path from deployment_apps_info "
    "union select 'lib', *, NULL from deployment_libs_info";

// A missing file has no date; a date is later than no date.
bool isEarlier(const QDateTime& a, const QDateTime& b)
{
    return b.isValid() && (!a.isValid() || a < b);
}

bool contains(const QString& text, const QString& part)
{
    return text.indexOf(part) != -1;
}

// Marker dates seen during the running request, by path: in practice one
// path, so a short list that keeps its room from request to request.
bool inRequest = false;
std::vector<std::pair<QByteArray, QDateTime>> markersSeen;

} // namespace

void VDeploymentInfo::beginRequest()
{
    markersSeen.clear();
    inRequest = true;
}

void VDeploymentInfo::endRequest()
{
    inRequest = false;
    markersSeen.clear();
}

QDateTime VDeploymentInfo::markerDate() const
{
    if (!inRequest)
        return fileModified(markerPath);
    for (const auto& seen : markersSeen) {
        if (seen.first == markerPath)
            return seen.second;
    }
    markersSeen.emplace_back(markerPath, fileModified(markerPath));
    return markersSeen.back().second;
}

VDeploymentInfo::VDeploymentInfo(const VeskServerInfo& serverInfo, VDebug::StreamId logStream,
                                 const QString& connectionName)
    : markerFile(QStringLiteral("%1/%2").arg(QString::fromLocal8Bit(serverInfo.dataDir()),
                                              QStringLiteral("deployment_update"))),
      markerPath(QFile::encodeName(markerFile)), serverInfo(serverInfo), logStream(logStream)
{
    fetch(connectionName);
}

void VDeploymentInfo::refresh()
{
    if (isEarlier(lastFetch, markerDate()))
        fetch(QString());
}

void VDeploymentInfo::fetch(const QString& connectionName)
{
    byId.clear();
    byUrl.clear();
    byPath.clear();
    libraries.clear();

    const QString path = QStringLiteral("%1%2%3").arg(QString::fromLocal8Bit(serverInfo.dataDir()),
                                                     QDir::separator(),
                                                     VeskDB::getSqliteDbFileName(DB_DEPLOYMENT));
    if (!QFileInfo::exists(path)) {
        VLOG(logStream, 4) << "Cannot find" << path;
        return;
    }

    const QString name = connectionName.isEmpty() ? QLatin1String(defaultConnectionName)
                                                  : connectionName;
    try {
        QSqlDatabase db = VeskDbSQliteInfo::get(DB_DEPLOYMENT, serverInfo).connection(0, name);
        {
            VSafeSqlQuery query(db, true);
            query.prepare(QLatin1String(appsAndLibsQuery));
            query.execWithRetries(logStream, QueryRetries);
            while (query.next()) {
                if (query.value(0).toString() == QLatin1String("app")) {
                    ApplicationRecord app;
                    app.id = query.value(1).toInt();
                    app.baseUrl = query.value(2).toString();
                    app.path = QDir::toNativeSeparators(query.value(3).toString());
                    app.name = query.value(4).toString();
                    app.version = query.value(5).toString();
                    app.webserverPath = QDir::toNativeSeparators(query.value(6).toString());
                    VLOG(logStream, 5) << "Adding app info: url" << app.baseUrl << app.path;
                    byId.insert(app.id, app);
                    byUrl << app;
                    byPath << app;
                } else {
                    LibraryRecord library;
                    for (int column = 0; column < 5; ++column)
                        library.columns[column] = query.value(column + 1);
                    libraries << library;
                }
            }
        }
        db = QSqlDatabase();
        QSqlDatabase::removeDatabase(name);
    } catch (const VException& e) {
        VLOG(logStream, 0) << "VDeploymentInfo::fetchData:" << e.what();
        QSqlDatabase::removeDatabase(name);
        return;
    }

    std::stable_sort(byUrl.begin(), byUrl.end(),
                     [](const ApplicationRecord& a, const ApplicationRecord& b) {
                         return a.baseUrl.length() > b.baseUrl.length();
                     });
    std::stable_sort(byPath.begin(), byPath.end(),
                     [](const ApplicationRecord& a, const ApplicationRecord& b) {
                         return a.path.length() < b.path.length();
                     });
    lastFetch = markerDate();
}

ApplicationRecord VDeploymentInfo::applicationById(qint32 id) const
{
    return byId.value(id, ApplicationRecord());
}

ApplicationRecord VDeploymentInfo::applicationForUrl(const QString& url) const
{
    for (const ApplicationRecord& app : byUrl) {
        if (contains(url, app.baseUrl))
            return app;
    }
    return ApplicationRecord();
}

ApplicationRecord VDeploymentInfo::applicationForPath(const QString& path) const
{
    const QString native = QDir::toNativeSeparators(path);
    // The link is looked at only when some application has a path to match.
    const bool anyPath = std::any_of(byPath.cbegin(), byPath.cend(),
                                     [](const ApplicationRecord& app) { return !app.path.isEmpty(); });
    QFileInfo info(path);
    const QString target = anyPath && info.isSymLink() ? QDir::toNativeSeparators(info.symLinkTarget())
                                                       : QString();
    for (const ApplicationRecord& app : byPath) {
        if (app.path.isEmpty())
            continue;
        const bool hasServerPath = !app.webserverPath.isEmpty();
        if (contains(native, app.path) || (hasServerPath && contains(native, app.webserverPath))
            || (!target.isEmpty()
                && (contains(target, app.path)
                    || (hasServerPath && contains(target, app.webserverPath)))))
            return app;
    }
    return ApplicationRecord();
}
