#include "VHTMLCache.h"

#include "PageCacheLogStream.h"
#include "QtIOCompressor.h"
#include "VDiskStorage.h"
#include "VHeaderLines.h"
#include "StoreListing.h"
#include "VTagIndex.h"
#include "VMD5.h"
#include "VException.h"
#include "VPHPGlobalsEvaluator.h"
#include "RulesFileValidator.h"

#include <QFile>

#include <typeinfo>

#include <cstring>
#include <ctime>
#include <memory>
#include <strings.h>
#include <unistd.h>

namespace {

VHTMLCache* s_instance = nullptr;
// Inherited by the cleaner, which ends the files of pages that expire.
VPublishedPages* publishedPages = nullptr;

} // namespace

VHTMLCache* VHTMLCache::instance()
{
    if (!s_instance)
        s_instance = new VHTMLCache;
    return s_instance;
}

void VHTMLCache::destroyInstance()
{
    delete s_instance;
    s_instance = nullptr;
}

// The store goes with the rules: a reload would otherwise keep the old one,
// with its memory and any record it holds open, for the life of the worker.
// The cleaner, a forked process, has a copy of its own.
VHTMLCache::~VHTMLCache()
{
    delete storage;
}

bool VHTMLCache::load(const char* savePath, qint64 dirDepth, const char* rulesFile, qint64 maxCachedRules,
                      bool atStartup)
{
    VPHPEvaluatorsManager::instance()->createEvaluators();
    clearRuleCache();
    delete storage;
    storage = new VDiskStorage(VDiskStorage::VDiskStorageInit(long(dirDepth), savePath, 1, "HTML-Cache", false));

    // A generator replacing the file gets five seconds to put the new one in place.
    QFile file(QString::fromLocal8Bit(rulesFile));
    bool opened = false;
    for (int attempt = 0; attempt < 10 && !opened; ++attempt) {
        opened = file.open(QIODevice::ReadOnly | QIODevice::Text);
        if (!opened)
            usleep(500000);
    }
    if (!opened) {
        m_lastError = QStringLiteral("Can't open dependencies file %1 %2").arg(file.fileName(), file.errorString());
        return false;
    }
    try {
        if (!validateRulesFile(rulesFile, atStartup))
            return false;
        setDevice(&file);
        parse();
        setDevice(nullptr);
        takeOverTables();
    } catch (const VException& e) {
        setDevice(nullptr);
        m_lastError = QString::fromLatin1(e.what());
        return false;
    }
    setMaxCachedRules(int(qBound<qint64>(0, maxCachedRules, INT_MAX)));
    return true;
}

void VHTMLCache::setPublishDir(const QByteArray& dir)
{
    delete publishedPages;
    publishedPages = dir.isEmpty() ? nullptr : new VPublishedPages(dir);
    if (publishedPages && !publishedPages->claim()) {
        VLOG(PageCacheLogStream, 0) << "Not publishing to" << dir << ":" << publishedPages->lastError;
        delete publishedPages;
        publishedPages = nullptr;
    }
}

VPublishedPages* VHTMLCache::published()
{
    return publishedPages;
}

void VHTMLCache::endPurgedFiles(const QByteArray& url)
{
    if (publishedPages)
        publishedPages->endPurged(url);
}

namespace {

QByteArray globalName(const VPHPGlobal* global)
{
    const auto* element = dynamic_cast<const VPHPGlobalElement*>(global);
    return global->name() + (element ? '[' + element->key().keys.join("][") + ']' : QByteArray());
}

} // namespace

QByteArray VHTMLCache::publishDescription(const CacheRuleData& rule)
{
    QByteArray text = "publish\n";
    for (const ConditionsBlock& block : rule.conditionBlocks) {
        text += "or\n";
        for (const QSharedPointer<VCondition>& condition : block.conditions) {
            const auto* value = dynamic_cast<const VConditionExists*>(condition.data());
            const auto* equals = dynamic_cast<const VConditionEquals*>(condition.data());
            text += QByteArray(typeid(*condition).name()) + ' ' + globalName(condition->global) + ' '
                    + (value ? value->value : equals ? equals->value : QString()).toUtf8() + '\n';
        }
    }
    for (const QSharedPointer<VCondition>& split : rule.splitBlock.conditions)
        text += "split " + globalName(split->global) + '\n';
    return VMD5::hash(text);
}

void VHTMLCache::unpublishChangedRules()
{
    if (!publishedPages)
        return;
    QHash<QByteArray, QByteArray> published;
    for (const CacheRule& rule : orderedRules) {
        if (rule.d->publish && rule.d->enable)
            published.insert(ruleNamespace(rule), publishDescription(*rule.d));
    }
    publishedPages->keepRules(published);
}

bool VHTMLCache::validateRulesFile(const char* rulesFile, bool atStartup)
{
    return validateRulesFileAgainstSchema(rulesFile, m_lastError, atStartup);
}

int VHTMLCache::shutdown()
{
    VPHPEvaluatorsManager::destroyInstance();
    delete storage;
    storage = nullptr;
    return 1;
}

namespace {
// A page read before in this process, and still the same record on disk,
// comes back as it was parsed then: a copy that shares its lists and body.
void readInto(VDiskStorage* storage, const QByteArray& ns, const QByteArray& key, CacheEntry& entry)
{
    VDiskStorage::Value value;
    if (!storage || !storage->readValue(ns, key, &value))
        return;
    if (value.made && *value.made) {
        entry = *static_cast<const CacheEntry*>(value.made->get());
        return;
    }
    entry.shareRecord(value.data, value.length);
    if (value.made)
        *value.made = std::make_shared<CacheEntry>(entry);
}

// One copy of a page, clear or gzip, as one record of the store. The
// record says whether its lines and status pass the response rules of
// `rules` for `appId`, so that its hits under the same rules need not ask.
bool writeCopy(VDiskStorage* storage, const QByteArray& ns, const QByteArray& key, const QByteArray& url, int status,
               const QLinkedList<QByteArray>& headers, const QByteArray& body, PageLifetime lifetime,
               const PageTags* tags, const VRuleMatcher& rules, qint32 appId)
{
    CacheEntry entry;
    if (tags)
        entry.m_tags = tags->tags;
    if (rules.passesResponseRules(status, headers, appId))
        entry.m_passedRules = rules.responseRulesDigest();
    entry.m_appId = appId;
    entry.m_formatTag = CacheEntry::FormatTag;
    entry.m_url = url;
    entry.m_status = status;
    entry.m_headers = headers;
    entry.m_body = body;
    char scratch = 0;
    if (storage->write(ns, key, entry.toRecord(), &scratch, int(lifetime.kept), 0, int(lifetime.fresh)))
        return true;
    if (key.endsWith(".z"))
        VLOG(PageCacheLogStream, 0) << "failed to store compressed output for" << key << storage->lastError.constData();
    else
        VLOG(PageCacheLogStream, 0) << "failed to store output for" << key << storage->lastError.constData();
    return false;
}

// The page is listed under its tags, which stay locked while `entered`
// lives, until its records are written: a removal of a tag ends it or
// keeps it out.
bool enterUnderTags(VDiskStorage& storage, const QByteArray& ns, const QByteArray& key, const QByteArray& url,
                    const PageTags* tags, VTagIndex::Entry& entered, QByteArray* why)
{
    if (!tags || tags->tags.isEmpty())
        return true;
    VTagIndex index(storage.root());
    if (index.enter(ns, key, tags->tags, tags->sinceMs, entered, why))
        return true;
    VLOG(PageCacheLogStream, 3) << "Not storing" << url << ":" << *why;
    return false;
}

// Both copies of a page, and its published files.
bool endPage(VDiskStorage& storage, const QByteArray& ns, const QByteArray& key)
{
    const bool clearRemoved = storage.remove(ns, key);
    const bool gzipRemoved = storage.remove(ns, key + ".z");
    if (publishedPages)
        publishedPages->unpublish(ns, key);
    return gzipRemoved && clearRemoved;
}

// Hands each stored page, with its tags, to `visit`: what the tag index is
// rebuilt from when it is found damaged. Both copies count, since either may
// be the one left of a page.
bool walkTaggedPages(VDiskStorage& storage, const VTagIndex::PageVisitor& visit)
{
    VLOG(PageCacheLogStream, 1) << "The tag index is damaged: rebuilding it from the records";
    QString error;
    const bool walked = forEachStoredPage(storage, [&](const StoredPage& page) {
        const QList<QByteArray> tags = page.entry.tags();
        if (!tags.isEmpty())
            visit(page.ns, page.compressedCopy() ? page.key.left(page.key.size() - 2) : page.key, tags);
    }, &error);
    if (!walked)
        VLOG(PageCacheLogStream, 0) << "Could not read the whole store for the tag index:" << error;
    return walked;
}

} // namespace

void VHTMLCache::readEntry(const QByteArray& ns, const QByteArray& key, CacheEntry& entry)
{
    readInto(storage, ns, key, entry);
}

void VHTMLCache::readCompressedEntry(const QByteArray& ns, const QByteArray& key, CacheEntry& entry)
{
    readInto(storage, ns, key + ".z", entry);
}

bool VHTMLCache::entryExists(const QByteArray& ns, const QByteArray& key, bool unused)
{
    return storage && storage->contains(ns, key, unused);
}

qint64 VHTMLCache::entryLastModified(const QByteArray& ns, const QByteArray& key)
{
    const long modified = storage ? storage->getLastModified(ns, key) : 0;
    return modified < 0 ? 0 : modified;
}

qint64 VHTMLCache::entryStaleFrom(const QByteArray& ns, const QByteArray& key)
{
    const long from = storage ? storage->getStaleFrom(ns, key) : 0;
    return from < 0 ? 0 : from;
}

bool VHTMLCache::removeEntry(const QByteArray& ns, const QByteArray& key)
{
    // Both copies: a gzip copy left behind would go on answering for the
    // page when the next one is stored without one.
    return storage && endPage(*storage, ns, key);
}

bool VHTMLCache::storeOutput(const QByteArray& ns, const QByteArray& key, const QByteArray& url, const char* data,
                             qint64 size, int status, const QLinkedList<QByteArray>& headers, PageLifetime lifetime,
                             bool compress, bool alreadyCompressed, const PublishTarget* publish,
                             const PageTags* tags, qint32 appId)
{
    m_tagRefusal.clear();
    if (!storage) {
        VLOG(PageCacheLogStream, 0) << "failed to store output for" << key << "no store is open";
        return false;
    }
    VTagIndex::Entry entered;
    if (!enterUnderTags(*storage, ns, key, url, tags, entered, &m_tagRefusal))
        return false;
    const QByteArray input = QByteArray::fromRawData(data, int(size));
    // A length can only be right for one of the two bodies: neither copy
    // keeps one, and a hit says the length of the copy it sends.
    QLinkedList<QByteArray> clearHeaders = headers;
    VHeaderLines::removeName(clearHeaders, "Content-Length");
    QLinkedList<QByteArray> copyHeaders = clearHeaders;
    QByteArray compressedBody;
    bool storeCompressed = false;
    if (alreadyCompressed) {
        VLOG(PageCacheLogStream, 5) << "Storing output with size" << size << "that is already compressed";
        compressedBody = input;
        storeCompressed = true;
    } else if (compress && QtIOCompressor::gzipAvailable()) {
        VLOG(PageCacheLogStream, 5) << "Output size before compression:" << size;
        compressedBody = ::compress(data, size);
        VLOG(PageCacheLogStream, 5) << "Output size after compression:" << compressedBody.size();
        VLOG(PageCacheLogStream, 5) << "Adding compression headers for compressed copy";
        copyHeaders.append("Content-Encoding: gzip");
        storeCompressed = true;
    }
    // With two copies, whichever goes out varies on Accept-Encoding, on top
    // of what the application varies on.
    if (storeCompressed) {
        VHeaderLines::addVary(clearHeaders, "Accept-Encoding");
        VHeaderLines::addVary(copyHeaders, "Accept-Encoding");
    }
    // A page stored anew without a gzip copy must not leave an older one
    // answering gzip clients.
    if (!storeCompressed)
        storage->remove(ns, key + ".z");
    else if (!writeCopy(storage, ns, key + ".z", url, status, copyHeaders, compressedBody, lifetime, tags, *this,
                        appId))
        return false;
    QByteArray clearBody = input;
    if (alreadyCompressed) {
        VLOG(PageCacheLogStream, 5) << "Decompressing output for clear format";
        clearBody = decompress(data, size);
        // The gzip copy alone stands for the page, and isn't published.
        if (clearBody.isEmpty()) {
            if (publish && publishedPages)
                publishedPages->unpublish(ns, key);
            return true;
        }
        VHeaderLines::removeName(clearHeaders, "Content-Encoding");
    }
    if (!writeCopy(storage, ns, key, url, status, clearHeaders, clearBody, lifetime, tags, *this, appId))
        return false;
    if (publish && publishedPages)
        publishStored(ns, key, *publish, status, clearHeaders, clearBody, storeCompressed ? compressedBody : QByteArray());
    return true;
}

void VHTMLCache::publishStored(const QByteArray& ns, const QByteArray& key, const PublishTarget& target,
                               int status, const QLinkedList<QByteArray>& headers, const QByteArray& clearBody,
                               const QByteArray& gzipBody)
{
    const VDebug::StreamId log = PageCacheLogStream;
    QByteArray why;
    publishedPages->noteRule(ns, target.ruleDescription);
    const QByteArray file = VPublishedPages::fileFor(ns, target.url, &why);
    if (file.isNull() || !VPublishedPages::sendsAsStored(status, headers, target.contentType, &why)) {
        VLOG(log, 3) << "Not publishing" << target.url << ":" << why;
        // The record no longer holds what an older page of it published,
        // and its hits need not try again.
        publishedPages->refuse(ns, key, target.expiresAt);
        return;
    }
    const QByteArray lastModified = VHeaderLines::value(headers, "Last-Modified");
    QDateTime date = lastModified.isNull() ? QDateTime() : parseHttpDate(lastModified.constData());
    date.setTimeSpec(Qt::UTC);
    const qint64 mtime = date.isValid() ? date.toSecsSinceEpoch() : qint64(time(nullptr));
    if (!publishedPages->publish(ns, key, file, clearBody, gzipBody, mtime, target.expiresAt)) {
        VLOG(log, 0) << "Failed to publish" << target.url << publishedPages->lastError;
        publishedPages->unpublish(ns, key);
        return;
    }
    // An ending that ran while the files were written may have missed them:
    // they stay only while their entry and their record are both there.
    if (!publishedPages->stillNames(ns, key, file) || !storage->contains(ns, key, false)) {
        publishedPages->unpublish(ns, key);
        return;
    }
    VLOG(log, 4) << "Published" << target.url << "as" << file;
}

void VHTMLCache::republish(const QByteArray& ns, const QByteArray& key, const CacheRuleData& rule,
                           const QByteArray& defaultType)
{
    CacheEntry clear;
    readEntry(ns, key, clear);
    if (!publishedPages || clear.formatTag() == 0)
        return;
    CacheEntry packed;
    readCompressedEntry(ns, key, packed);
    PublishTarget target;
    target.url = clear.url();
    target.contentType = VHeaderLines::value(clear.headers(), "Content-Type");
    if (target.contentType.isNull())
        target.contentType = defaultType;
    // The store keeps the page through its grace; its own lifetime ends before.
    const qint64 keptUntil = entryLastModified(ns, key);
    target.expiresAt = rule.lifetime == 0 ? 0 : keptUntil - qint64(rule.storedLifetime() - rule.lifetime);
    target.ruleDescription = publishDescription(rule);
    VLOG(PageCacheLogStream, 3) << "Publishing again" << target.url;
    publishStored(ns, key, target, clear.status(), clear.headers(), clear.body(),
                  packed.formatTag() != 0 ? packed.body() : QByteArray());
}

bool VHTMLCache::compressionWanted(qint64 size, bool allowed, const char* tidyCleanOutput)
{
    const bool tidy = tidyCleanOutput
                      && (strcmp(tidyCleanOutput, "1") == 0 || strcasecmp(tidyCleanOutput, "On") == 0);
    return size > 1024 && allowed && !tidy;
}

QDateTime VHTMLCache::parseHttpDate(const char* text)
{
    const QString value = QString::fromLatin1(text);
    QDateTime date;
    for (const char* format : {"ddd', 'dd' 'MMM' 'yyyy' 'hh:mm:ss' GMT'", "dddd', 'dd'-'MMM'-'yy' 'hh:mm:ss' GMT'",
                               "ddd' 'MMM' 'd' 'hh:mm:ss' 'yyyy'"}) {
        date = QDateTime::fromString(value, QLatin1String(format));
        if (date.isValid())
            return date;
    }
    return date;
}

bool VHTMLCache::clearNamespace(const QByteArray& ns)
{
    if (!storage)
        return false;
    const bool cleared = storage->clearNamespace(ns);
    if (publishedPages)
        publishedPages->unpublishNamespace(ns);
    if (cleared)
        return true;
    m_lastError = storage->lastError.isNull() ? QString() : QString::fromUtf8(storage->lastError.constData());
    VLOG(PageCacheLogStream, 0) << "Cannot clear namespace" << ns << "." << m_lastError;
    return cleared;
}

int VHTMLCache::removeByTags(VDiskStorage& store, const QList<QByteArray>& tags, bool* complete)
{
    VTagIndex index(store.root());
    // A tag may hold thousands of pages: they end by renames, and their
    // files are deleted by the next cleaning.
    const VDiskStorage::TrashBatch records(store);
    const VPublishedPages::TrashBatch files(publishedPages);
    const auto removePage = [&store](const QByteArray& ns, const QByteArray& key) { return endPage(store, ns, key); };
    const auto fromRecords = [&store](const VTagIndex::PageVisitor& visit) { return walkTaggedPages(store, visit); };
    int removed = 0;
    *complete = true;
    for (const QByteArray& tag : tags) {
        bool ended = false;
        removed += index.remove(tag, removePage, fromRecords, &ended);
        if (!ended)
            VLOG(PageCacheLogStream, 0) << "Failed to remove the pages of tag" << tag << index.lastError;
        *complete = *complete && ended;
    }
    return removed;
}

void VHTMLCache::finishTagRemovals(VDiskStorage& store)
{
    VTagIndex index(store.root());
    const VDiskStorage::TrashBatch records(store);
    const VPublishedPages::TrashBatch files(publishedPages);
    index.finishInterrupted([&store](const QByteArray& ns, const QByteArray& key) { return endPage(store, ns, key); },
                            [&store](const VTagIndex::PageVisitor& visit) { return walkTaggedPages(store, visit); });
    index.compact();
}

QByteArray VHTMLCache::ruleNamespace(const CacheRule& rule)
{
    const VUrl url = rule.url;
    return VMD5::hash(url.toString());
}

QByteArray VHTMLCache::patternNamespace(const QString& pattern)
{
    QString text = pattern;
    text.replace(QLatin1String("("), QLatin1String("(?:"));
    text.replace(QLatin1String("(?:?"), QLatin1String("(?"));
    return VMD5::hash(text.toUtf8());
}

bool VHTMLCache::clearRule(const CacheRule& rule)
{
    const bool cleared = storage && storage->clearNamespace(ruleNamespace(rule));
    if (publishedPages)
        publishedPages->unpublishNamespace(ruleNamespace(rule));
    if (cleared)
        VLOG(PageCacheLogStream, 3) << "Remove cached contents for rule" << rule.name;
    else
        VLOG(PageCacheLogStream, 0) << "Failed to remove cached contents for rule" << rule.name;
    return cleared;
}

bool VHTMLCache::clearFirstRule(const std::function<bool(const CacheRule&)>& matches)
{
    // An unknown rule is no failure: there is nothing of it to remove.
    const QList<CacheRule> candidates = orderedRules;
    for (const CacheRule& rule : candidates) {
        if (matches(rule))
            return clearRule(rule);
    }
    return true;
}

bool VHTMLCache::removeByRuleId(qint64 id)
{
    return clearFirstRule([id](const CacheRule& rule) { return rule.id == id; });
}

bool VHTMLCache::removeByRuleName(const char* name)
{
    return clearFirstRule([name](const CacheRule& rule) { return rule.name.toUtf8() == name; });
}

bool VHTMLCache::removeByUri(const QByteArray& rule, const QByteArray& uri)
{
    // The key of a page split by its request URI alone, formed as the split
    // key is: the superglobal's base name, then the value. The subscripted
    // name "_SERVER[REQUEST_URI]" would be the key of no stored page.
    const QByteArray key = VMD5::hash("_SERVER" + uri);
    const QString name = QString::fromUtf8(rule.constData());
    const QList<CacheRule> candidates = orderedRules;
    for (const CacheRule& candidate : candidates) {
        if (candidate.name != name)
            continue;
        if (!splitByUriAlone(candidate)) {
            // The URI's pages lie under keys that other values make too:
            // only all of the rule's pages surely include them.
            VLOG(PageCacheLogStream, 3) << "Rule" << candidate.name
                                        << "is not split by the request URI alone: removing all its pages";
            if (!clearRule(candidate))
                return false;
            continue;
        }
        if (!removeEntry(ruleNamespace(candidate), key)) {
            VLOG(PageCacheLogStream, 0) << "Failed to remove cached contents for uri" << uri << "in rule"
                                        << candidate.name;
            return false;
        }
    }
    return true;
}

bool VHTMLCache::splitByUriAlone(const CacheRule& rule)
{
    const QList<QSharedPointer<VCondition>>& splits = rule.d->splitBlock.conditions;
    if (splits.size() != 1)
        return false;
    const auto* element = dynamic_cast<const VPHPGlobalElement*>(splits.first()->global);
    return element && element->type() == PHP_SERVER && element->key().keys == QList<QByteArray>{"REQUEST_URI"};
}
