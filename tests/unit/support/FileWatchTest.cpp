#include "VFileDate.h"
#include "VFileWatch.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTemporaryDir>

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <utime.h>

namespace {

void writeFile(const QByteArray& path, const QByteArray& text)
{
    QFile file(QString::fromLocal8Bit(path));
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    file.write(text);
}

// Each way a writer (an editor, the generator, SQLite, a deploy) changes a
// file a worker dates on every request, done between two requests.
struct Change
{
    const char* name;
    bool existsBefore;
    void (*make)(const QByteArray& path);
    const char* file = "watched";
};

const Change changes[] = {
    {"touched", true, [](const QByteArray& p) { struct utimbuf t = {1000000, 1000000}; utime(p.constData(), &t); }},
    {"written in place", true, [](const QByteArray& p) { writeFile(p, "new"); }},
    {"renamed over", true, [](const QByteArray& p) { writeFile(p + ".new", "x"); rename((p + ".new").constData(), p.constData()); }},
    {"created", false, [](const QByteArray& p) { writeFile(p, "x"); }},
    {"removed", true, [](const QByteArray& p) { unlink(p.constData()); }},
    {"created with its folders", false,
     [](const QByteArray& p) { QDir().mkpath(QFileInfo(QFile::decodeName(p)).path()); writeFile(p, "x"); },
     "db/var/watched"},
};

class FileWatch : public ::testing::TestWithParam<Change>
{
protected:
    void TearDown() override { VFileWatch::reset(); }
};

} // namespace

TEST_P(FileWatch, AChangeBetweenTwoRequestsIsSeenByTheSecond)
{
    QTemporaryDir dir;
    const QByteArray path = QFile::encodeName(dir.filePath(QString::fromLatin1(GetParam().file)));
    if (GetParam().existsBefore) {
        writeFile(path, "old");
        struct utimbuf old = {500000, 500000};
        utime(path.constData(), &old);
    }
    VFileWatch::settle();
    const QDateTime before = fileModified(path);
    // Kept: the next request asks no stat().
    QDateTime kept;
    VFileWatch::settle();
    EXPECT_TRUE(VFileWatch::known(path.constData(), &kept));
    EXPECT_EQ(before, kept);
    GetParam().make(path);
    struct stat st;
    const bool exists = stat(path.constData(), &st) == 0;
    VFileWatch::settle();
    const qint64 ms = qint64(st.st_mtim.tv_sec) * 1000 + st.st_mtim.tv_nsec / 1000000;
    EXPECT_EQ(exists ? QDateTime::fromMSecsSinceEpoch(ms, Qt::UTC) : QDateTime(), fileModified(path));
}

INSTANTIATE_TEST_SUITE_P(Changes, FileWatch, ::testing::ValuesIn(changes),
                         [](const ::testing::TestParamInfo<Change>& info) {
                             QByteArray name = info.param.name;
                             return name.replace(' ', '_').toStdString();
                         });
