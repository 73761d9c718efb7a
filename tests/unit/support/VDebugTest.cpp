#include "LogFileTestSupport.h"
#include "VException.h"

#include <QRegularExpression>

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

class VDebugTest : public LogFileFixture
{
protected:
    VDebugTest() : LogFileFixture(3) {}
    QByteArray log() const { return logText(); }

    const QByteArray& path = logPath;
    const VDebug::StreamId& stream = logStream;
};

TEST_F(VDebugTest, LineHasHeaderAndItemsEachFollowedByOneBlank)
{
    const char* nothing = nullptr;
    VLOG(stream, 3) << "Rules File:" << QStringLiteral("/etc/rules.xml") << qint64(-5) << QByteArray("bytes")
                    << nothing << 7u << quint64(18446744073709551615ull) << true;
    const QRegularExpression form(QStringLiteral(
        "^\\[Page-Cache \\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d\\.\\d{3} p%1/t\\d+ INFO\\] "
        "Rules File: /etc/rules.xml -5 bytes \\(null\\) 7 18446744073709551615 1 \\n$").arg(getpid()));
    EXPECT_TRUE(form.match(QString::fromLatin1(log())).hasMatch()) << log().constData();
}

TEST_F(VDebugTest, LevelIsTestedAgainstTheSink)
{
    VLOG(stream, 3) << "written";
    VLOG(stream, 4) << "not written";
    VDebug::setDebugLevel(stream, 0);
    VLOG(stream, 0) << "failure";
    VLOG(stream, 1) << "survived";
    const QByteArray text = log();
    EXPECT_TRUE(text.contains("written "));
    EXPECT_FALSE(text.contains("not written"));
    EXPECT_TRUE(text.contains("ERROR] failure "));
    EXPECT_FALSE(text.contains("survived"));
    EXPECT_EQ(2, text.count('\n'));
}

TEST_F(VDebugTest, LineFeedEndingAStringStartsANewHeaderOtherControlBytesAreEscaped)
{
    VLOG(stream, 3) << "first\n" << "second";
    VLOG(stream, 3) << QStringLiteral("third\n") << QByteArray("fourth\n\x1b[2J") << "fifth\r";
    const QList<QByteArray> lines = log().split('\n');
    ASSERT_EQ(5, lines.size());
    EXPECT_TRUE(lines[0].endsWith("INFO] first"));
    EXPECT_TRUE(lines[1].startsWith(" [Page-Cache "));
    EXPECT_TRUE(lines[1].endsWith("INFO] second "));
    EXPECT_TRUE(lines[2].endsWith("INFO] third"));
    EXPECT_TRUE(lines[3].endsWith("INFO] fourth\\x0a\\x1b[2J fifth\\x0d ")) << lines[3].constData();
}

TEST_F(VDebugTest, EmptySlotFallsBackToStandardError)
{
    const QByteArray capture = QFile::encodeName(dir.filePath(QStringLiteral("stderr")));
    const int saved = dup(STDERR_FILENO);
    const int fd = open(capture.constData(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    ASSERT_GE(fd, 0);
    dup2(fd, STDERR_FILENO);
    VLOG(0, 3) << "to stream zero";
    VLOG(VDebug::MaxStreams - 1, 3) << "to an empty slot";
    VLOG(VDebug::DEVNULL, 0) << "never";
    VLOG(VDebug::MaxStreams + 3, 0) << "no sink at all";
    dup2(saved, STDERR_FILENO);
    close(saved);
    close(fd);
    QFile file(QString::fromLocal8Bit(capture));
    ASSERT_TRUE(file.open(QIODevice::ReadOnly));
    const QByteArray text = file.readAll();
    EXPECT_TRUE(text.contains("INFO] to stream zero \n"));
    EXPECT_TRUE(text.contains("INFO] to an empty slot \n"));
    EXPECT_FALSE(text.contains("never"));
    EXPECT_FALSE(text.contains("no sink"));
    EXPECT_TRUE(log().isEmpty());
}

TEST_F(VDebugTest, ExpiredRaisedLevelIsPutBackByTheNextFullStatement)
{
    VDebug::setCircularBuffer(stream, true);
    VDebug::raiseLevelFor(stream, 5, 0);
    // The level test passes against the raised level; the full way then finds
    // the time run out, restores level 3, and the statement is tested again.
    VLOG(stream, 5) << "trace";
    VLOG(stream, 4) << "debug";
    VLOG(stream, 3) << "info";
    EXPECT_FALSE(log().contains("trace"));
    EXPECT_FALSE(log().contains("debug"));
    EXPECT_TRUE(log().contains("info"));
    // Statements that are off still reach the circular buffer.
    EXPECT_TRUE(VDebug::circularBufferContents(stream).contains("debug"));
    VDebug::setCircularBuffer(stream, false);
}

// Workers share the master's descriptor; eight of them passing the size at
// once rotate the file once, and every line of theirs is whole.
TEST_F(VDebugTest, WorkersAppendWholeLinesAndRotateOnce)
{
    const int workers = 8;
    for (int round = 0; round < 30; ++round) {
        VDebug::unregisterStream(logStream);
        QFile::remove(QString::fromLocal8Bit(path + ".1"));
        QFile::remove(QString::fromLocal8Bit(path));
        SetUp();
        VDebug::setRotationSize(stream, 1);
        ASSERT_EQ(0, truncate(path.constData(), 1024 * 1024 - 100));
        int gate[2];
        ASSERT_EQ(0, pipe(gate));
        for (int w = 0; w < workers; ++w) {
            if (fork() == 0) {
                char go;
                close(gate[1]);
                if (read(gate[0], &go, 1) == 0)
                    VLOG(stream, 3) << "worker" << w << QByteArray(200, 'x');
                _exit(0);
            }
        }
        close(gate[0]);
        close(gate[1]);
        for (int w = 0; w < workers; ++w)
            wait(nullptr);
        ASSERT_FALSE(QFile::exists(QString::fromLocal8Bit(path + ".2"))) << "round " << round;
        const QList<QByteArray> written = log().split('\n');
        ASSERT_EQ(workers + 1, written.size());
        for (int i = 0; i < workers; ++i)
            ASSERT_TRUE(written[i].endsWith(QByteArray(200, 'x') + ' ')) << written[i].constData();
    }
}

TEST_F(VDebugTest, RotatesAtTheSizeAndKeepsFiveFiles)
{
    VDebug::setRotationSize(stream, 1);
    const QByteArray payload(64 * 1024, 'r');
    for (int i = 0; i < 8 * 16 + 4; ++i)
        VLOG(stream, 3) << payload;
    EXPECT_LE(QFile(QString::fromLocal8Bit(path)).size(), 1024 * 1024);
    for (int i = 1; i <= VDebug::RotatedFilesKept; ++i)
        EXPECT_TRUE(QFile::exists(QString::fromLocal8Bit(path + '.' + QByteArray::number(i)))) << i;
    EXPECT_FALSE(QFile::exists(QString::fromLocal8Bit(path + ".6")));
}

TEST(VDebugRegistration, MissingOrUnwritableFileThrows)
{
    EXPECT_THROW(VDebug::registerStream("Page-Cache", nullptr), VException);
    try {
        VDebug::registerStream("Page-Cache", "/nonexistent-dir/pagecache.log");
        FAIL();
    } catch (const VException& e) {
        EXPECT_STREQ("Failed to open the log file /nonexistent-dir/pagecache.log: No such file or directory",
                     e.what());
    }
}

} // namespace
