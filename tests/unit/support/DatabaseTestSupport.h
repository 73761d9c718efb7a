#pragma once
// A private install directory, its data directory and a log stream to read
// back, for tests of the database users.

#include "LogFileTestSupport.h"
#include "VeskServerInfo.h"

#include <QDir>
#include <QSqlDatabase>
#include <QSqlQuery>
#include <QSqlRecord>
#include <QVariant>

#include <sys/stat.h>
#include <utime.h>

class DatabaseFixture : public LogFileFixture
{
protected:
    void SetUp() override
    {
        LogFileFixture::SetUp();
        log = logStream;
        info = VeskServerInfo(QFile::encodeName(dir.path()).constData(), "nginx", log);
    }

    QString dataPath(const QString& name) const
    {
        return QString::fromLocal8Bit(info.dataDir()) + '/' + name;
    }

    // Runs statements on a connection of the test's own, then closes it.
    static QList<QVariantList> sql(const QString& path, const QStringList& statements)
    {
        QList<QVariantList> rows;
        {
            QSqlDatabase db = QSqlDatabase::addDatabase(QStringLiteral("QSQLITE"), QStringLiteral("test"));
            db.setDatabaseName(path);
            EXPECT_TRUE(db.open());
            for (const QString& statement : statements) {
                QSqlQuery query(db);
                EXPECT_TRUE(query.exec(statement)) << statement.toStdString();
                while (query.next()) {
                    QVariantList row;
                    for (int i = 0; i < query.record().count(); ++i)
                        row << query.value(i);
                    rows << row;
                }
            }
        }
        QSqlDatabase::removeDatabase(QStringLiteral("test"));
        return rows;
    }

    // Writes the deployment tables as the deployment tools would, with the
    // rows `apps` of applications (column values), the marker untouched.
    void deploy(const QStringList& apps)
    {
        QDir().mkpath(QString::fromLocal8Bit(info.dataDir()));
        QStringList statements = {
            QStringLiteral("CREATE TABLE IF NOT EXISTS deployment_apps_info (app_id INTEGER PRIMARY KEY, "
                           "base_url TEXT, path TEXT, name TEXT, version TEXT, webserver_path TEXT)"),
            QStringLiteral("CREATE TABLE IF NOT EXISTS deployment_libs_info (lib_id INTEGER PRIMARY KEY, "
                           "base_url TEXT, path TEXT, name TEXT, version TEXT)"),
            QStringLiteral("DELETE FROM deployment_apps_info"),
            QStringLiteral("INSERT OR REPLACE INTO deployment_libs_info VALUES (1, '', '/lib', 'zf', '1')")};
        for (const QString& app : apps)
            statements << QStringLiteral("INSERT INTO deployment_apps_info VALUES (%1)").arg(app);
        sql(dataPath(QStringLiteral("deployment.db")), statements);
    }

    // Sets a file's date, in seconds from the start of the test, so that two
    // calls with one offset give one date even when a second passes between.
    void setFileDate(const QString& path, int secondsFromStart)
    {
        struct utimbuf times;
        times.actime = times.modtime = started + secondsFromStart;
        ASSERT_EQ(0, utime(QFile::encodeName(path).constData(), &times));
    }

    const time_t started = time(nullptr);
    VDebug::StreamId log = VDebug::DEVNULL;
    VeskServerInfo info;
};
