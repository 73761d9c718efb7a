#pragma once
// A private temporary directory and a log stream writing into a file in it,
// which the test reads back.

#include "VDebug.h"

#include <QFile>
#include <QTemporaryDir>

#include <gtest/gtest.h>

class LogFileFixture : public ::testing::Test
{
protected:
    explicit LogFileFixture(int level = 5) : logLevel(level) {}

    void SetUp() override
    {
        ASSERT_TRUE(dir.isValid());
        logPath = QFile::encodeName(dir.filePath(QStringLiteral("pagecache.log")));
        logStream = VDebug::registerStream("Page-Cache", logPath.constData());
        VDebug::setDebugLevel(logStream, logLevel);
    }
    void TearDown() override { VDebug::unregisterStream(logStream); }

    QByteArray logText() const
    {
        QFile file(QString::fromLocal8Bit(logPath));
        return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
    }

    const int logLevel;
    QTemporaryDir dir;
    QByteArray logPath;
    VDebug::StreamId logStream = VDebug::DEVNULL;
};
