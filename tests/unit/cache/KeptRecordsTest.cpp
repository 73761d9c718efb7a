#include "VDiskStorage.h"
#include "VFileWatch.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTemporaryDir>

#include <gtest/gtest.h>
#include <ctime>
#include <malloc.h>
#include <functional>

namespace {

// Ahead of the files' change times, so that what is read may be kept.
class LaterEnv : public VDiskStorageEnv
{
public:
    qint64 clock = qint64(time(nullptr)) + 10;
    qint64 now() override { return clock; }
};

// A worker's store that has read a page (and keeps it), and another
// process's store over the same root: a worker, a purge, the cleaner or
// the farm agent, which all reach pages through these operations. The
// worker checks its copies by stat(), or (`watched`) by the reports of its
// folders' watches, taken in at each request as a worker does.
class KeptRecords : public ::testing::Test
{
protected:
    void SetUp() override
    {
        const VDiskStorage::VDiskStorageInit init(2, QFile::encodeName(dir.path()), 1, "HTML-Cache", false);
        worker.reset(new VDiskStorage(init, &env));
        other.reset(new VDiskStorage(init, &env));
        if (watched)
            VFileWatch::settle();
    }
    void TearDown() override
    {
        worker.reset();
        EXPECT_EQ(0, VFileWatch::watchCount());
        VFileWatch::reset();
    }
    QByteArray served(const QByteArray& key = "key")
    {
        if (watched)
            VFileWatch::settle();
        VDiskStorage::Value value;
        if (!worker->contains("ns", key, false) || !worker->readValue("ns", key, &value))
            return "<none>";
        return QByteArray(value.data.get(), value.length);
    }
    void put(VDiskStorage& store, const QByteArray& key, const QByteArray& value)
    {
        char flag = 0;
        ASSERT_TRUE(store.write("ns", key, value, &flag, 60, 0));
    }

    bool watched = true;
    // On tmpfs where there is one: 100,000 pages make some 65,000 folders.
    QTemporaryDir dir{QFileInfo("/dev/shm").isWritable() ? QStringLiteral("/dev/shm/vesk-kept-XXXXXX")
                                                         : QDir::tempPath() + "/vesk-kept-XXXXXX"};
    LaterEnv env;
    std::unique_ptr<VDiskStorage> worker;
    std::unique_ptr<VDiskStorage> other;
};

struct Change
{
    const char* name;
    std::function<void(VDiskStorage& other, LaterEnv& env)> make;
    const char* servedAfter;
};

class KeptRecordChanges : public KeptRecords, public ::testing::WithParamInterface<std::tuple<Change, bool>>
{
    void SetUp() override
    {
        watched = std::get<1>(GetParam());
        KeptRecords::SetUp();
    }
};

void rename(const QByteArray& from, const QByteArray& to)
{
    ASSERT_EQ(0, ::rename(from.constData(), to.constData()));
}

// Never done by the store, which renames a whole new file over a record.
void writeInPlace(VDiskStorage& store)
{
    QFile file(QString::fromLocal8Bit(store.recordPath("ns", "key")));
    ASSERT_TRUE(file.open(QIODevice::ReadWrite));
    file.seek(file.size() - 3);
    file.write("new");
}

const Change changes[] = {
    {"replaced", [](VDiskStorage& o, LaterEnv&) { char f; o.write("ns", "key", "new page", &f, 60, 0); }, "new page"},
    {"removed", [](VDiskStorage& o, LaterEnv&) { o.remove("ns", "key"); }, "<none>"},
    {"trashed", [](VDiskStorage& o, LaterEnv&) { VDiskStorage::TrashBatch b(o); o.remove("ns", "key"); }, "<none>"},
    {"rule_cleared", [](VDiskStorage& o, LaterEnv&) { o.clearNamespace("ns"); }, "<none>"},
    {"all_cleared", [](VDiskStorage& o, LaterEnv&) { o.clearNamespace(QByteArray()); }, "<none>"},
    {"expired", [](VDiskStorage&, LaterEnv& e) { e.clock += 60; }, "<none>"},
    {"evicted", [](VDiskStorage& o, LaterEnv&) { o.setSizeBound(1); o.cleanExpired(); }, "<none>"},
    {"written_in_place", [](VDiskStorage& o, LaterEnv&) { writeInPlace(o); }, "<none>"},
    // A clear killed between moving the rule's folder away and deleting it.
    {"clear_interrupted", [](VDiskStorage& o, LaterEnv&) { rename(o.root() + "/ns", o.root() + "/.trash-1"); }, "<none>"},
};

} // namespace

TEST_P(KeptRecordChanges, ARecordChangedByAnotherProcessIsNeverServedFromMemory)
{
    put(*other, "key", "old page");
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(QByteArray("old page"), served());
    EXPECT_EQ(1, worker->keptRecords());
    // Its two folders, the namespace's and the store's.
    EXPECT_EQ(watched ? 4 : 0, VFileWatch::watchCount());
    std::get<0>(GetParam()).make(*other, env);
    EXPECT_EQ(QByteArray(std::get<0>(GetParam()).servedAfter), served());
}

INSTANTIATE_TEST_SUITE_P(Changes, KeptRecordChanges, ::testing::Combine(::testing::ValuesIn(changes), ::testing::Bool()),
                         [](const ::testing::TestParamInfo<std::tuple<Change, bool>>& info) {
                             return std::string(std::get<0>(info.param).name)
                                    + (std::get<1>(info.param) ? "_watched" : "_statted");
                         });

TEST_F(KeptRecords, MemoryStaysWithinItsBoundsHoweverManyPagesAreRead)
{
    worker->setKeptBounds(16 << 10, 20);
    const QByteArray page(1000, 'p');
    for (int i = 0; i < 300; ++i)
        put(*other, QByteArray::number(i), page);
    for (int i = 0; i < 300; ++i) {
        ASSERT_EQ(page, served(QByteArray::number(i)));
        ASSERT_LE(worker->keptBytes(), 16 << 10);
        ASSERT_LE(worker->keptRecords(), 20);
    }
    // The most recent stay; a value too big for the bounds is never kept.
    EXPECT_GE(worker->keptRecords(), 7);
    const int before = worker->keptRecords();
    put(*other, "big", QByteArray(4 << 10, 'b'));
    EXPECT_EQ(4 << 10, served("big").size());
    EXPECT_EQ(before, worker->keptRecords());
    // The kept records' two folders each and the two above them: the
    // evicted gave theirs back.
    EXPECT_LE(VFileWatch::watchCount(), 2 * worker->keptRecords() + 2);
}

// A worker that meets 100,000 pages keeps at most 4,096 of them, 8 MiB of
// values and 1,024 watches: its heap grows by some 700 bytes a kept record
// beside the values (at worst about 11 MiB; 2.6 MiB for these small pages),
// never with the number of pages met.
TEST_F(KeptRecords, AHundredThousandPagesKeepAWorkerWithinItsBounds)
{
    const int pages = 100000;
    const QByteArray value(100, 'p');
    for (int i = 0; i < pages; ++i)
        put(*other, QByteArray::number(i), value);
    env.clock = qint64(time(nullptr)) + 10;
    const size_t heapBefore = mallinfo2().uordblks;
    // All once, then the last ones again: those still kept get their watches.
    for (int i = 0; i < pages + 3000; ++i)
        ASSERT_EQ(value, served(QByteArray::number(i < pages ? i : i - 3000)));
    EXPECT_LE(worker->keptRecords(), 4096);
    EXPECT_GE(worker->keptRecords(), 3000);
    EXPECT_GE(VFileWatch::watchCount(), 1000);
    EXPECT_LE(VFileWatch::watchCount(), 1024);
    EXPECT_LT(mallinfo2().uordblks - heapBefore, size_t(4) << 20);
    // Beyond the watches, a copy is checked by stat(): still never stale.
    for (int i = pages - 3000; i < pages; i += 100)
        put(*other, QByteArray::number(i), "new page");
    for (int i = pages - 3000; i < pages; i += 100)
        ASSERT_EQ(QByteArray("new page"), served(QByteArray::number(i)));
}
