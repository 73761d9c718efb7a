#include "CacheEntry.h"
#include "VReadyHeaders.h"

#include <QDataStream>
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>

namespace {

using Headers = QLinkedList<QByteArray>;
const Headers Lines{"Set-Cookie: a=1", "X: 1", "set-cookie: b=2", "Bare"};
const QByteArray Digest(16, 'd');
// Each line as sent: R replaces the engine's lines of its name, J joins them; then its name's length.
const QList<QByteArray> Sent{"Set-Cookie: a=1 R10", "X: 1 R1", "set-cookie: b=2 J10", "Bare R4"};

QList<QByteArray> sent(const VReadyHeaders& ready)
{
    QList<QByteArray> lines;
    VReadyHeaders::Line line;
    for (int at = 0; ready.next(at, line);)
        lines << QByteArray(line.text, line.length) + (line.replaces ? " R" : " J") + QByteArray::number(line.nameLength);
    return lines;
}

// A record read in place, from a buffer the entry takes over.
CacheEntry taken(const QByteArray& record)
{
    char* buffer = static_cast<char*>(malloc(size_t(record.size())));
    memcpy(buffer, record.constData(), size_t(record.size()));
    CacheEntry entry;
    entry.takeRecord(buffer, record.size());
    return entry;
}

} // namespace

TEST(ReadyHeaders, FirstLineOfANameReplacesAndTheRulesPassedAreNamed)
{
    const QByteArray section = VReadyHeaders::section(Lines, Digest, 7);
    VReadyHeaders ready;
    ASSERT_TRUE(ready.view(section.constData(), section.size()));
    EXPECT_EQ(Sent, sent(ready));
    EXPECT_TRUE(ready.hasName("SET-COOKIE", 10));
    EXPECT_FALSE(ready.hasName("Set", 3));
    EXPECT_TRUE(ready.passed(Digest, 7));
    EXPECT_FALSE(ready.passed(Digest, 8));
    EXPECT_FALSE(ready.passed(QByteArray(16, 'e'), 7));
    ready.prepare(Lines);
    EXPECT_EQ(Sent, sent(ready));
    EXPECT_FALSE(ready.passed(Digest, -1));
}

// Any byte changed or cut off leaves the section untaken: the page's lines
// are then prepared from the record's own.
TEST(ReadyHeaders, DamagedOrShortSectionIsNotTaken)
{
    const QByteArray section = VReadyHeaders::section(Lines, Digest, 7);
    VReadyHeaders ready;
    for (int at = 0; at < section.size(); ++at) {
        QByteArray damaged = section;
        damaged[at] = char(damaged[at] ^ 0x40);
        EXPECT_FALSE(ready.view(damaged.constData(), damaged.size())) << at;
        EXPECT_FALSE(ready.view(section.constData(), at)) << at;
    }
    EXPECT_TRUE(ready.isNull());
}

TEST(ReadyHeaders, RecordsOfEveryFormReadTheSameLines)
{
    CacheEntry written;
    written.m_formatTag = CacheEntry::FormatTag;
    written.m_headers = Lines;
    written.m_body = "body";
    written.m_tags = {"t1"};
    written.m_passedRules = Digest;
    written.m_appId = 7;
    const QByteArray record = written.toRecord();
    // As an earlier version wrote it: the fields alone.
    QByteArray older;
    QDataStream out(&older, QIODevice::WriteOnly);
    out.setVersion(QDataStream::Qt_5_12);
    out << CacheEntry::FormatTag << written.m_created.toLocalTime() << QByteArray("u") << qint32(200) << Lines
        << QByteArray("body");
    for (const QByteArray& form : {record, older}) {
        CacheEntry copied;
        copied.readRecord(form);
        for (const CacheEntry& read : {copied, taken(form)}) {
            EXPECT_EQ(Lines, read.headers());
            EXPECT_EQ(QByteArray("body"), read.body());
            EXPECT_EQ(Sent, sent(read.readyHeaders()));
            EXPECT_EQ(form == record, read.readyHeaders().passed(Digest, 7));
            EXPECT_EQ(form == record ? QList<QByteArray>{"t1"} : QList<QByteArray>(), read.tags());
        }
    }
}
