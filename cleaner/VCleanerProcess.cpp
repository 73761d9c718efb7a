#include "VCleanerProcess.h"

#include "PageCacheLogStream.h"
#include "VCacheCleaner.h"
#include "VCleanerWatch.h"
#include "VException.h"
#include "VHTMLCache.h"
#include "VPrivilegesDropper.h"
#include "VProcess.h"

#include <QDir>
#include <QFileInfo>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <sys/wait.h>
#include <unistd.h>

namespace {

// The cleaner this process forked, or inherited from the process that did:
// pid and start time, in this process's own memory, the one source of what
// the master signals.
quint64 cleanerIdentity = 0;
pid_t cleanerLauncherPid = -1;
bool waitForCleaner = false;
bool handOverCleaner = false;
qint64 maxStoreBytes = 0;
QByteArray clusterQueueUrl;
qint64 clusterNodeId = 0;
QByteArray purgeDatabasePath;
// Shared with the cleaner and inherited by every process forked later.
VCleanerWatch* cleanerWatch = nullptr;

// The product's directory: the one above the one that holds the rules file.
QString productDirOf(const QByteArray& rulesFile)
{
    const QString rulesDir = QFileInfo(QString::fromLocal8Bit(rulesFile)).absolutePath();
    return QDir::cleanPath(QFileInfo(rulesDir + QStringLiteral("/..")).absoluteFilePath());
}

} // namespace

void VCleanerProcess::setWaitForCleaner(bool wait)
{
    waitForCleaner = wait;
}

void VCleanerProcess::setHandOverCleaner(bool handOver)
{
    handOverCleaner = handOver;
}

void VCleanerProcess::setMaxStoreSize(qint64 bytes)
{
    maxStoreBytes = qMax<qint64>(0, bytes);
}

void VCleanerProcess::setClusterQueue(const QByteArray& url, qint64 nodeId)
{
    clusterQueueUrl = url;
    clusterNodeId = nodeId;
}

void VCleanerProcess::setPurgeDatabase(const QByteArray& path)
{
    purgeDatabasePath = path;
}

namespace {

// The cleaner reads the farm's tasks when there is a queue to read.
VClusterAgent* clusterAgent(const VClusterAgent::Store& where)
{
    if (clusterQueueUrl.isEmpty())
        return nullptr;
    try {
        return new VClusterAgent(clusterQueueUrl, clusterNodeId, where);
    } catch (const VException& e) {
        VLOG(PageCacheLogStream, 0) << "No cluster agent:" << e.what();
        return nullptr;
    }
}

} // namespace

void VCleanerProcess::launch(VHTMLCache& cache, const VClusterAgent::Store& where, int frequency)
{
    const VDebug::StreamId log = PageCacheLogStream;
    // One cleaner per master: a process whose master runs one already (a
    // second start-up, a forked worker) starts none.
    if (cleanerWatch && VCleanerWatch::running(cleanerIdentity)) {
        VLOG(log, 3) << "Cache cleaner already running at pid" << qint64(VCleanerWatch::pidOf(cleanerIdentity));
        return;
    }
    VCleanerWatch* watch = VCleanerWatch::create();
    const pid_t pid = watch ? fork() : -1;
    if (pid > 0) {
        cleanerIdentity = VCleanerWatch::identity(pid);
        cleanerLauncherPid = getpid();
        cleanerWatch = watch;
        return;
    }
    if (pid < 0) {
        VLOG(log, 0) << "Could not launch the Cache Cleaner" << strerror(errno);
        if (watch)
            watch->release();
        return;
    }
    // The cleaner reads what the workers and the farm write: it keeps
    // nothing of root, and goes on as the user the store belongs to (the
    // one start-up took on) or not at all.
    if (!VPrivilegesDropper::dropForGood(geteuid(), getegid())) {
        VLOG(log, 0) << "Cache cleaner could not give up root's privileges:" << strerror(errno);
        _exit(1);
    }
    signal(SIGHUP, VCacheCleaner::stopBySignal);
    signal(SIGTERM, VCacheCleaner::stopBySignal);
    VCacheCleaner* cleaner = new VCacheCleaner(frequency, cache.store(), productDirOf(where.rulesFile));
    cleaner->watchMaster(watch);
    // Nothing of the server's may stay open here: not its standard output
    // (a pipe would never see its end), not its listening sockets. The log
    // stays.
    VProcess::dropInheritedDescriptors(VDebug::openFiles());
    VLOG(log, 3) << "Starting Cache Cleaner at pid" << qint64(getpid()) << "with frequency of" << frequency;
    cleaner->setMaxStoreSize(maxStoreBytes);
    cleaner->setAgent(clusterAgent(where));
    cleaner->setPublished(VHTMLCache::published());
    cleaner->setPurgeDatabase(purgeDatabasePath);
    cleaner->run();
    // Only a stop request or the end of the master ends run(); nothing of
    // the parent's start-up may go on in this process.
    _exit(0);
}

namespace {

// The child that goes on as master when the launcher daemonizes: it leads a
// session of its own, as php-fpm's master does after its fork.
pid_t daemonHeir(pid_t cleaner)
{
    for (pid_t child : VProcess::children(getpid())) {
        VProcess::Status status;
        if (child != cleaner && VProcess::status(child, &status) && status.session == child)
            return child;
    }
    return -1;
}

} // namespace

void VCleanerProcess::stop()
{
    const VDebug::StreamId log = PageCacheLogStream;
    // Workers inherit the watch, and are never its master.
    if (!cleanerWatch || !cleanerWatch->isMaster())
        return;
    const pid_t cleaner = VCleanerWatch::pidOf(cleanerIdentity);
    const pid_t heir = handOverCleaner && getpid() == cleanerLauncherPid ? daemonHeir(cleaner) : -1;
    if (heir > 0) {
        VLOG(log, 3) << "Cache cleaner at pid" << qint64(cleaner) << "stays with the master at pid" << qint64(heir);
        cleanerWatch->handOver(heir);
    } else if (cleaner > 0 && VCleanerWatch::running(cleanerIdentity)) {
        VLOG(log, 5) << "Sending SIGTERM to cache cleaner at pid" << qint64(cleaner);
        kill(cleaner, SIGTERM);
        if (waitForCleaner) {
            int result;
            do {
                result = waitpid(cleaner, nullptr, 0);
            } while (result < 0 && errno == EINTR);
            // A master that took the cleaner over isn't its parent: it
            // watches it go, for ten seconds at most.
            for (int wait = 0; result < 0 && wait < 1000 && VCleanerWatch::running(cleanerIdentity); ++wait)
                usleep(10000);
        }
    }
    cleanerWatch->release();
    cleanerWatch = nullptr;
    cleanerIdentity = 0;
    cleanerLauncherPid = -1;
}
