#include "VDiskStorage.h"

#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>
#include <QTemporaryDir>

#include <gtest/gtest.h>
#include <memory>
#include <vector>
#include <csignal>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

// A clock the test moves, and writes that can be made to fail.
class TestEnv : public VDiskStorageEnv
{
public:
    qint64 clock = 1700000000;
    bool failWrites = false;
    qint64 now() override { return clock; }
    bool writeNewFile(const QByteArray& path, const QByteArray& header, const QByteArray& value,
                      QByteArray* error) override
    {
        if (failWrites) {
            *error = "No space left on device";
            return false;
        }
        return VDiskStorageEnv::writeNewFile(path, header, value, error);
    }
};

// Dies where it is told, as a worker killed with SIGKILL would.
class DyingEnv : public TestEnv
{
public:
    explicit DyingEnv(WriteStep step) : step(step) {}
    void reached(WriteStep now) override
    {
        if (now == step)
            raise(SIGKILL);
    }
    WriteStep step;
};

class StoreTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_TRUE(dir.isValid());
        store = other();
    }
    // Another store object on the same tree, as another process has it.
    std::unique_ptr<VDiskStorage> other(VDiskStorageEnv* with = nullptr)
    {
        return std::unique_ptr<VDiskStorage>(
            new VDiskStorage(VDiskStorage::VDiskStorageInit(2, root(), 1, "HTML-Cache", false), with ? with : &env));
    }
    QByteArray root() const { return QFile::encodeName(dir.path()); }
    QByteArray get(const QByteArray& ns, const QByteArray& key)
    {
        int length = -1;
        char* data = store->read(ns, key, &length);
        if (!data)
            return "<none>";
        const QByteArray value(data, length);
        free(data);
        return value;
    }
    bool put(const QByteArray& ns, const QByteArray& key, const QByteArray& value, int lifetime = 60)
    {
        char flag = 0;
        return store->write(ns, key, value, &flag, lifetime, 0);
    }
    // Files under `path` (the root unless told) whose names fit `pattern`.
    int countFiles(const char* pattern = "*", const QByteArray& path = QByteArray()) const
    {
        int count = 0;
        QDirIterator it(path.isNull() ? dir.path() : QString::fromLocal8Bit(path), QStringList{QString::fromLatin1(pattern)},
                        QDir::Files | QDir::Hidden, QDirIterator::Subdirectories);
        while (it.hasNext()) {
            it.next();
            ++count;
        }
        return count;
    }

    QTemporaryDir dir;
    TestEnv env;
    std::unique_ptr<VDiskStorage> store;
};

TEST_F(StoreTest, RecordsLieUnderTheNamedTreeAtTheConfiguredDepth)
{
    ASSERT_TRUE(put("ns", "key", "value"));
    const QByteArray path = store->recordPath("ns", "key");
    EXPECT_TRUE(path.startsWith(root() + "/HTML-Cache/ns/"));
    EXPECT_EQ(2, path.mid(root().size() + strlen("/HTML-Cache/ns/")).count('/'));
    EXPECT_TRUE(QFile::exists(QString::fromLocal8Bit(path)));
    // The header, the record's own namespace and key, then the value.
    EXPECT_EQ(QFile(QString::fromLocal8Bit(path)).size(), VDiskStorage::HeaderSize + 2 + 3 + 5);
}

TEST_F(StoreTest, ReadContainsAndLifetimes)
{
    EXPECT_EQ(QByteArray("<none>"), get("ns", "key"));
    EXPECT_FALSE(store->contains("ns", "key", false));
    EXPECT_EQ(-1, store->getLastModified("ns", "key"));

    ASSERT_TRUE(put("ns", "key", "first", 60));
    EXPECT_EQ(QByteArray("first"), get("ns", "key"));
    EXPECT_TRUE(store->contains("ns", "key", false));
    EXPECT_EQ(env.clock + 60, store->getLastModified("ns", "key"));

    // Expired before any cleaning.
    env.clock += 60;
    EXPECT_EQ(QByteArray("<none>"), get("ns", "key"));
    EXPECT_FALSE(store->contains("ns", "key", false));

    // A new write replaces the value and restarts the lifetime.
    ASSERT_TRUE(put("ns", "key", "second", 60));
    EXPECT_EQ(0, store->getStaleFrom("ns", "key"));
    // Fresh for 20 s of its 60, as written, whatever the writer says later.
    char flag = 0;
    ASSERT_TRUE(store->write("ns", "graced", "g", &flag, 60, 0, 20));
    EXPECT_EQ(env.clock + 20, store->getStaleFrom("ns", "graced"));
    env.clock += 59;
    EXPECT_EQ(QByteArray("second"), get("ns", "key"));

    // A lifetime of 0 never runs out.
    ASSERT_TRUE(put("ns", "forever", "kept", 0));
    env.clock += 100 * 365 * 86400LL;
    EXPECT_EQ(QByteArray("kept"), get("ns", "forever"));

    // An empty value, in the null namespace, is a value.
    ASSERT_TRUE(put(QByteArray(), "key", QByteArray()));
    EXPECT_EQ(QByteArray(""), get(QByteArray(), "key"));
    EXPECT_TRUE(store->contains(QByteArray(), "key", false));
}

TEST_F(StoreTest, RemoveTakesOneKeyOnly)
{
    ASSERT_TRUE(put("ns", "key", "clear"));
    ASSERT_TRUE(put("ns", "key.z", "gzip"));
    EXPECT_TRUE(store->remove("ns", "key"));
    EXPECT_EQ(QByteArray("<none>"), get("ns", "key"));
    EXPECT_EQ(QByteArray("gzip"), get("ns", "key.z"));
    // Already gone is as good as removed.
    EXPECT_TRUE(store->remove("ns", "key"));
}

TEST_F(StoreTest, ClearNamespace)
{
    ASSERT_TRUE(put("a", "1", "x"));
    ASSERT_TRUE(put("a", "2", "x"));
    ASSERT_TRUE(put("b", "1", "y"));
    EXPECT_TRUE(store->clearNamespace("empty"));
    EXPECT_TRUE(store->clearNamespace("a"));
    EXPECT_EQ(QByteArray("<none>"), get("a", "1"));
    EXPECT_EQ(QByteArray("y"), get("b", "1"));
    ASSERT_TRUE(put("a", "3", "z"));
    EXPECT_TRUE(store->clearNamespace(QByteArray()));
    EXPECT_EQ(QByteArray("<none>"), get("b", "1"));
    EXPECT_EQ(QByteArray("<none>"), get("a", "3"));
    EXPECT_EQ(0, countFiles());
    // The store goes on after a clear of everything.
    ASSERT_TRUE(put("b", "1", "again"));
    EXPECT_EQ(QByteArray("again"), get("b", "1"));
}

TEST_F(StoreTest, CleanExpiredDropsWhatIsOverAndWhatIsDamaged)
{
    ASSERT_TRUE(put("ns", "short", "x", 10));
    ASSERT_TRUE(put("ns", "long", "y", 1000));
    ASSERT_TRUE(put("ns", "torn", "zzzzzzzz", 1000));
    QFile torn(QString::fromLocal8Bit(store->recordPath("ns", "torn")));
    ASSERT_TRUE(torn.resize(VDiskStorage::HeaderSize + 3));
    EXPECT_EQ(QByteArray("<none>"), get("ns", "torn"));
    EXPECT_FALSE(store->contains("ns", "torn", false));

    env.clock += 10;
    EXPECT_TRUE(store->cleanExpired());
    EXPECT_FALSE(QFile::exists(QString::fromLocal8Bit(store->recordPath("ns", "short"))));
    EXPECT_FALSE(QFile::exists(QString::fromLocal8Bit(store->recordPath("ns", "torn"))));
    EXPECT_EQ(QByteArray("y"), get("ns", "long"));
}

TEST_F(StoreTest, AValueCheckedOnceIsCheckedAgainWhenItsFileChanges)
{
    ASSERT_TRUE(put("ns", "key", "abcdef"));
    EXPECT_EQ(QByteArray("abcdef"), get("ns", "key"));
    EXPECT_EQ(QByteArray("abcdef"), get("ns", "key"));
    const QByteArray path = store->recordPath("ns", "key");
    struct stat before;
    ASSERT_EQ(0, stat(path.constData(), &before));
    // File times move with the kernel's coarse clock: let it tick, so the
    // change below is one the file's times can show.
    usleep(30 * 1000);
    QFile file(QString::fromLocal8Bit(path));
    ASSERT_TRUE(file.open(QIODevice::ReadWrite));
    file.seek(VDiskStorage::HeaderSize + 5 + 2);
    file.write("X");
    file.close();
    // Even with its modification time put back, the change time tells.
    const struct timespec times[2] = {before.st_atim, before.st_mtim};
    ASSERT_EQ(0, utimensat(AT_FDCWD, path.constData(), times, 0));
    EXPECT_EQ(QByteArray("<none>"), get("ns", "key"));
    EXPECT_FALSE(QFile::exists(QString::fromLocal8Bit(path)));

    // A new record in its place is read and checked afresh.
    ASSERT_TRUE(put("ns", "key", "ghijkl"));
    EXPECT_EQ(QByteArray("ghijkl"), get("ns", "key"));
}

TEST_F(StoreTest, EveryBitFlipAndTruncationIsAMiss)
{
    ASSERT_TRUE(put("ns", "key", "a stored page", 1000));
    const QString path = QString::fromLocal8Bit(store->recordPath("ns", "key"));
    QFile file(path);
    ASSERT_TRUE(file.open(QIODevice::ReadOnly));
    const QByteArray good = file.readAll();
    file.close();
    auto install = [&](const QByteArray& bytes) {
        QFile out(path);
        ASSERT_TRUE(out.open(QIODevice::WriteOnly | QIODevice::Truncate));
        out.write(bytes);
    };
    for (int bit = 0; bit < good.size() * 8; ++bit) {
        QByteArray bad = good;
        bad[bit / 8] = char(bad[bit / 8] ^ (1 << (bit % 8)));
        install(bad);
        // Every byte lies under a CRC-32, which catches any one flipped bit.
        EXPECT_EQ(QByteArray("<none>"), get("ns", "key")) << "bit " << bit;
        EXPECT_FALSE(QFile::exists(path)) << "bit " << bit;
    }
    for (int size = 0; size < good.size(); ++size) {
        install(good.left(size));
        EXPECT_EQ(QByteArray("<none>"), get("ns", "key")) << "size " << size;
    }
    install(good);
    EXPECT_EQ(QByteArray("a stored page"), get("ns", "key"));
}

TEST_F(StoreTest, ARecordInAnotherPlaceNeverAnswersForIt)
{
    ASSERT_TRUE(put("ns", "mine", "my page"));
    ASSERT_TRUE(put("ns", "yours", "your page"));
    const QString yours = QString::fromLocal8Bit(store->recordPath("ns", "yours"));
    QFile::remove(yours);
    ASSERT_TRUE(QFile::copy(QString::fromLocal8Bit(store->recordPath("ns", "mine")), yours));
    EXPECT_FALSE(store->contains("ns", "yours", false));
    EXPECT_EQ(QByteArray("<none>"), get("ns", "yours"));
    EXPECT_FALSE(QFile::exists(yours));
    EXPECT_EQ(QByteArray("my page"), get("ns", "mine"));
}

TEST_F(StoreTest, FailedWriteKeepsTheOldRecordAndSaysWhy)
{
    ASSERT_TRUE(put("ns", "key", "old"));
    env.failWrites = true;
    EXPECT_FALSE(put("ns", "key", "new"));
    EXPECT_TRUE(store->lastError.contains("No space left on device")) << store->lastError.constData();
    EXPECT_EQ(QByteArray("old"), get("ns", "key"));
}

TEST_F(StoreTest, NamesNeverLeaveTheRoot)
{
    for (const QByteArray& name : {QByteArray("../../escape"), QByteArray("/etc/passwd"), QByteArray(".."),
                                   QByteArray("a/b"), QByteArray("\0x", 2), QByteArray(300, 'k')}) {
        const QByteArray path = store->recordPath(name, name);
        EXPECT_TRUE(path.startsWith(root() + "/HTML-Cache/")) << path.constData();
        EXPECT_FALSE(path.mid(root().size()).contains("/../")) << path.constData();
        EXPECT_FALSE(path.mid(root().size()).contains('\0'));
        ASSERT_TRUE(put(name, name, "v"));
        EXPECT_EQ(QByteArray("v"), get(name, name));
    }
    EXPECT_EQ(6, countFiles("*", root() + "/HTML-Cache"));
}

TEST_F(StoreTest, UnusableRootFailsEachOperationCleanly)
{
    QFile blocker(QString::fromLocal8Bit(root() + "/HTML-Cache"));
    ASSERT_TRUE(blocker.open(QIODevice::WriteOnly));
    blocker.close();
    EXPECT_FALSE(put("ns", "key", "v"));
    EXPECT_TRUE(store->lastError.contains("Not a directory")) << store->lastError.constData();
    EXPECT_EQ(QByteArray("<none>"), get("ns", "key"));
    EXPECT_FALSE(store->contains("ns", "key", false));
    EXPECT_TRUE(store->cleanExpired());
}

} // namespace

TEST_F(StoreTest, AWriterKilledAtAnyStepLeavesAWholeRecordAndNoLitter)
{
    const QByteArray oldValue(100000, 'o');
    const QByteArray newValue(200000, 'n');
    for (VDiskStorageEnv::WriteStep step : {VDiskStorageEnv::TempOpened, VDiskStorageEnv::HalfWritten,
                                            VDiskStorageEnv::BeforeRename, VDiskStorageEnv::AfterRename}) {
        ASSERT_TRUE(put("ns", "key", oldValue));
        const pid_t child = fork();
        ASSERT_NE(-1, child);
        if (child == 0) {
            DyingEnv dying(step);
            char flag;
            other(&dying)->write("ns", "key", newValue, &flag, 0, 0);
            _exit(0);
        }
        int status = 0;
        ASSERT_EQ(child, waitpid(child, &status, 0));
        ASSERT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) << "step " << step;

        const QByteArray value = get("ns", "key");
        EXPECT_EQ(step == VDiskStorageEnv::AfterRename ? newValue : oldValue, value) << "step " << step;
        EXPECT_TRUE(store->cleanExpired());
        EXPECT_EQ(0, countFiles(".tmp-*")) << "step " << step;
        ASSERT_TRUE(put("ns", "key", "after"));
        EXPECT_EQ(QByteArray("after"), get("ns", "key"));
    }
}

TEST_F(StoreTest, AReadRightAfterContainsSeesTheRecordThatWasFound)
{
    ASSERT_TRUE(put("ns", "key", "first"));
    ASSERT_TRUE(store->contains("ns", "key", false));
    // Replaced by another worker meanwhile: the record found is read whole.
    char flag;
    ASSERT_TRUE(other()->write("ns", "key", "second", &flag, 60, 0));
    EXPECT_EQ(QByteArray("first"), get("ns", "key"));
    // Anything else in between lets go of it.
    ASSERT_TRUE(store->contains("ns", "key", false));
    ASSERT_TRUE(put("ns", "key", "third"));
    EXPECT_EQ(QByteArray("third"), get("ns", "key"));
    ASSERT_TRUE(store->contains("ns", "key", false));
    EXPECT_EQ(QByteArray("<none>"), get("ns", "other"));
    EXPECT_EQ(QByteArray("third"), get("ns", "key"));
}

namespace {

// What a record takes on disk, counted as the store counts it.
qint64 onDisk(const QByteArray& path)
{
    struct stat st;
    if (stat(path.constData(), &st) != 0)
        return 0;
    return qMax<qint64>(st.st_size, qint64(st.st_blocks) * 512);
}

QByteArray pageOf(const QByteArray& key)
{
    return key.endsWith(".z") ? key.left(key.size() - 2) : key;
}

} // namespace

TEST_F(StoreTest, ABoundRemovesPagesClosestToExpiryFirstThenTheOldest)
{
    const QByteArray value(3000, 'v');
    const qint64 start = env.clock;
    ASSERT_TRUE(put("ns", "a", value, 100)); // expires at start + 100
    ASSERT_TRUE(put("ns", "b", value, 0));   // never
    env.clock = start + 5;
    ASSERT_TRUE(put("ns", "d", value, 0));   // never, written later than b
    env.clock = start + 10;
    ASSERT_TRUE(put("ns", "c", value, 50));  // expires at start + 60
    ASSERT_TRUE(put("ns", "e", value, 90));  // expires with a, written later
    auto size = [&](const char* key) { return onDisk(store->recordPath("ns", key)); };
    // One page a pass over the store: a bound that takes two needs two.
    store->setEvictionBatch(1);

    // Nothing goes while the store is within its bound.
    const qint64 all = size("a") + size("b") + size("c") + size("d") + size("e");
    store->setSizeBound(all);
    EXPECT_TRUE(store->cleanExpired());
    EXPECT_EQ(0, store->lastCleaning().evictedPages);
    EXPECT_EQ(all, store->lastCleaning().bytesBefore);

    // c expires first; a and e expire together, a is older.
    store->setSizeBound(all - size("c"));
    EXPECT_TRUE(store->cleanExpired());
    EXPECT_EQ(QByteArray("<none>"), get("ns", "c"));
    EXPECT_EQ(value, get("ns", "a"));

    store->setSizeBound(size("b") + size("d") + size("e"));
    EXPECT_TRUE(store->cleanExpired());
    EXPECT_EQ(1, store->lastCleaning().evictedPages);
    EXPECT_EQ(QByteArray("<none>"), get("ns", "a"));
    EXPECT_EQ(value, get("ns", "e"));

    // Pages that never expire go last, the oldest first.
    store->setSizeBound(size("d") + 1);
    EXPECT_TRUE(store->cleanExpired());
    EXPECT_EQ(2, store->lastCleaning().evictedPages);
    EXPECT_EQ(QByteArray("<none>"), get("ns", "e"));
    EXPECT_EQ(QByteArray("<none>"), get("ns", "b"));
    EXPECT_EQ(value, get("ns", "d"));
    EXPECT_EQ(size("d"), store->lastCleaning().bytesAfter);

    // 0 is no bound at all.
    store->setSizeBound(0);
    EXPECT_TRUE(store->cleanExpired());
    EXPECT_EQ(value, get("ns", "d"));
}

TEST_F(StoreTest, ABoundTakesPagesOfOneSecondInTheOrderTheyCame)
{
    const QByteArray value(3000, 'v');
    for (const char* key : {"first", "second", "third"}) {
        ASSERT_TRUE(put("ns", key, value, 60));
        // Beyond the kernel's coarse clock, which file times follow.
        usleep(30 * 1000);
    }
    store->setSizeBound(onDisk(store->recordPath("ns", "third")) + onDisk(store->recordPath("ns", "second")));
    EXPECT_TRUE(store->cleanExpired());
    EXPECT_EQ(QByteArray("<none>"), get("ns", "first"));
    EXPECT_EQ(value, get("ns", "second"));
    EXPECT_EQ(value, get("ns", "third"));
}

TEST_F(StoreTest, ABoundTakesAPageWithItsGzipCopy)
{
    const QByteArray value(3000, 'v');
    ASSERT_TRUE(put("ns", "old.z", value, 60));
    ASSERT_TRUE(put("ns", "old", value, 60));
    ++env.clock;
    ASSERT_TRUE(put("other", "new.z", value, 60));
    ASSERT_TRUE(put("other", "new", value, 60));
    // A key of the same name in another namespace is another page.
    ASSERT_TRUE(put("other", "old", value, 60));
    const qint64 kept = onDisk(store->recordPath("other", "new")) + onDisk(store->recordPath("other", "new.z"))
                        + onDisk(store->recordPath("other", "old"));
    store->setSizeBound(kept, pageOf);
    EXPECT_TRUE(store->cleanExpired());
    EXPECT_EQ(1, store->lastCleaning().evictedPages);
    EXPECT_EQ(QByteArray("<none>"), get("ns", "old"));
    EXPECT_EQ(QByteArray("<none>"), get("ns", "old.z"));
    EXPECT_EQ(value, get("other", "new"));
    EXPECT_EQ(value, get("other", "new.z"));
    EXPECT_EQ(value, get("other", "old"));
}

TEST_F(StoreTest, AReaderThatHoldsAnEvictedRecordReadsItWhole)
{
    const QByteArray value(100000, 'v');
    ASSERT_TRUE(put("ns", "key", value));
    ASSERT_TRUE(store->contains("ns", "key", false));
    std::unique_ptr<VDiskStorage> cleaner = other();
    cleaner->setSizeBound(1);
    EXPECT_TRUE(cleaner->cleanExpired());
    EXPECT_EQ(1, cleaner->lastCleaning().evictedPages);
    EXPECT_EQ(value, get("ns", "key"));
    EXPECT_EQ(QByteArray("<none>"), get("ns", "key"));
}

TEST_F(StoreTest, TrashOfInterruptedClearsGoesAtTheNextCleaning)
{
    ASSERT_TRUE(put("a", "1", "x"));
    ASSERT_TRUE(put("b", "1", "y"));
    // A clear of everything that died after its rename, and one of an
    // earlier version, which named its trash without the store's name.
    const QByteArray store1 = root() + "/.trash-HTML-Cache-123-1-1700000000";
    const QByteArray earlier = root() + "/.trash-124-2-1700000001";
    ASSERT_EQ(0, rename((root() + "/HTML-Cache").constData(), store1.constData()));
    ASSERT_TRUE(put("b", "1", "y"));
    ASSERT_TRUE(QDir().mkpath(QString::fromLocal8Bit(earlier + "/ns/00")));
    // A namespace clear that died likewise.
    ASSERT_EQ(0, rename((root() + "/HTML-Cache/b").constData(), (root() + "/HTML-Cache/.trash-125-3-1700000002").constData()));
    // Another store's trash, and what isn't trash, stay.
    const QByteArray otherStore = root() + "/.trash-HTML-Cache-2-126-4-1700000003";
    const QByteArray notTrash = root() + "/.trash-notes";
    ASSERT_TRUE(QDir().mkpath(QString::fromLocal8Bit(otherStore)));
    ASSERT_TRUE(QDir().mkpath(QString::fromLocal8Bit(notTrash)));

    EXPECT_TRUE(store->cleanExpired());
    EXPECT_EQ(3, store->lastCleaning().trashRemoved);
    EXPECT_FALSE(QFileInfo::exists(QString::fromLocal8Bit(store1)));
    EXPECT_FALSE(QFileInfo::exists(QString::fromLocal8Bit(earlier)));
    EXPECT_FALSE(QFileInfo::exists(QString::fromLocal8Bit(root() + "/HTML-Cache/.trash-125-3-1700000002")));
    EXPECT_TRUE(QFileInfo::exists(QString::fromLocal8Bit(otherStore)));
    EXPECT_TRUE(QFileInfo::exists(QString::fromLocal8Bit(notTrash)));
}

TEST_F(StoreTest, ABatchOfRemovalsLeavesTheFilesToTheNextCleaning)
{
    ASSERT_TRUE(put("a", "1", "x"));
    ASSERT_TRUE(put("a", "2", "y"));
    for (const char* key : {"1", "2", "never stored"}) {
        const VDiskStorage::TrashBatch batch(*store);
        EXPECT_TRUE(store->remove("a", key));
    }
    EXPECT_EQ(QByteArray("<none>"), get("a", "1"));
    EXPECT_EQ(QByteArray("<none>"), get("a", "2"));
    EXPECT_EQ(2, countFiles());
    EXPECT_TRUE(store->cleanExpired());
    // Two batches that took a record each; the third left no trash.
    EXPECT_EQ(2, store->lastCleaning().trashRemoved);
    EXPECT_EQ(0, countFiles());
}

TEST_F(StoreTest, EmptyDirectoriesGoAtTheNextCleaning)
{
    ASSERT_TRUE(put("gone", "1", "x"));
    ASSERT_TRUE(put("kept", "1", "y", 0));
    ASSERT_TRUE(put("kept", "2", "z", 10));
    ASSERT_TRUE(store->remove("gone", "1"));
    env.clock += 10;
    EXPECT_TRUE(store->cleanExpired());
    // "gone" with its two levels, and the two levels of kept/2.
    EXPECT_EQ(5, store->lastCleaning().directoriesRemoved);
    QStringList left;
    QDirIterator it(QString::fromLocal8Bit(root() + "/HTML-Cache"), QDir::Dirs | QDir::NoDotAndDotDot,
                    QDirIterator::Subdirectories);
    while (it.hasNext())
        left << it.next().mid(int(root().size() + strlen("/HTML-Cache/")));
    left.sort();
    const QByteArray kept = store->recordPath("kept", "1").mid(root().size() + int(strlen("/HTML-Cache/")));
    const QList<QByteArray> levels = kept.split('/');
    EXPECT_EQ((QStringList{"kept", "kept/" + levels[1], "kept/" + levels[1] + "/" + levels[2]}), left);
    EXPECT_EQ(QByteArray("y"), get("kept", "1"));
    // Writers make their directories again.
    ASSERT_TRUE(put("gone", "1", "again"));
    EXPECT_EQ(QByteArray("again"), get("gone", "1"));
}

class StoreLockTest : public StoreTest
{
protected:
    // A lock taken by a process that has exited since. (A process that took
    // none and exits gives up none; its store is never destroyed.)
    void lockByDeadProcess(const QByteArray& ns, const QByteArray& key)
    {
        const pid_t child = fork();
        ASSERT_GE(child, 0);
        if (child == 0)
            _exit(other().release()->tryLock(ns, key, 1000) ? 0 : 1);
        int status = 0;
        ASSERT_EQ(child, waitpid(child, &status, 0));
        ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    }
};

TEST_F(StoreLockTest, TakenOnceRefusedToOthersUntilReleased)
{
    std::unique_ptr<VDiskStorage> second = other();
    EXPECT_EQ(VDiskStorage::LockState::Free, second->lockState("ns", "k", 1000));
    ASSERT_TRUE(store->tryLock("ns", "k", 1000));
    EXPECT_FALSE(second->tryLock("ns", "k", 1000));
    EXPECT_EQ(VDiskStorage::LockState::Held, second->lockState("ns", "k", 1000));
    // Another page's lock is its own.
    EXPECT_TRUE(second->tryLock("ns", "k2", 1000));
    store->unlock();
    EXPECT_EQ(VDiskStorage::LockState::Free, second->lockState("ns", "k", 1000));
    EXPECT_TRUE(second->tryLock("ns", "k", 1000));
}

TEST_F(StoreLockTest, ALockOfADeadProcessIsTakenOver)
{
    lockByDeadProcess("ns", "k");
    QByteArray dead;
    EXPECT_EQ(VDiskStorage::LockState::Stale, store->lockState("ns", "k", 60000, &dead));
    EXPECT_FALSE(VDiskStorage::lockHolderAlive(dead));
    EXPECT_TRUE(store->tryLock("ns", "k", 60000));
    QByteArray live;
    EXPECT_EQ(VDiskStorage::LockState::Held, other()->lockState("ns", "k", 60000, &live));
    EXPECT_TRUE(VDiskStorage::lockHolderAlive(live));
    EXPECT_NE(dead, live);
}

// Workers that all find the builder of a page dead take its lock over at
// once: exactly one of them gets it, round after round; and the workers
// that only look at the lock meanwhile never find it free, which would
// send them to build the page beside its new holder.
TEST_F(StoreLockTest, TakersOfADeadLockRacingEachOtherLeaveOneHolder)
{
    const int takers = 6;
    const int lookers = 2;
    for (int round = 0; round < 150; ++round) {
        lockByDeadProcess("ns", "k");
        int start[2], results[2], release[2];
        ASSERT_EQ(0, pipe(start) | pipe(results) | pipe(release));
        std::vector<pid_t> children;
        for (int i = 0; i < takers + lookers; ++i) {
            const pid_t child = fork();
            ASSERT_NE(-1, child);
            if (child == 0) {
                char byte;
                close(start[1]);
                (void)!read(start[0], &byte, 1);
                VDiskStorage* mine = other().release();
                char took = 'n';
                for (int look = 0; i >= takers && look < 50; ++look)
                    took = mine->lockState("ns", "k", 60000) == VDiskStorage::LockState::Free ? 'F' : took;
                if (i < takers)
                    took = mine->tryLock("ns", "k", 60000) ? '1' : '0';
                (void)!write(results[1], &took, 1);
                // Alive until every taker has tried: a holder that died
                // would rightly be taken over again.
                close(release[1]);
                (void)!read(release[0], &byte, 1);
                _exit(0);
            }
            children.push_back(child);
        }
        close(start[0]);
        close(start[1]);
        int holders = 0;
        int sawFree = 0;
        for (int i = 0; i < takers + lookers; ++i) {
            char took = '0';
            ASSERT_EQ(1, read(results[0], &took, 1));
            holders += took == '1';
            sawFree += took == 'F';
        }
        close(release[1]);
        for (pid_t child : children)
            waitpid(child, nullptr, 0);
        for (int fd : {results[0], results[1], release[0]})
            close(fd);
        ASSERT_EQ(1, holders) << "round " << round;
        ASSERT_EQ(0, sawFree) << "round " << round;
        ASSERT_EQ(1, countFiles(".lock-*")) << "round " << round;
    }
}

TEST_F(StoreLockTest, ALockOlderThanTheLimitIsTakenOverAndItsFirstHolderLeavesItAlone)
{
    ASSERT_TRUE(store->tryLock("ns", "k", 1000));
    std::unique_ptr<VDiskStorage> second = other();
    EXPECT_FALSE(second->tryLock("ns", "k", 1000));
    const struct timespec old[2] = {{time(nullptr) - 5, 0}, {time(nullptr) - 5, 0}};
    ASSERT_EQ(0, utimensat(AT_FDCWD, store->lockPath("ns", "k").constData(), old, 0));
    EXPECT_EQ(VDiskStorage::LockState::Stale, second->lockState("ns", "k", 1000));
    EXPECT_EQ(VDiskStorage::LockState::Held, second->lockState("ns", "k", 10000));
    EXPECT_TRUE(second->tryLock("ns", "k", 1000));
    store->unlock();
    EXPECT_EQ(VDiskStorage::LockState::Held, other()->lockState("ns", "k", 1000));
}

TEST_F(StoreLockTest, TheCleanerKeepsLiveLocksAndRemovesDeadOnesButNoRecord)
{
    ASSERT_TRUE(put("ns", "live", "page"));
    ASSERT_TRUE(store->tryLock("ns", "live", 1000));
    lockByDeadProcess("ns", "dead");
    EXPECT_EQ(2, countFiles(".lock-*"));
    std::unique_ptr<VDiskStorage> cleaner = other();
    EXPECT_TRUE(cleaner->cleanExpired());
    EXPECT_EQ(0, cleaner->lastCleaning().expired);
    EXPECT_TRUE(QFile::exists(QString::fromLocal8Bit(store->lockPath("ns", "live"))));
    EXPECT_FALSE(QFile::exists(QString::fromLocal8Bit(store->lockPath("ns", "dead"))));
    EXPECT_EQ(QByteArray("page"), get("ns", "live"));
}
