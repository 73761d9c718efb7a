#include "VCrc32c.h"
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
    VLastMD5 last;
    for (const char* text : {"abc", "abc", "", "abd", "abc"})
        EXPECT_EQ(VMD5::hash(text), last.of(text)) << text;
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

TEST(VCrc32c, KnownValueAndContinuation)
{
    EXPECT_EQ(0xE3069283u, crc32c("123456789", 9));
    EXPECT_EQ(0u, crc32c("", 0));
    // Bit by bit, as the definition goes, over lengths around the word size.
    QByteArray data;
    for (int i = 0; i < 70000; ++i)
        data += char(i * 7 + 3 + i / 251);
    // Short runs, and long ones that the instruction takes in three lanes.
    for (int size : {1, 7, 8, 9, 15, 16, 17, 999, 1000, 1535, 1536, 1537, 1543, 4099, 65536, 70000}) {
        quint32 expected = 0xFFFFFFFF;
        for (int i = 0; i < size; ++i) {
            expected ^= quint8(data[i]);
            for (int bit = 0; bit < 8; ++bit)
                expected = expected & 1 ? (expected >> 1) ^ 0x82F63B78 : expected >> 1;
        }
        EXPECT_EQ(~expected, crc32c(data.constData(), size_t(size))) << size;
        EXPECT_EQ(crc32c(data.constData(), size_t(size)),
                  crc32c(data.constData() + 5, size_t(size) - qMin(size, 5), crc32c(data.constData(), size_t(qMin(size, 5)))))
            << size;
    }
}
