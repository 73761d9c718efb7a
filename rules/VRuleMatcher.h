#pragma once

#include "RulesFileReader.h"

#include <QCache>
#include <QLinkedList>
#include <QScopedPointer>

// The rules of one load, in the form the request path asks them: which rule
// covers a URL, and whether a response may be stored or served.
class VRuleMatcher : public RulesFileReader
{
public:
    VRuleMatcher();
    ~VRuleMatcher();

    // Makes what parse() read the rules in force: sorts them, takes over the
    // patterns and the blacklist. Until then no URL has a rule.
    void takeOverTables();
    // Empties the lookup cache (and sets its size, in entries).
    void clearRuleCache();
    void setMaxCachedRules(int count);

    // The rule for a complete URL, or null for "don't cache". Answers,
    // negative ones too, are remembered per URL. The rule stays valid for
    // the rest of the request.
    CacheRule* getOrderedMatchingRuleForUrl(const QByteArray& url);
    // Whether <dont_cache> lists the URL.
    bool isBlacklisted(const QByteArray& url) const { return blacklistInForce.contains(url); }
    // The patterns whose first match in `url` begins at its start.
    QList<QRegExp> matchingPatterns(const QByteArray& url) const;

    bool isStatusCacheable(int status, int appId) const;
    bool areHeadersCacheable(const QLinkedList<QByteArray>& headers, int appId) const;
    // Both answers together, for a page being stored, without their log lines.
    bool passesResponseRules(int status, const QLinkedList<QByteArray>& headers, int appId) const;
    // Stands for the response rules in force: equal digests, equal rules, so
    // a page that passed them when stored passes them still.
    const QByteArray& responseRulesDigest() const { return responseDigest; }

    const QList<CacheRule>& rules() const { return orderedRules; }

protected:
    QList<QRegExp> patterns;
    QList<CacheRule> orderedRules;
    QSet<QByteArray> blacklistInForce;
    QCache<QByteArray, CacheRule> ruleCache;
    const QHash<QByteArray, CacheRule>* rulesByUrl = nullptr;
    const QHash<int, ResponseRule>* responseRules = nullptr;

private:
    CacheRule* remember(const QByteArray& url, const CacheRule& rule);
    // Names at level 1 each rule whose pages would be served across hosts,
    // schemes or paths, with the split that would keep them apart.
    void warnAboutSharedPages() const;
    // The table's own rule, or an empty one: asked on every hit, so not copied.
    const ResponseRule& responseRule(int appId) const;
    bool headersPassFor(const QLinkedList<QByteArray>& headers, int appId, int logStream) const;
    void digestResponseRules();

    QByteArray responseDigest;

    // A rule the cache couldn't keep (a cache of size 0) lives here until
    // the next lookup.
    QScopedPointer<CacheRule> unremembered;
};
