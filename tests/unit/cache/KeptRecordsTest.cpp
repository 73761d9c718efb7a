#include "VDiskStorage.h"

#include <QFile>
#include <QTemporaryDir>

#include <gtest/gtest.h>
#include <ctime>
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
// the farm agent, which all reach pages through these operations.
class KeptRecords : public ::testing::Test
{
protected:
    void SetUp() override
    {
        const VDiskStorage::VDiskStorageInit init(2, QFile::encodeName(dir.path()), 1, "HTML-Cache", false);
        worker.reset(new VDiskStorage(init, &env));
        other.reset(new VDiskStorage(init, &env));
    }
    QByteArray served(const QByteArray& key = "key")
    {
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

    QTemporaryDir dir;
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

class KeptRecordChanges : public KeptRecords, public ::testing::WithParamInterface<Change>
{
};

const Change changes[] = {
    {"replaced", [](VDiskStorage& o, LaterEnv&) { char f; o.write("ns", "key", "new page", &f, 60, 0); }, "new page"},
    {"removed", [](VDiskStorage& o, LaterEnv&) { o.remove("ns", "key"); }, "<none>"},
    {"trashed", [](VDiskStorage& o, LaterEnv&) { VDiskStorage::TrashBatch b(o); o.remove("ns", "key"); }, "<none>"},
    {"rule_cleared", [](VDiskStorage& o, LaterEnv&) { o.clearNamespace("ns"); }, "<none>"},
    {"all_cleared", [](VDiskStorage& o, LaterEnv&) { o.clearNamespace(QByteArray()); }, "<none>"},
    {"expired", [](VDiskStorage&, LaterEnv& e) { e.clock += 60; }, "<none>"},
    {"evicted", [](VDiskStorage& o, LaterEnv&) { o.setSizeBound(1); o.cleanExpired(); }, "<none>"},
};

} // namespace

TEST_P(KeptRecordChanges, ARecordChangedByAnotherProcessIsNeverServedFromMemory)
{
    put(*other, "key", "old page");
    EXPECT_EQ(QByteArray("old page"), served());
    EXPECT_EQ(QByteArray("old page"), served());
    EXPECT_EQ(1, worker->keptRecords());
    GetParam().make(*other, env);
    EXPECT_EQ(QByteArray(GetParam().servedAfter), served());
}

INSTANTIATE_TEST_SUITE_P(Changes, KeptRecordChanges, ::testing::ValuesIn(changes),
                         [](const ::testing::TestParamInfo<Change>& info) { return std::string(info.param.name); });

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
}
