#include "VException.h"
#include "VGlobals.h"
#include "VMD5.h"
#include "VPrivilegesDropper.h"

#include <QFile>
#include <QTemporaryDir>

#include <gtest/gtest.h>
#include <unistd.h>

TEST(VMD5, LowerCaseHexOfTheBytes)
{
    EXPECT_EQ(QByteArray("d41d8cd98f00b204e9800998ecf8427e"), VMD5::hash(QByteArray()));
    EXPECT_EQ(QByteArray("900150983cd24fb0d6963f7d28e17f72"), VMD5::hash("abc"));
}

TEST(VPrivilegesDropper, TakesTheIdentityForItsLifeOnly)
{
    if (geteuid() != 0)
        GTEST_SKIP() << "changing identity needs root";
    {
        VPrivilegesDropper dropper(65534, 65534);
        EXPECT_TRUE(dropper.dropped());
        EXPECT_EQ(65534u, geteuid());
        EXPECT_EQ(65534u, getegid());
    }
    EXPECT_EQ(0u, geteuid());
    EXPECT_EQ(0u, getegid());
}

TEST(VGlobals, PidFileLivesAsLongAsItsLastHandle)
{
    QTemporaryDir dir;
    VGlobals::setPidDirectory(QFile::encodeName(dir.path()));
    const QString path = dir.filePath(QStringLiteral("pagecache_cleaner.pid"));
    {
        QSharedPointer<PidFileData> pidFile =
            VGlobals::createPidFile(VDebug::DEVNULL, VeskServerInfo(), VGlobals::PID_PAGECACHE_CLEANER);
        QSharedPointer<PidFileData> second = pidFile;
        pidFile.reset();
        QFile file(path);
        ASSERT_TRUE(file.open(QIODevice::ReadOnly));
        EXPECT_EQ(QByteArray::number(qint64(getpid())) + '\n', file.readAll());
    }
    EXPECT_FALSE(QFile::exists(path));

    VGlobals::setPidDirectory(QByteArray());
    EXPECT_THROW(VGlobals::createPidFile(VDebug::DEVNULL, VeskServerInfo(), "x"), VException);
}
