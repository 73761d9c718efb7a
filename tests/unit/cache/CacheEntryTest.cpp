#include "CacheEntry.h"

#include <QDataStream>
#include <QTimeZone>

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <ctime>

namespace {

using Headers = QLinkedList<QByteArray>;

QByteArray record(const QDateTime& created, const Headers& headers = {"Content-Type: text/html"},
                  const QByteArray& body = "<p>body</p>")
{
    QByteArray bytes;
    QDataStream out(&bytes, QIODevice::WriteOnly);
    out.setVersion(18);
    out << qint32(2019) << created << QByteArray("http://h/p") << qint32(200) << headers << body;
    return bytes;
}

// What the stream itself makes of a record, for comparison.
struct Streamed
{
    qint32 tag = 0;
    QDateTime created;
    QByteArray url;
    qint32 status = 0;
    Headers headers;
    QByteArray body;

    explicit Streamed(const QByteArray& bytes)
    {
        QDataStream in(bytes);
        in.setVersion(18);
        in >> tag >> created >> url >> status >> headers >> body;
    }
};

void expectAsStreamed(const QByteArray& bytes)
{
    CacheEntry entry;
    entry.readRecord(bytes);
    const Streamed expected(bytes);
    EXPECT_EQ(expected.tag, entry.formatTag());
    EXPECT_EQ(expected.created.isValid(), entry.created().isValid());
    if (expected.created.isValid()) {
        EXPECT_EQ(expected.created.toMSecsSinceEpoch(), entry.created().toMSecsSinceEpoch());
    }
    EXPECT_EQ(expected.url, entry.url());
    EXPECT_EQ(expected.status, entry.status());
    EXPECT_EQ(expected.headers, entry.headers());
    EXPECT_EQ(expected.body, entry.body());
    EXPECT_EQ(expected.body.isNull(), entry.body().isNull());
}

// Runs the test body in another time zone, one with summer time.
class InZone
{
public:
    explicit InZone(const char* zone)
    {
        const char* old = getenv("TZ");
        hadZone = old != nullptr;
        if (hadZone)
            previous = old;
        setenv("TZ", zone, 1);
        tzset();
    }
    ~InZone()
    {
        if (hadZone)
            setenv("TZ", previous.c_str(), 1);
        else
            unsetenv("TZ");
        tzset();
    }

private:
    bool hadZone = false;
    std::string previous;
};

} // namespace

TEST(CacheEntryTest, LocalCreationTimesReadBackAsTheSameInstantInSummerAndWinter)
{
    InZone zone("America/New_York");
    for (const QDate& date : {QDate(2026, 1, 15), QDate(2026, 7, 1), QDate(2026, 3, 8), QDate(1999, 12, 31)}) {
        const QDateTime local(date, QTime(12, 34, 56, 789), Qt::LocalTime);
        CacheEntry entry;
        entry.readRecord(record(local));
        EXPECT_EQ(Qt::UTC, entry.created().timeSpec());
        EXPECT_EQ(local.toMSecsSinceEpoch(), entry.created().toMSecsSinceEpoch()) << date.toString().toStdString();
    }
}

TEST(CacheEntryTest, WrittenInLocalTimeWhateverTheEntryHolds)
{
    InZone zone("America/New_York");
    CacheEntry entry;
    entry.m_formatTag = CacheEntry::FormatTag;
    entry.m_created = QDateTime(QDate(2026, 7, 1), QTime(16, 0), Qt::UTC);
    const QByteArray bytes = entry.toRecord();
    EXPECT_EQ(record(QDateTime(QDate(2026, 7, 1), QTime(12, 0), Qt::LocalTime), {}, QByteArray()).mid(0, 17),
              bytes.mid(0, 17));
    CacheEntry back;
    back.readRecord(bytes);
    EXPECT_EQ(entry.m_created, back.created());
}

TEST(CacheEntryTest, EveryOtherShapeReadsAsTheStreamReadsIt)
{
    const QDateTime utc(QDate(2026, 5, 4), QTime(3, 2, 1), Qt::UTC);
    expectAsStreamed(record(utc));
    expectAsStreamed(record(utc, {}, QByteArray()));
    expectAsStreamed(record(utc, {"A: 1", "B: 2", QByteArray()}, ""));
    expectAsStreamed(record(QDateTime(QDate(2026, 5, 4), QTime(3, 2, 1), Qt::OffsetFromUTC, 7200)));
    expectAsStreamed(record(QDateTime(QDate(2026, 5, 4), QTime(3, 2, 1), QTimeZone("Asia/Tokyo"))));
    expectAsStreamed(record(QDateTime()));
    expectAsStreamed(record(QDateTime(QDate(1066, 10, 14), QTime(9, 0), Qt::UTC)));
    const QByteArray whole = record(utc, {"A: 1", "B: 2"});
    for (int size = 0; size < whole.size(); ++size)
        expectAsStreamed(whole.left(size));
    expectAsStreamed(whole + "trailing bytes");
}

TEST(CacheEntryTest, ATakenRecordLendsItsBodyAndACopyOutlivesIt)
{
    const QByteArray bytes = record(QDateTime::currentDateTimeUtc(), {"X: 1"}, QByteArray(70000, 'b'));
    char* buffer = static_cast<char*>(malloc(size_t(bytes.size())));
    memcpy(buffer, bytes.constData(), size_t(bytes.size()));
    QByteArray copy;
    {
        CacheEntry entry;
        entry.takeRecord(buffer, bytes.size());
        EXPECT_EQ(buffer + bytes.size() - 70000, entry.bodyData());
        EXPECT_EQ(70000, entry.bodySize());
        const CacheEntry shared = entry;
        entry = CacheEntry();
        EXPECT_EQ(QByteArray(70000, 'b'), QByteArray(shared.bodyData(), shared.bodySize()));
        copy = shared.body();
    }
    EXPECT_EQ(QByteArray(70000, 'b'), copy);
}
