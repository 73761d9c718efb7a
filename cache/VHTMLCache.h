#pragma once

#include "CacheEntry.h"
#include "VPublishedPages.h"
#include "VRuleMatcher.h"

#include <QString>
#include <QtGlobal>
#include <functional>

// The one cache object of a worker process: the rules in force and the
// store of pages. A reload of the rules file destroys it and makes a new
// one, so no rule outlives the file it came from.
class VDiskStorage;

// How long the store keeps a page, and how long of that it is fresh: the
// rest is its grace, in which it is served stale while it is rebuilt. The
// record keeps both, so a later change of its rule never makes it fresh again.
struct PageLifetime
{
    PageLifetime(quint32 kept) : kept(kept), fresh(kept) {}
    PageLifetime(quint32 kept, quint32 fresh) : kept(kept), fresh(fresh) {}
    quint32 kept;
    quint32 fresh;
};

// A page's tags, and when the build of the page began (ms since 1970): a
// removal of one of the tags since then keeps the page out of the store.
struct PageTags
{
    QList<QByteArray> tags;
    qint64 sinceMs = 0;
};

class VHTMLCache : public VRuleMatcher
{
public:
    static VHTMLCache* instance();
    static void destroyInstance();

    // Reads the rules file and opens the store under `savePath`. Answers
    // false with the reason in lastError(); no rule is in force then.
    // `atStartup` false names a worker's reload in the reason.
    bool load(const char* savePath, qint64 dirDepth, const char* rulesFile, qint64 maxCachedRules,
              bool atStartup = true);
    // Validates the rules file against pagecache_rules_schema.xsd beside it.
    bool validateRulesFile(const char* rulesFile, bool atStartup = true);
    // Lets go of the store. Always 1.
    int shutdown();
    // Where pages of rules that publish are mirrored as static files; empty
    // for nowhere, and nothing is then written outside the store. A folder
    // that holds what the cache did not write is refused (logged): nothing
    // is published then.
    static void setPublishDir(const QByteArray& dir);
    // The mirror, or null when there is no publish directory.
    static VPublishedPages* published();

    QString lastError() const { return m_lastError; }

    // Pages. An entry that was not found keeps its format tag at 0.
    void readEntry(const QByteArray& ns, const QByteArray& key, CacheEntry& entry);
    // The gzip copy, stored under the key with ".z" behind it.
    void readCompressedEntry(const QByteArray& ns, const QByteArray& key, CacheEntry& entry);
    bool entryExists(const QByteArray& ns, const QByteArray& key, bool unused);
    // When the entry expires, in seconds since 1970; 0 when unknown.
    qint64 entryLastModified(const QByteArray& ns, const QByteArray& key);
    // When the entry turns stale, as its record says; 0 when it never does.
    qint64 entryStaleFrom(const QByteArray& ns, const QByteArray& key);
    // Removes both copies of a page, the clear one and the gzip one.
    bool removeEntry(const QByteArray& ns, const QByteArray& key);
    // Stores a page: a gzip copy when `compress` (or when the body is gzip
    // already), and the clear copy. With `publish` (its rule publishes) the
    // page is also published when the web server can send it as stored,
    // and otherwise loses what an older page of the record published.
    // `appId` the application whose response rules the page is checked
    // against for its hits.
    bool storeOutput(const QByteArray& ns, const QByteArray& key, const QByteArray& url, const char* data,
                     qint64 size, int status, const QLinkedList<QByteArray>& headers, PageLifetime lifetime,
                     bool compress, bool alreadyCompressed, const PublishTarget* publish = nullptr,
                     const PageTags* tags = nullptr, qint32 appId = -1);
    // Why the last storeOutput() refused a page for its tags (one of them
    // removed while it was built); null when it didn't.
    QByteArray tagRefusal() const { return m_tagRefusal; }
    static QDateTime parseHttpDate(const char* text);
    // Whether a page gets a gzip copy: more than 1024 bytes, compression
    // allowed for the request, and no tidy pass ("tidy.clean_output") that
    // would rewrite the clear output after it was compressed.
    static bool compressionWanted(qint64 size, bool allowed, const char* tidyCleanOutput);

    // Removal. The null namespace is every page.
    bool clearNamespace(const QByteArray& ns);
    // Ends the published files of the page of `url`, the store left as it
    // is: after a purge of that URL, which the web server can't ask.
    static void endPurgedFiles(const QByteArray& url);
    // After a load of the rules: ends the files of the rules whose
    // publishing, conditions or splits changed, or that are gone.
    void unpublishChangedRules();
    // Publishes a stored page again from its record, for a hit whose files
    // went (a restart, a change of the rules): `rule` its rule, which
    // publishes; `defaultType` the Content-Type sent when the page set none.
    void republish(const QByteArray& ns, const QByteArray& key, const CacheRuleData& rule,
                   const QByteArray& defaultType);
    // Ends every page holding one of `tags`, and its published files, from
    // `store`; answers how many pages the tags listed. `complete` false
    // when one could not be ended.
    static int removeByTags(VDiskStorage& store, const QList<QByteArray>& tags, bool* complete);
    // Finishes the removals by tag that a killed process left unfinished,
    // and rewrites the tag listings that have grown mostly dead.
    static void finishTagRemovals(VDiskStorage& store);
    bool removeByRuleId(qint64 id);
    bool removeByRuleName(const char* name);
    // Names are UTF-8. A rule split by anything but the request URI alone
    // loses all its pages, since the URI's own can't be told from the rest.
    bool removeByUri(const QByteArray& rule, const QByteArray& uri);
    // The namespace of the rules whose URL pattern was written as `pattern`.
    static QByteArray patternNamespace(const QString& pattern);
    static QByteArray ruleNamespace(const CacheRule& rule);
    // What decides a published rule's files: its conditions and splits.
    static QByteArray publishDescription(const CacheRuleData& rule);

    VDiskStorage* store() const { return storage; }

private:
    // A farm's agent holds a cache of its own, read again with the rules.
    friend class VClusterAgent;
    VHTMLCache() = default;
    ~VHTMLCache();
    bool clearRule(const CacheRule& rule);
    void publishStored(const QByteArray& ns, const QByteArray& key, const PublishTarget& target, int status,
                       const QLinkedList<QByteArray>& headers, const QByteArray& clearBody,
                       const QByteArray& gzipBody);
    static bool splitByUriAlone(const CacheRule& rule);
    // Clears the namespace of the first rule in order that `matches` takes.
    bool clearFirstRule(const std::function<bool(const CacheRule&)>& matches);

    VDiskStorage* storage = nullptr;
    QString m_lastError;
    QByteArray m_tagRefusal;
};
