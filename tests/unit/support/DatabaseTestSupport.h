#pragma once
// A private install directory, its data directory and a log stream to read
// back, for tests of the database users.

#include "VDebug.h"
#include "VeskServerInfo.h"

#include <QFile>
#include <QSqlDatabase>
#include <QSqlQuery>
#include <QSqlRecord>
#include <QTemporaryDir>
#include <QVariant>

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <utime.h>

class DatabaseFixture : public ::testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_TRUE(dir.isValid());
        logPath = QFile::encodeName(dir.filePath(QStringLiteral("pagecache.log")));
        log = VDebug::registerStream("Page-Cache", logPath.constData());
        VDebug::setDebugLevel(log, 5);
        info = VeskServerInfo(QFile::encodeName(dir.path()).constData(), "nginx", log);
    }
    void TearDown() override { VDebug::unregisterStream(log); }

    QString dataPath(const QString& name) const
    {
        return QString::fromLocal8Bit(info.dataDir()) + '/' + name;
    }

    QByteArray logText() const
    {
        QFile file(QString::fromLocal8Bit(logPath));
        return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
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

    // Sets a file's date, in seconds from the start of the test, so that two
    // calls with one offset give one date even when a second passes between.
    void setFileDate(const QString& path, int secondsFromStart)
    {
        struct utimbuf times;
        times.actime = times.modtime = started + secondsFromStart;
        ASSERT_EQ(0, utime(QFile::encodeName(path).constData(), &times));
    }

    const time_t started = time(nullptr);
    QTemporaryDir dir;
    QByteArray logPath;
    VDebug::StreamId log = VDebug::DEVNULL;
    VeskServerInfo info;
};
