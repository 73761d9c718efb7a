#include "htmlcache_ext.h"

#include "EngineValueSource.h"
#include "GlobalDirectives.h"
#include "HostProbes.h"
#include "ModuleState.h"
#include "PageCachePulse.h"
#include "PageCachePurgeRules.h"
#include "PageCacheConfig.h"
#include "QueryLearning.h"
#include "SessionHooks.h"
#include "host/vesk_host.h"

#include "PageCacheLogStream.h"
#include "VDebug.h"
#include "VException.h"
#include "VFileDate.h"
#include "VFileMode.h"
#include "VGlobals.h"
#include "TKDTaskInserter.h"
#include "VCleanerProcess.h"
#include "VHTMLCache.h"
#include "VPrivilegesDropper.h"

#include <QFileInfo>
#include <QLocale>

#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <memory>
#include <unistd.h>

const char* const PageCacheName = "Vesk Page Cache";
const char* const PageCacheVersion = "2021.4.6";

namespace {

const char* const NoUidMessage =
    "Unable to locate the httpd uid from ini files. Vesk Page Cache is disabled";
const char* const NoGidMessage =
    "Unable to locate the httpd gid from ini files. Vesk Page Cache is disabled";
const char* const CliMessage = "Vesk Page Cache is disabled in CLI/CGI run";
const char* const RootCliMessage =
    "Vesk Page Cache is disabled in a CLI/CGI run as root: it works as the workers' user %1 only";

void refuse(const QString& text, int level)
{
    VLOG(moduleState.logStream, level) << text;
    moduleState.enabled = false;
    disableExtension(text);
}

// A fault that switches the cache off at start-up is also told to PHP's own
// error log: before the cache's log is open its lines go to standard error,
// which a daemonizing server leaves behind on the terminal. Runs where the
// cache stays off by design (the command line) keep their error log quiet.
void refuseAndReport(const QString& text, int level)
{
    refuse(text, level);
    if (webSapiCheck() != 0 && !pageCacheConfig.enable_cli)
        return;
    const QString line = text.contains(QLatin1String(PageCacheName))
                             ? text
                             : QStringLiteral("%1 is disabled: %2").arg(QLatin1String(PageCacheName), text);
    vesk_log_error(line.toLocal8Bit().constData());
}

// The log file and the store are made as the web server's user, so that
// workers that run as that user can write them later, and so that nothing
// a worker planted there (a link) leads a root process anywhere the workers
// can't go themselves: command-line runs too.
std::unique_ptr<VPrivilegesDropper> dropPrivileges(long uid, long gid)
{
    return std::unique_ptr<VPrivilegesDropper>(new VPrivilegesDropper(uid, gid));
}

// Null for a path that didn't resolve, as the store and log expect.
const char* orNull(const QByteArray& path)
{
    return path.isNull() ? nullptr : path.constData();
}

// Answers false when start-up must stop here.
bool openLog()
{
    const QByteArray logPath = resolvePath("pagecache.log", LogDirBase);
    std::unique_ptr<VPrivilegesDropper> dropper;
    try {
        const long uid = httpdUid();
        if (uid == -1) {
            refuseAndReport(QString::fromLatin1(NoUidMessage), 3);
            return false;
        }
        const long gid = httpdGid();
        if (gid == -1) {
            refuseAndReport(QString::fromLatin1(NoGidMessage), 3);
            return false;
        }
        dropper = dropPrivileges(uid, gid);
        moduleState.logStream = VDebug::registerStream("Page-Cache", orNull(logPath));
        PageCacheLogStream = moduleState.logStream;
        VDebug::setDebugLevel(moduleState.logStream, int(pageCacheConfig.log_verbosity_level));
        dropper.reset();
    } catch (const VException& e) {
        dropper.reset();
        // A log the workers can't open leaves the cache off with no log of
        // its own to say so: it is a failure, told where the operator looks.
        refuseAndReport(QStringLiteral("Vesk Page Cache is disabled: ") + QString::fromLatin1(e.what()), 0);
        return false;
    }
    return true;
}

// Whether a run that isn't a web run stops here, with the cache off.
bool refusedOutsideWebRuns()
{
    if (webSapiCheck() != -1)
        return false;
    if (!pageCacheConfig.enable_cli)
        refuse(QString::fromLatin1(CliMessage), 3);
    // A command-line script keeps its user's identity, which the cache
    // can't set aside for a whole request: run by root for other workers,
    // it would store and remove the workers' files as root.
    else if (geteuid() == 0 && httpdUid() != 0)
        refuse(QString::fromLatin1(RootCliMessage).arg(httpdUid()), 1);
    else
        return false;
    pageCacheConfig.pulse_enable = false;
    return true;
}

void logParameters()
{
    const VDebug::StreamId log = moduleState.logStream;
    const PageCacheConfig& c = pageCacheConfig;
    VLOG(log, 5) << "Initializing Vesk Page cache with following parameters:";
    VLOG(log, 5) << "enable:" << int(c.enable);
    VLOG(log, 5) << "savePath:" << c.save_path;
    VLOG(log, 5) << "dirDepth:" << c.dir_depth;
    VLOG(log, 5) << "dependencies_file:" << c.dependencies_file;
    VLOG(log, 5) << "log_verbosity_level:" << c.log_verbosity_level;
    VLOG(log, 5) << "compression_enable:" << int(c.compression_enable);
    VLOG(log, 5) << "clean_frequency:" << c.clean_frequency;
    VLOG(log, 5) << "log_rotation_size:" << c.log_rotation_size;
}

void resolvePaths()
{
    moduleState.resolvedRulesFile = resolvePath(pageCacheConfig.dependencies_file, ConfDirBase);
    moduleState.resolvedSavePath = resolvePath(pageCacheConfig.save_path, TempDirBase);
    moduleState.rulesFilePath = QString::fromUtf8(moduleState.resolvedRulesFile);
    const char* pidDir = nullptr;
    // Without vesk.pid_dir the cleaner's pid file lies beside the store,
    // where the operators' tool, reading the same directives, looks too.
    if (findDirective("vesk.pid_dir", strlen("vesk.pid_dir"), &pidDir) == 0 && pidDir && *pidDir)
        VGlobals::setPidDirectory(pidDir);
    else
        VGlobals::setPidDirectory(moduleState.resolvedSavePath);
}

} // namespace

int extensionStartup()
{
    if (vesk_startup_module() != 0)
        vesk_error(VESK_E_CORE_WARNING, "Vesk Extension Manager: Cannot load %s module", PageCacheName);
    return 0;
}

int moduleStartup()
{
    VPHPEvaluatorsManager::setValueSource(EngineValueSource::instance());
    vesk_register_ini_entries();
    applyGlobalDirectives();
    // A second start-up in one process begins with no purge rules.
    delete moduleState.purgeRules;
    moduleState.purgeRules = nullptr;
    QLocale::setDefault(QLocale(QLocale::English, QLocale::system().country()));
    const char* fileMode = nullptr;
    if (findDirective("vesk.file_mode", strlen("vesk.file_mode"), &fileMode) == 0 && fileMode)
        VFileMode::set(fileMode);

    if (!openLog())
        return 0;
    if (!pageCacheConfig.enable) {
        refuse(QString(), 3);
        return 0;
    }
    moduleState.serverInfo = VeskServerInfo(installDir(), webserverType(), moduleState.logStream);
    moduleState.serverInfo.setServerNumber(int(nodeId()));
    TKDTaskInserter::setClusterQueue(clusterQueue());
    VCleanerProcess::setClusterQueue(clusterQueue(), nodeId());
    if (refusedOutsideWebRuns()) {
        installQueryLearning(false);
        return 0;
    }
    logParameters();
    resolvePaths();
    PageCachePulse::instance()->initialize(
        moduleState.serverInfo, QString::fromUtf8(statsdConnectionString() ? statsdConnectionString() : ""));

    std::unique_ptr<VPrivilegesDropper> dropper;
    try {
        dropper = dropPrivileges(httpdUid(), httpdGid());
        VDebug::setRotationSize(moduleState.logStream, int(pageCacheConfig.log_rotation_size));
        moduleState.purgeRules = new PageCachePurgeRules(moduleState.serverInfo, moduleState.logStream);
        moduleState.enabled = pageCacheConfig.enable;
        VCleanerProcess::setWaitForCleaner(isFpm());
        VCleanerProcess::setHandOverCleaner(isFpm());
        // MiB; anything that isn't a positive number leaves the store unbounded.
        VCleanerProcess::setMaxStoreSize(qBound<qint64>(0, pageCacheConfig.max_store_size, qint64(1) << 40) << 20);
        VCleanerProcess::setPurgeDatabase(QFile::encodeName(moduleState.purgeRules->databaseFileName()));
        const char* publishDir = pageCacheConfig.publish_dir;
        VHTMLCache::setPublishDir(publishDir && *publishDir ? resolvePath(publishDir, TempDirBase) : QByteArray());
        reloadRules(true);
        dropper.reset();
    } catch (const VException& e) {
        dropper.reset();
        refuseAndReport(QString::fromLatin1(e.what()), 0);
        return 0;
    }
    installQueryLearning(true);
    if (installSessionHooks())
        return 0;
    refuseAndReport(QStringLiteral("Failed to set session handlers"), 0);
    return 0;
}

int moduleShutdown()
{
    VCleanerProcess::stop();
    VHTMLCache::instance()->shutdown();
    VHTMLCache::destroyInstance();
    vesk_unregister_ini_entries();
    vesk_restore_request_hooks();
    restoreSessionHooks();
    moduleState.resolvedRulesFile = QByteArray();
    moduleState.resolvedSavePath = QByteArray();
    VDebug::unregisterStream(moduleState.logStream);
    moduleState.logStream = 0;
    PageCacheLogStream = 0;
    return 0;
}

void reloadRules(bool isStartup)
{
    const VDebug::StreamId log = moduleState.logStream;
    if (!isStartup)
        VLOG(log, 3) << "Reloading rules File..";
    if (!moduleState.enabled)
        return;
    const QFileInfo rulesFile(moduleState.rulesFilePath);
    // Taken before anything can fail: a broken file is retried only when
    // its date moves on.
    moduleState.rulesFileDate = fileModified(moduleState.rulesFilePath);
    VLOG(log, 3) << "Rules File:" << moduleState.rulesFilePath;
    if (!rulesFile.isReadable())
        throw VException(QStringLiteral("Failed to open Rules File: %1").arg(moduleState.rulesFilePath));
    VHTMLCache::destroyInstance();
    VHTMLCache* cache = VHTMLCache::instance();
    if (!cache->load(orNull(moduleState.resolvedSavePath), pageCacheConfig.dir_depth,
                     orNull(moduleState.resolvedRulesFile), pageCacheConfig.max_cached_rules, isStartup)) {
        VLOG(log, 0) << cache->lastError();
    } else if (isStartup) {
        // The master's start-up forks the node's cleaner over the store just opened.
        VCleanerProcess::launch(*cache, {moduleState.resolvedSavePath, pageCacheConfig.dir_depth,
                                         moduleState.resolvedRulesFile}, int(pageCacheConfig.clean_frequency));
    }
    // What was published under rules that changed may not be what these
    // rules publish: those pages are published afresh at their next hit.
    cache->unpublishChangedRules();
}

void failureEscaped(const char* where, const char* what, bool startup)
{
    try {
        const QString text = QString::fromLatin1(where) + QStringLiteral(" failed: ") + QString::fromUtf8(what);
        if (startup)
            refuseAndReport(text, 0);
        else
            VLOG(moduleState.logStream, 0) << text;
    } catch (...) {
    }
}

void disableExtension(const QString& reason)
{
    VeskExtensionInfo manager;
    if (!vesk_get_extension("Vesk Extension Manager", &manager) || !manager.handle)
        return;
    typedef void (*SetExtensionDisabled)(const char*, const char*);
    const auto setDisabled =
        reinterpret_cast<SetExtensionDisabled>(dlsym(manager.handle, "set_extension_disabled"));
    if (setDisabled)
        setDisabled(PageCacheName, reason.toLatin1().constData());
}

void moduleInfo()
{
    const PageCacheConfig& c = pageCacheConfig;
    vesk_info_table_start();
    vesk_info_table_row("Version", PageCacheVersion);
    vesk_info_table_row("Enable", moduleState.enabled ? "Yes" : "No");
    vesk_info_table_row("Cache dependencies file", orNull(moduleState.resolvedRulesFile));
    vesk_info_table_row("Log verbosity level", QByteArray::number(qint64(c.log_verbosity_level)).constData());
    vesk_info_table_row("Disk storage directory structure depth", QByteArray::number(qint64(c.dir_depth)).constData());
    vesk_info_table_row("Disk storage save path", orNull(moduleState.resolvedSavePath));
    vesk_info_table_row("Compression enable", c.compression_enable ? "1" : "0");
    vesk_info_table_row("Cache cleaning frequency", QByteArray::number(qint64(c.clean_frequency)).constData());
    vesk_info_table_end();
}
