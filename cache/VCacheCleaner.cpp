#include "VCacheCleaner.h"

#include "PageCacheLogStream.h"
#include "VDiskStorage.h"
#include "VException.h"
#include "VGlobals.h"
#include "VeskServerInfo.h"

#include <unistd.h>

VCacheCleaner::VCacheCleaner(int frequency, VDiskStorage* storage, const QString& productDir)
    : storage(storage), frequency(frequency), productDir(productDir)
{
}

VCacheCleaner::~VCacheCleaner() = default;

void VCacheCleaner::run()
{
    const VDebug::StreamId log = PageCacheLogStream;
    running = true;
    VLOG(log, 3) << "Cache cleaner starting at pid" << qint64(getpid());
    VeskServerInfo* serverInfo = new VeskServerInfo(productDir.toLocal8Bit().constData(), "", log);
    QSharedPointer<PidFileData> pidFile;
    // Without a pid directory (vesk.pid_dir) there is no pid file to write;
    // without a pid file the cleaner still cleans.
    if (!VGlobals::pidDirectory().isEmpty()) {
        try {
            pidFile = VGlobals::createPidFile(log, *serverInfo, VGlobals::PID_PAGECACHE_CLEANER);
        } catch (const VException& e) {
            VLOG(log, 0) << e.what();
        }
    }
    while (!stopRequested) {
        // A frequency of 0 or less cleans back to back, as configured.
        for (int second = 0; second < frequency && !stopRequested; ++second)
            sleep(1);
        VLOG(log, 5) << "Cache cleaner is cleaning expired cache entries";
        if (storage)
            storage->cleanExpired();
        VLOG(log, 5) << "Cache cleaner finished cleaning expired cache entries";
    }
    VLOG(log, 3) << "Cache cleaner exiting at pid" << qint64(getpid());
    running = false;
    pidFile.reset();
    delete serverInfo;
}
