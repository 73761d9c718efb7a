// Several processes on one store at once: 4 writers and 4 readers on 50 keys
// of sizes up to 1 MiB, while another process cleans expired records and
// clears namespaces. Every value a reader gets must be whole and must be the
// one written under that key. Bounded in time; stops every process it starts.

#include "VDiskStorage.h"

#include <QTemporaryDir>

#include <csignal>
#include <cstdio>
#include <cstring>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

const int Keys = 50;
const int Writers = 4;
const int Readers = 4;
const int Seconds = 15;

struct Stamp
{
    char magic[8];
    quint32 key;
    quint32 writer;
    quint64 sequence;
    quint64 length;
};

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

// Empty when the value is whole and belongs under `key`, else what is wrong.
QByteArray checkValue(const char* data, int length, quint32 key)
{
    if (length < int(sizeof(Stamp)))
        return "short value";
    Stamp stamp;
    memcpy(&stamp, data, sizeof stamp);
    if (memcmp(stamp.magic, "VSTRESS1", 8) != 0)
        return "foreign value";
    if (stamp.key != key)
        return "value of key " + QByteArray::number(stamp.key) + " under key " + QByteArray::number(key);
    if (stamp.length != quint64(length))
        return "torn value";
    const QByteArray expected = makeValue(stamp.key, stamp.writer, stamp.sequence, stamp.length);
    if (memcmp(expected.constData(), data, size_t(length)) != 0)
        return "damaged value";
    return QByteArray();
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

int writer(const QByteArray& root, quint32 id, time_t until)
{
    VDiskStorage* store = openStore(root);
    quint64 state = 0x1234567ull * (id + 1);
    quint64 sequence = 0;
    while (time(nullptr) < until) {
        const quint32 key = quint32(nextRandom(state) % Keys);
        // Mostly small pages, now and then a large one.
        const quint64 roll = nextRandom(state) % 100;
        const quint64 length = roll < 70 ? 64 + nextRandom(state) % 8192
                               : roll < 95 ? 8192 + nextRandom(state) % 131072
                                           : 131072 + nextRandom(state) % (1024 * 1024 - 131072);
        char flag;
        store->write(nsOf(key), keyName(key), makeValue(key, id, ++sequence, length), &flag,
                     int(1 + nextRandom(state) % 3), 0);
    }
    printf("writer %u: %llu writes\n", id, static_cast<unsigned long long>(sequence));
    return 0;
}

int reader(const QByteArray& root, quint32 id, time_t until)
{
    VDiskStorage* store = openStore(root);
    quint64 state = 0xABCDEFull * (id + 7);
    quint64 reads = 0, found = 0;
    while (time(nullptr) < until) {
        const quint32 key = quint32(nextRandom(state) % Keys);
        int length = 0;
        char* data = store->read(nsOf(key), keyName(key), &length);
        ++reads;
        if (!data)
            continue;
        ++found;
        const QByteArray problem = checkValue(data, length, key);
        free(data);
        if (!problem.isEmpty()) {
            fprintf(stderr, "reader %u: %s\n", id, problem.constData());
            return 1;
        }
    }
    printf("reader %u: %llu reads, %llu values checked\n", id, static_cast<unsigned long long>(reads),
           static_cast<unsigned long long>(found));
    return found > 0 ? 0 : 2;
}

int cleaner(const QByteArray& root, time_t until)
{
    VDiskStorage* store = openStore(root);
    int rounds = 0;
    while (time(nullptr) < until) {
        store->cleanExpired();
        if (++rounds % 5 == 0)
            store->clearNamespace(rounds % 10 == 0 ? QByteArray() : nsOf(quint32(rounds)));
        usleep(20000);
    }
    printf("cleaner: %d rounds\n", rounds);
    return 0;
}

} // namespace

int main()
{
    QTemporaryDir dir;
    if (!dir.isValid())
        return 1;
    const QByteArray root = QFile::encodeName(dir.path());
    const time_t until = time(nullptr) + Seconds;
    std::vector<pid_t> children;
    auto spawn = [&](auto work) {
        fflush(stdout);
        const pid_t pid = fork();
        if (pid == 0) {
            const int status = work();
            fflush(stdout);
            _exit(status);
        }
        children.push_back(pid);
    };
    for (quint32 i = 0; i < Writers; ++i)
        spawn([&] { return writer(root, i, until); });
    for (quint32 i = 0; i < Readers; ++i)
        spawn([&] { return reader(root, i, until); });
    spawn([&] { return cleaner(root, until); });

    int failures = 0;
    const time_t deadline = until + 30;
    for (pid_t pid : children) {
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
        if (!WIFEXITED(status) || WEXITSTATUS(status) != 0)
            ++failures;
    }
    printf("%d processes, %d failed\n", int(children.size()), failures);
    return failures == 0 ? 0 : 1;
}
