// Several processes on one store at once: 8 writers and 8 readers on 100
// keys with values of 32 bytes to 1 MiB that describe themselves, while
// another process cleans expired records, keeps the store under 4 MiB and
// clears namespaces, and writers are killed with SIGKILL at random moments
// and replaced. Every value a
// reader gets must be whole and must be the one written under that key, and
// after the run one cleaning leaves no temporary file behind.
//
//   store_stress [SECONDS]      (default 8; scripts/test runs the default)
//
// Bounded in time; stops every process it starts.

#include "VDiskStorage.h"

#include <QDirIterator>
#include <QFileInfo>
#include <QTemporaryDir>

#include <atomic>
#include <cerrno>
#include <memory>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

const int Keys = 100;
const int Writers = 8;
const int Readers = 8;

struct Stamp
{
    char magic[8];
    quint32 key;
    quint32 writer;
    quint64 sequence;
    quint64 length;
};

// Shared by every process of the run.
struct Totals
{
    std::atomic<quint64> writes, reads, checked, torn, foreign, damaged;
};
Totals* totals = nullptr;

quint64 nextRandom(quint64& state)
{
    state ^= state << 13;
    state ^= state >> 7;
    state ^= state << 17;
    return state;
}

// The value of one write: a stamp, then bytes that follow from the stamp.
QByteArray makeValue(quint32 key, quint32 writer, quint64 sequence, quint64 length)
{
    QByteArray value(int(length), '\0');
    Stamp stamp = {{'V', 'S', 'T', 'R', 'E', 'S', 'S', '1'}, key, writer, sequence, length};
    memcpy(value.data(), &stamp, sizeof stamp);
    quint64 state = (quint64(key) << 40) ^ (quint64(writer) << 32) ^ sequence ^ 0x9E3779B97F4A7C15ull;
    for (int i = int(sizeof stamp); i < value.size(); ++i)
        value[i] = char(nextRandom(state));
    return value;
}

// Counts what is wrong with a value read under `key`; true when it is right.
bool checkValue(const char* data, int length, quint32 key)
{
    Stamp stamp;
    if (length < int(sizeof(Stamp))) {
        ++totals->torn;
        return false;
    }
    memcpy(&stamp, data, sizeof stamp);
    if (memcmp(stamp.magic, "VSTRESS1", 8) != 0 || stamp.key != key) {
        ++totals->foreign;
        return false;
    }
    if (stamp.length != quint64(length)) {
        ++totals->torn;
        return false;
    }
    const QByteArray expected = makeValue(stamp.key, stamp.writer, stamp.sequence, stamp.length);
    if (memcmp(expected.constData(), data, size_t(length)) != 0) {
        ++totals->damaged;
        return false;
    }
    return true;
}

QByteArray nsOf(quint32 key)
{
    return key % 2 ? "odd-namespace" : "even-namespace";
}

QByteArray keyName(quint32 key)
{
    return "key" + QByteArray::number(key);
}

VDiskStorage* openStore(const QByteArray& root)
{
    return new VDiskStorage(VDiskStorage::VDiskStorageInit(2, root, 1, "HTML-Cache", false));
}

void writer(const QByteArray& root, quint32 id, time_t until)
{
    VDiskStorage* store = openStore(root);
    quint64 state = 0x1234567ull * (id + 1) ^ quint64(getpid());
    quint64 sequence = 0;
    while (time(nullptr) < until) {
        const quint32 key = quint32(nextRandom(state) % Keys);
        // Mostly small pages, now and then a large one.
        const quint64 roll = nextRandom(state) % 100;
        const quint64 length = roll < 70 ? sizeof(Stamp) + nextRandom(state) % 8192
                               : roll < 95 ? 8192 + nextRandom(state) % 131072
                                           : 131072 + nextRandom(state) % (1024 * 1024 - 131072 + 1);
        char flag;
        store->write(nsOf(key), keyName(key), makeValue(key, id, ++sequence, length), &flag,
                     int(1 + nextRandom(state) % 3), 0);
        ++totals->writes;
    }
}

void reader(const QByteArray& root, quint32 id, time_t until)
{
    VDiskStorage* store = openStore(root);
    quint64 state = 0xABCDEFull * (id + 7);
    while (time(nullptr) < until) {
        const quint32 key = quint32(nextRandom(state) % Keys);
        int length = 0;
        char* data = store->read(nsOf(key), keyName(key), &length);
        ++totals->reads;
        if (!data)
            continue;
        if (checkValue(data, length, key))
            ++totals->checked;
        free(data);
    }
}

void cleaner(const QByteArray& root, time_t until)
{
    VDiskStorage* store = openStore(root);
    // Well under what the writers keep live, so every cleaning removes pages
    // that readers are reading.
    store->setSizeBound(4 << 20);
    int rounds = 0;
    while (time(nullptr) < until) {
        store->cleanExpired();
        if (++rounds % 5 == 0)
            store->clearNamespace(rounds % 10 == 0 ? QByteArray() : nsOf(quint32(rounds)));
        usleep(20000);
    }
}

template <typename Work>
pid_t spawn(Work work)
{
    fflush(stdout);
    const pid_t pid = fork();
    if (pid == 0) {
        work();
        _exit(0);
    }
    return pid;
}

// Temporary files in the store; with `ofDeadWritersOnly`, only those whose
// writer's pid names no process. A pid taken over by another process in the
// meantime (the machine's pids wrap at 32768) keeps its file for the hour
// the store allows, so it doesn't count as left behind.
int leftoverTempFiles(const QByteArray& root, bool ofDeadWritersOnly = false)
{
    int count = 0;
    QDirIterator it(QString::fromLocal8Bit(root), QStringList{QStringLiteral(".tmp-*")}, QDir::Files | QDir::Hidden,
                    QDirIterator::Subdirectories);
    while (it.hasNext()) {
        const QString name = QFileInfo(it.next()).fileName();
        const pid_t writer = pid_t(name.mid(5).section(QLatin1Char('-'), 0, 0).toLongLong());
        if (!ofDeadWritersOnly || (kill(writer, 0) != 0 && errno == ESRCH))
            ++count;
    }
    return count;
}

} // namespace

int main(int argc, char** argv)
{
    const int seconds = argc > 1 ? atoi(argv[1]) : 8;
    QTemporaryDir dir;
    if (!dir.isValid() || seconds <= 0)
        return 1;
    void* shared = mmap(nullptr, sizeof(Totals), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (shared == MAP_FAILED)
        return 1;
    totals = new (shared) Totals{};
    const QByteArray root = QFile::encodeName(dir.path());
    const time_t until = time(nullptr) + seconds;

    std::vector<pid_t> writers, others;
    for (quint32 i = 0; i < Writers; ++i)
        writers.push_back(spawn([&] { writer(root, i, until); }));
    for (quint32 i = 0; i < Readers; ++i)
        others.push_back(spawn([&] { reader(root, i, until); }));
    others.push_back(spawn([&] { cleaner(root, until); }));

    // Writers die mid-write now and then, as workers killed by an operator.
    int killed = 0;
    quint64 state = 0x5EED;
    while (time(nullptr) < until) {
        usleep(useconds_t(50000 + nextRandom(state) % 150000));
        const quint32 victim = quint32(nextRandom(state) % Writers);
        kill(writers[victim], SIGKILL);
        waitpid(writers[victim], nullptr, 0);
        ++killed;
        writers[victim] = spawn([&] { writer(root, victim, until); });
    }

    int failures = 0;
    const time_t deadline = until + 30;
    std::vector<pid_t> all = writers;
    all.insert(all.end(), others.begin(), others.end());
    for (pid_t pid : all) {
        int status = 0;
        while (waitpid(pid, &status, WNOHANG) == 0) {
            if (time(nullptr) > deadline) {
                kill(pid, SIGKILL);
                waitpid(pid, &status, 0);
                fprintf(stderr, "process %d did not stop in time\n", int(pid));
                ++failures;
                break;
            }
            usleep(50000);
        }
    }

    // Whatever the killed writers left is gone after one cleaning.
    std::unique_ptr<VDiskStorage> store(openStore(root));
    const int tempBefore = leftoverTempFiles(root);
    store->cleanExpired();
    const int tempAfter = leftoverTempFiles(root, true);

    const quint64 bad = totals->torn + totals->foreign + totals->damaged;
    printf("%d s, %d writers, %d readers, %d keys: %llu writes, %llu reads, %llu values checked; "
           "%llu torn, %llu foreign, %llu damaged; %d writers killed, %d temporary files left, %d of dead writers after one cleaning\n",
           seconds, Writers, Readers, Keys, (unsigned long long)totals->writes.load(),
           (unsigned long long)totals->reads.load(), (unsigned long long)totals->checked.load(),
           (unsigned long long)totals->torn.load(), (unsigned long long)totals->foreign.load(),
           (unsigned long long)totals->damaged.load(), killed, tempBefore, tempAfter);
    return failures == 0 && bad == 0 && tempAfter == 0 && totals->checked > 0 ? 0 : 1;
}
