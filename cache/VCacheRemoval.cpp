#include "VCacheRemoval.h"

#include "PageCacheLogStream.h"
#include "StoreListing.h"
#include "VHTMLCache.h"
#include "VNormalizedUrl.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

namespace {

const char* const functionNames[] = {
    "page_cache_remove_cached_contents",
    "page_cache_remove_cached_contents_by_uri",
    "page_cache_remove_cached_contents_by_rule",
    "page_cache_remove_cached_contents_by_rules_ids",
    "page_cache_remove_all_cached_contents",
    "page_cache_purge",
    "page_cache_remove_by_tags",
};

QJsonValue text(const QByteArray& bytes)
{
    return QJsonValue(QString::fromUtf8(bytes));
}

// The arguments of a payload, each of the type `kind`'s function takes.
bool argumentsFit(VCacheRemoval::Kind kind, const QJsonArray& call)
{
    switch (kind) {
    case VCacheRemoval::ByPattern:
    case VCacheRemoval::ByRule:
        return call.size() == 2 && call.at(1).isString();
    case VCacheRemoval::ByUri:
        return call.size() == 3 && call.at(1).isString() && call.at(2).isString();
    case VCacheRemoval::ByRuleIds:
        for (int i = 1; i < call.size(); ++i) {
            if (!call.at(i).isDouble() || call.at(i).toDouble() == 0)
                return false;
        }
        return true;
    case VCacheRemoval::All:
        return call.size() == 1;
    case VCacheRemoval::Purge:
        return call.size() == 2 && call.at(1).isObject();
    case VCacheRemoval::ByTags:
        for (const QJsonValue& tag : call.at(1).toArray()) {
            if (!tag.isString())
                return false;
        }
        return call.size() == 2 && call.at(1).isArray();
    }
    return false;
}

} // namespace

VCacheRemoval VCacheRemoval::byPattern(const QByteArray& url)
{
    VCacheRemoval removal;
    removal.m_kind = ByPattern;
    removal.m_first = url;
    return removal;
}

VCacheRemoval VCacheRemoval::byUri(const QByteArray& rule, const QByteArray& uri)
{
    VCacheRemoval removal;
    removal.m_kind = ByUri;
    removal.m_first = rule;
    removal.m_second = uri;
    return removal;
}

VCacheRemoval VCacheRemoval::byRule(const QByteArray& rule)
{
    VCacheRemoval removal;
    removal.m_kind = ByRule;
    removal.m_first = rule;
    return removal;
}

VCacheRemoval VCacheRemoval::byRuleIds(const QList<qint64>& ids)
{
    VCacheRemoval removal;
    removal.m_kind = ByRuleIds;
    removal.m_ids = ids;
    return removal;
}

VCacheRemoval VCacheRemoval::all()
{
    return VCacheRemoval();
}

VCacheRemoval VCacheRemoval::byTags(const QList<QByteArray>& tags)
{
    VCacheRemoval removal;
    removal.m_kind = ByTags;
    removal.m_tags = tags;
    return removal;
}

VCacheRemoval VCacheRemoval::purge(const QString& url, const QDateTime& createdUntil, const QString& application)
{
    VCacheRemoval removal;
    removal.m_kind = Purge;
    removal.m_url = url;
    removal.m_createdUntil = createdUntil;
    removal.m_application = application;
    return removal;
}

bool VCacheRemoval::fromPayload(const QByteArray& payload, VCacheRemoval* removal, QString* error)
{
    QJsonParseError parseError;
    const QJsonDocument document = QJsonDocument::fromJson(payload, &parseError);
    const QJsonArray call = document.array();
    if (!document.isArray() || call.isEmpty()) {
        *error = QStringLiteral("not a JSON array of a function and its arguments");
        return false;
    }
    const QString name = call.at(0).toString();
    for (int kind = ByPattern; kind <= ByTags; ++kind) {
        if (name != QLatin1String(functionNames[kind]))
            continue;
        if (!argumentsFit(Kind(kind), call)) {
            *error = QStringLiteral("wrong arguments for %1").arg(name);
            return false;
        }
        removal->m_kind = Kind(kind);
        removal->m_first = call.at(1).toString().toUtf8();
        removal->m_second = call.at(2).toString().toUtf8();
        removal->m_ids.clear();
        removal->m_tags.clear();
        for (const QJsonValue& tag : call.at(1).toArray())
            removal->m_tags << tag.toString().toUtf8();
        for (int i = 1; kind == ByRuleIds && i < call.size(); ++i)
            removal->m_ids << qint64(call.at(i).toDouble());
        const QJsonObject rule = call.at(1).toObject();
        removal->m_url = rule.value(QLatin1String("url")).toString();
        removal->m_application = rule.value(QLatin1String("application")).toString();
        const QJsonValue before = rule.value(QLatin1String("created_until"));
        removal->m_createdUntil = before.isDouble() ? QDateTime::fromMSecsSinceEpoch(qint64(before.toDouble() * 1000), Qt::UTC)
                                                     : QDateTime();
        return true;
    }
    *error = QStringLiteral("no removal function named \"%1\"").arg(name);
    return false;
}

QString VCacheRemoval::payload() const
{
    QJsonArray call = {QLatin1String(functionNames[m_kind])};
    if (m_kind == ByPattern || m_kind == ByUri || m_kind == ByRule)
        call << text(m_first);
    if (m_kind == ByUri)
        call << text(m_second);
    for (qint64 id : m_ids)
        call << double(id);
    if (m_kind == ByTags) {
        QJsonArray tags;
        for (const QByteArray& tag : m_tags)
            tags << text(tag);
        call << tags;
    }
    if (m_kind == Purge) {
        QJsonObject rule;
        if (!m_url.isEmpty())
            rule.insert(QLatin1String("url"), m_url);
        if (m_createdUntil.isValid())
            rule.insert(QLatin1String("created_until"), double(m_createdUntil.toMSecsSinceEpoch()) / 1000);
        if (!m_application.isEmpty())
            rule.insert(QLatin1String("application"), m_application);
        call << rule;
    }
    return QString::fromUtf8(QJsonDocument(call).toJson(QJsonDocument::Compact));
}

tkd::TaskType VCacheRemoval::taskType() const
{
    static const tkd::TaskType types[] = {tkd::PAGECACHE_REMOVE_CACHED_CONTENTS, tkd::PAGECACHE_REMOVE_BY_URI,
                                          tkd::PAGECACHE_REMOVE_BY_RULE,         tkd::PAGECACHE_REMOVE_BY_RULES_IDS,
                                          tkd::PAGECACHE_REMOVE_ALL,             tkd::PAGECACHE_PURGE,
                                          tkd::PAGECACHE_REMOVE_BY_TAGS};
    return types[m_kind];
}

const char* VCacheRemoval::queueFailure() const
{
    static const char* const failures[] = {
        "page_cache_remove_cached_contents: failed to add TKD task.",
        // The removal by URI has always reported with the remove-all words.
        "page_cache_remove_all_cached_contents: failed to add TKD task.",
        "page_cache_remove_cached_contents_by_rule: failed to add TKD task.",
        "page_cache_remove_cached_contents_by_rules_ids: failed to add TKD task.",
        "page_cache_remove_all_cached_contents: failed to add TKD task.",
        "page_cache_purge: failed to add TKD task.",
        "page_cache_remove_by_tags: failed to add TKD task.",
    };
    return failures[m_kind];
}

bool VCacheRemoval::carryOut(VHTMLCache& cache) const
{
    const VDebug::StreamId log = PageCacheLogStream;
    switch (m_kind) {
    case ByPattern:
        VLOG(log, 5) << "Removing cached contents for" << m_first;
        // Callers pass the rule's pattern with ordinary groups; rules keep
        // them non-capturing.
        if (cache.clearNamespace(VHTMLCache::patternNamespace(QString::fromUtf8(m_first))))
            return true;
        VLOG(log, 0) << "Failed to remove cached contents for" << m_first;
        return false;
    case ByUri:
        VLOG(log, 5) << "Removing cached contents for uri" << m_second << "in rule" << m_first;
        return cache.removeByUri(m_first, m_second);
    case ByRule:
        VLOG(log, 5) << "Removing cached contents for rule" << m_first;
        return cache.removeByRuleName(m_first.constData());
    case ByRuleIds:
        return removeByRuleIds(cache);
    case All:
        VLOG(log, 5) << "Removing all cached contents";
        if (cache.clearNamespace(QByteArray()))
            return true;
        VLOG(log, 0) << "Failed to remove cached contents";
        return false;
    case Purge:
        return removePurged(cache);
    case ByTags:
        return removeByTags(cache);
    }
    return false;
}

bool VCacheRemoval::removeByRuleIds(VHTMLCache& cache) const
{
    // The first refusal ends the walk; removals made before it stand.
    for (qint64 id : m_ids) {
        if (!cache.removeByRuleId(id))
            return false;
    }
    return true;
}

bool VCacheRemoval::removeByTags(VHTMLCache& cache) const
{
    VLOG(PageCacheLogStream, 5) << "Removing cached contents for tags" << m_tags.join(' ');
    bool complete = false;
    if (!cache.store())
        return false;
    VHTMLCache::removeByTags(*cache.store(), m_tags, &complete);
    return complete;
}

bool VCacheRemoval::removePurged(VHTMLCache& cache) const
{
    const VDebug::StreamId log = PageCacheLogStream;
    if (!cache.store())
        return false;
    const QString url = m_url.isEmpty() ? QString() : normalizeUrl(m_url);
    // One record at a time, whatever the store's size. Removing a page
    // takes both its copies, so the walk never meets the other one after.
    int removed = 0;
    bool allRemoved = true;
    QString error;
    const bool walked = forEachStoredPage(*cache.store(), [&](const StoredPage& page) {
        const bool covered = (!url.isEmpty() && normalizeUrl(QString::fromLatin1(page.entry.url())) == url)
                             || (m_createdUntil.isValid() && page.entry.created() <= m_createdUntil);
        if (!covered)
            return;
        ++removed;
        const QByteArray key = page.compressedCopy() ? page.key.left(page.key.size() - 2) : page.key;
        allRemoved = cache.removeEntry(page.ns, key) && allRemoved;
    }, &error);
    if (!walked)
        VLOG(log, 0) << "Purge could not read the whole store:" << error;
    VLOG(log, 3) << "Purge removed" << removed << "pages";
    return walked && allRemoved;
}
