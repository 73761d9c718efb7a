#include "PageTags.h"

#include "GlobalDirectives.h"
#include "ModuleState.h"
#include "PageCacheConfig.h"
#include "RequestState.h"

#include "CacheRule.h"
#include "PageCachePulse.h"
#include "TKDTaskInserter.h"
#include "VCacheRemoval.h"
#include "VDiskStorage.h"
#include "VException.h"
#include "VHTMLCache.h"
#include "VHeaderLines.h"
#include "VTagIndex.h"

#include <memory>

namespace {

QList<QByteArray> utf8(const QStringList& tags)
{
    QList<QByteArray> words;
    for (const QString& tag : tags)
        words << VTagIndex::split(tag.toUtf8());
    return words;
}

void addTags(const QList<QByteArray>& tags)
{
    RequestState& r = requestState;
    if (!r.ruleActive || !r.buffering || !r.tagsRefusal.isNull())
        return;
    QByteArray why;
    if (VTagIndex::addBounded(r.pageTags, tags, &why))
        return;
    // Past the bound the page can't be listed under all it depends on: it
    // is not stored, since it must never outlive a removal of its tags.
    r.tagsRefusal = "tags";
    VLOG(moduleState.logStream, 1) << "Page of" << r.requestUrl << "not stored: it has" << why;
}

// The store of this process, or on the command line, where the cache is
// off, the one the workers use.
VDiskStorage* storeForRemoval(std::unique_ptr<VDiskStorage>& own)
{
    if (VDiskStorage* store = VHTMLCache::instance()->store())
        return store;
    const QByteArray savePath = moduleState.resolvedSavePath.isEmpty()
                                    ? resolvePath(pageCacheConfig.save_path, TempDirBase)
                                    : moduleState.resolvedSavePath;
    if (savePath.isEmpty())
        return nullptr;
    own.reset(new VDiskStorage(VDiskStorage::VDiskStorageInit(long(pageCacheConfig.dir_depth), savePath, 1,
                                                              "HTML-Cache", false)));
    return own.get();
}

void queueForOtherNodes(const QList<QByteArray>& tags)
{
    const VCacheRemoval removal = VCacheRemoval::byTags(tags);
    try {
        TKDTaskInserter::addTask(removal.taskType(), true, moduleState.serverInfo, removal.payload(),
                                 moduleState.logStream);
    } catch (const VException& e) {
        VLOG(moduleState.logStream, 0) << removal.queueFailure() << e.what();
    }
}

} // namespace

void addPageTags(const QStringList& tags)
{
    addTags(utf8(tags));
}

void addPageTagsFrom(const QByteArray& text)
{
    addTags(VTagIndex::split(text));
}

bool takeTagsHeader(const char* text, size_t length)
{
    const RequestState& r = requestState;
    if (!r.ruleActive || !r.rule || r.rule->d->tagsHeader.isEmpty())
        return false;
    // Looked at where it lies: every line of a hit passes through here.
    const QByteArray line = QByteArray::fromRawData(text, int(length));
    if (!VHeaderLines::hasName(line, r.rule->d->tagsHeader.constData()))
        return false;
    addPageTagsFrom(line.mid(line.indexOf(':') + 1));
    return true;
}

int removePagesByTags(const QStringList& tags, bool cluster)
{
    const VDebug::StreamId log = moduleState.logStream;
    const QList<QByteArray> words = utf8(tags);
    if (words.isEmpty())
        return 0;
    VLOG(log, 5) << "Removing cached contents for tags" << words.join(' ');
    std::unique_ptr<VDiskStorage> own;
    VDiskStorage* store = storeForRemoval(own);
    bool complete = false;
    const int removed = store ? VHTMLCache::removeByTags(*store, words, &complete) : 0;
    if (!complete)
        VLOG(log, 0) << "Failed to remove cached contents for tags" << words.join(' ');
    if (cluster && nodeId() != 0)
        queueForOtherNodes(words);
    if (pageCacheConfig.pulse_enable)
        PageCachePulse::instance()->addTagRemoval(removed, QString::fromUtf8(words.join(' ')));
    return removed;
}
