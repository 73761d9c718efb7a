#include "VCacheCleaner.h"

#include <QFileInfo>

#include "PageCacheLogStream.h"
#include "VCleanerWatch.h"
#include "VClusterAgent.h"
#include "VDiskStorage.h"
#include "VException.h"
#include "VGlobals.h"
#include "VHTMLCache.h"
#include "VPublishedPages.h"
#include "VeskServerInfo.h"

#include <QFile>
#include <QSqlDatabase>
#include <QSqlQuery>
#include <QVariant>

#include <cerrno>
#include <csignal>
#include <ctime>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

namespace {

// Read by the signal handler below.
VCleanerWatch* s_watch = nullptr;
volatile sig_atomic_t s_cleaning = 0;
volatile sig_atomic_t s_masterGone = 0;
volatile sig_atomic_t s_stopSignal = 0;

// SIGALRM: the parent has died (PR_SET_PDEATHSIG), or a second of a cleaning
// has passed. Between cleanings the loop notices and ends in order; a
// cleaning may take long, so the cleaner ends at once from inside one.
void checkMaster(int)
{
    const int saved = errno;
    if (s_watch && !s_watch->masterRunning()) {
        if (s_cleaning)
            _exit(0);
        s_masterGone = 1;
    }
    errno = saved;
}

bool masterGone()
{
    if (!s_masterGone && s_watch && !s_watch->masterRunning())
        s_masterGone = 1;
    return s_masterGone;
}

void armTimer(bool on)
{
    const struct itimerval period = {{on ? 1 : 0, 0}, {on ? 1 : 0, 0}};
    setitimer(ITIMER_REAL, &period, nullptr);
}

struct timespec oneSecondFromNow()
{
    struct timespec until;
    clock_gettime(CLOCK_MONOTONIC, &until);
    until.tv_sec += 1;
    return until;
}

// Until `until` on the monotonic clock, however often a signal cuts the
// sleep short; sooner only when the master is gone.
void waitUntil(const struct timespec& until)
{
    while (!s_masterGone && !s_stopSignal && clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &until, nullptr) == EINTR) {
    }
}

int millisecondsUntil(const struct timespec& until)
{
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return int((until.tv_sec - now.tv_sec) * 1000 + (until.tv_nsec - now.tv_nsec) / 1000000);
}

// Pages are what the cache stores: a gzip copy lies under its page's key
// with ".z" behind it, and leaves with the clear copy.
QByteArray pageOf(const QByteArray& key)
{
    return key.endsWith(".z") ? key.left(key.size() - 2) : key;
}

} // namespace

void VCacheCleaner::stopBySignal(int)
{
    // A log line here could wait forever on a lock the interrupted code
    // holds (the C library's time zone lock inside a log statement): the
    // loop says goodbye instead, and a cleaning is left at once.
    if (s_cleaning)
        _exit(0);
    s_stopSignal = 1;
}

VCacheCleaner::VCacheCleaner(int frequency, VDiskStorage* storage, const QString& productDir)
    : storage(storage), frequency(frequency), productDir(productDir)
{
}

VCacheCleaner::~VCacheCleaner()
{
    delete agent;
}

void VCacheCleaner::setAgent(VClusterAgent* newAgent)
{
    delete agent;
    agent = newAgent;
}

void VCacheCleaner::watchMaster(VCleanerWatch* watch)
{
    s_watch = watch;
    struct sigaction action = {};
    action.sa_handler = checkMaster;
    action.sa_flags = SA_RESTART;
    sigemptyset(&action.sa_mask);
    sigaction(SIGALRM, &action, nullptr);
    sigset_t wanted;
    sigemptyset(&wanted);
    sigaddset(&wanted, SIGALRM);
    sigaddset(&wanted, SIGTERM);
    sigaddset(&wanted, SIGHUP);
    sigprocmask(SIG_UNBLOCK, &wanted, nullptr);
    // The kernel tells when the parent dies. The cleaner runs under the
    // identity it was forked with, so nothing clears this setting later.
    prctl(PR_SET_PDEATHSIG, SIGALRM);
    // The parent may have died before the line above.
    masterGone();
    // Shown by ps -o comm and top, beside the server's own processes.
    prctl(PR_SET_NAME, "vesk-cleaner");
}

// A second of the cleaning period. A farm's agent spends it waiting for
// tasks, so that a task is carried out as soon as it comes; without Redis
// it is slept.
void VCacheCleaner::waitOneSecond()
{
    const struct timespec until = oneSecondFromNow();
    // A stop or the master's end cuts the agent short as it does a
    // cleaning: a task it was carrying out isn't acknowledged yet, and
    // comes again when the node is back.
    s_cleaning = agent ? 1 : 0;
    for (int left = 1000; agent && left > 0 && !s_masterGone && !s_stopSignal; left = millisecondsUntil(until)) {
        if (!agent->waitForTasks(left))
            break;
    }
    s_cleaning = 0;
    waitUntil(until);
}

void VCacheCleaner::clean()
{
    const VDebug::StreamId log = PageCacheLogStream;
    VLOG(log, 5) << "Cache cleaner is cleaning expired cache entries";
    if (storage) {
        s_cleaning = 1;
        armTimer(true);
        // Published files take room under the bound too: the store keeps
        // less, and the sweep below ends the files of what it evicts.
        if (published && maxStoreSize > 0)
            storage->setSizeBound(qMax<qint64>(1, maxStoreSize - published->bytes()), pageOf);
        storage->cleanExpired();
        // A removal by tag cut short by a killed process is finished here,
        // so that no page outlives it for longer than a cleaning.
        VHTMLCache::finishTagRemovals(*storage);
        // The web server can't ask the purge rules: after a purge every
        // published file goes.
        if (published && purgeDatabaseChanged())
            published->unpublishNamespace(QByteArray());
        // Published files go with the records this cleaning ended, expired
        // or evicted, and with pages past their own lifetime in their grace.
        if (published)
            published->sweep(qint64(time(nullptr)), [this](const QByteArray& ns, const QByteArray& key) {
                return storage->contains(ns, key, false);
            });
        armTimer(false);
        s_cleaning = 0;
        const VDiskStorage::Cleaning done = storage->lastCleaning();
        if (done.evictedPages > 0)
            VLOG(log, 3) << "Cache cleaner removed" << done.evictedPages << "pages to keep the store under"
                         << maxStoreSize << "bytes:" << done.bytesBefore << "before," << done.bytesAfter << "after";
    }
    VLOG(log, 5) << "Cache cleaner finished cleaning expired cache entries";
}

namespace {

// Whether the purge database holds any rule. A database that appears holds
// none when a worker made it at its first request, and some when a purge
// made it.
bool holdsPurgeRules(const QByteArray& path)
{
    const QString connection = QStringLiteral("vesk-cleaner-purge");
    bool holds = true;
    {
        QSqlDatabase db = QSqlDatabase::addDatabase(QStringLiteral("QSQLITE"), connection);
        db.setDatabaseName(QFile::decodeName(path));
        db.setConnectOptions(QStringLiteral("QSQLITE_OPEN_READONLY"));
        // Anything doubtful counts as a purge.
        if (db.open()) {
            QSqlQuery query(db);
            if (query.exec(QStringLiteral("SELECT COUNT(*) FROM pagecache_purge_rules")) && query.next())
                holds = query.value(0).toLongLong() > 0;
        }
        db.close();
    }
    QSqlDatabase::removeDatabase(connection);
    return holds;
}

} // namespace

bool VCacheCleaner::purgeDatabaseChanged()
{
    struct stat st;
    const qint64 date = !purgeDatabase.isEmpty() && stat(purgeDatabase.constData(), &st) == 0
                            ? qint64(st.st_mtim.tv_sec) * 1000000000 + st.st_mtim.tv_nsec
                            : 0;
    bool changed = purgeDatabaseDate >= 0 && date != purgeDatabaseDate;
    if (changed && purgeDatabaseDate == 0)
        changed = holdsPurgeRules(purgeDatabase);
    purgeDatabaseDate = date;
    return changed;
}

namespace {

// Without a pid directory there is no pid file to write; without a pid
// file the cleaner still cleans. It makes no directory for it (one made by
// a cleaner that runs as root would shut the workers out of it): the
// default one, the store's save path, comes with the first stored page.
// A write that failed is not tried again, so it is logged once.
void writePidFile(QSharedPointer<PidFileData>& pidFile, const VeskServerInfo& serverInfo)
{
    if (pidFile || !QFileInfo(QString::fromLocal8Bit(VGlobals::pidDirectory())).isDir())
        return;
    try {
        pidFile = VGlobals::createPidFile(PageCacheLogStream, serverInfo, VGlobals::PID_PAGECACHE_CLEANER);
    } catch (const VException& e) {
        VLOG(PageCacheLogStream, 0) << e.what();
        pidFile.reset(new PidFileData(QByteArray()));
    }
}

} // namespace

void VCacheCleaner::run()
{
    const VDebug::StreamId log = PageCacheLogStream;
    running = true;
    VLOG(log, 3) << "Cache cleaner starting at pid" << qint64(getpid());
    VeskServerInfo* serverInfo = new VeskServerInfo(productDir.toLocal8Bit().constData(), "", log);
    QSharedPointer<PidFileData> pidFile;
    writePidFile(pidFile, *serverInfo);
    if (storage)
        storage->setSizeBound(maxStoreSize, pageOf);
    // From now on a purge counts, whenever it comes.
    purgeDatabaseChanged();
    while (!stopRequested && !s_stopSignal) {
        // A frequency of 0 or less cleans back to back, as configured.
        for (int second = 0; second < frequency && !stopRequested && !s_stopSignal; ++second) {
            waitOneSecond();
            stopRequested = masterGone();
        }
        if (s_stopSignal)
            break;
        if (masterGone()) {
            VLOG(log, 3) << "Cache cleaner's master at pid" << qint64(s_watch->master()) << "has ended";
            stopRequested = true;
            break;
        }
        clean();
        writePidFile(pidFile, *serverInfo);
        // Cleaning back to back leaves no second to wait in: the agent
        // looks for tasks between cleanings.
        if (frequency <= 0 && agent)
            agent->waitForTasks(0);
    }
    // A signal ends the process where it stands, its pid file left, as an
    // end from inside the handler would have.
    if (s_stopSignal) {
        VLOG(log, 3) << "Cache Cleaner exiting...";
        _exit(0);
    }
    VLOG(log, 3) << "Cache cleaner exiting at pid" << qint64(getpid());
    running = false;
    pidFile.reset();
    delete serverInfo;
}
