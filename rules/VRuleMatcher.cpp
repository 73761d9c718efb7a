#include "VRuleMatcher.h"

#include "PageCacheLogStream.h"

#include <QCryptographicHash>
#include <QUrl>
#include <algorithm>

VRuleMatcher::VRuleMatcher()
{
    ruleCache.setMaxCost(100);
}

VRuleMatcher::~VRuleMatcher() = default;

void VRuleMatcher::takeOverTables()
{
    patterns = patternList;
    rulesByUrl = &ruleTable;
    responseRules = &responseRuleTable;
    orderedRules = ruleTable.values();
    // Rules equal in application and priority are ordered by id, then URL:
    // the hash's order differs from process to process (its seed is
    // random), and the tool and every worker must pick the same rule for a
    // URL and print the same configuration for the same file.
    std::sort(orderedRules.begin(), orderedRules.end(), [](const CacheRule& a, const CacheRule& b) {
        if (a.d->appId != b.d->appId)
            return a.d->appId > b.d->appId;
        if (a.priority != b.priority)
            return a.priority > b.priority;
        if (a.id != b.id)
            return a.id < b.id;
        return a.url.toString() < b.url.toString();
    });
    VLOG(PageCacheLogStream, 3) << "New rules list:";
    for (const CacheRule& rule : orderedRules)
        VLOG(PageCacheLogStream, 3) << QStringLiteral("        ") + rule.name;
    blacklistInForce = blacklist;
    warnAboutSharedPages();
    digestResponseRules();
}

// Everything of the response rules that their answers depend on, in the
// order of their applications.
void VRuleMatcher::digestResponseRules()
{
    QCryptographicHash digest(QCryptographicHash::Md5);
    QList<int> apps = responseRuleTable.keys();
    std::sort(apps.begin(), apps.end());
    for (int app : apps) {
        const ResponseRule& rule = responseRuleTable[app];
        QByteArray text = QByteArray::number(app) + '\n' + rule.responseCodes.toUtf8() + '\n'
                          + (rule.inheritGlobals ? "inherit\n" : "own\n");
        for (const QRegExp& pattern : rule.codePatterns)
            text += pattern.pattern().toUtf8() + '\n';
        for (const QSharedPointer<ResponseHeaderCheck>& check : rule.headerChecks)
            text += check->name + '\n' + QByteArray::number(check->op) + '\n' + check->value.toUtf8() + '\n'
                    + check->regex.pattern().toUtf8() + '\n';
        digest.addData(QByteArray::number(text.size()) + '\n' + text);
    }
    responseDigest = digest.result();
}

namespace {

bool splitsBy(const CacheRule& rule, const char* serverVariable)
{
    for (const QSharedPointer<VCondition>& condition : rule.d->splitBlock.conditions) {
        const auto* element = dynamic_cast<const VPHPGlobalElement*>(condition->global);
        if (element && element->type() == PHP_SERVER && element->key().keys == QList<QByteArray>{serverVariable})
            return true;
    }
    return false;
}

// Whether the rule covers "/" of any host a request may name, as the
// matcher below tests a host and a path.
bool coversEveryRoot(const CacheRule& rule)
{
    QByteArray host = rule.url.host();
    const bool anyHost = host.contains("<default-server>");
    if (rule.regex.pattern().isEmpty())
        return anyHost && rule.url.path().isEmpty();
    if (anyHost)
        host = ".*";
    const Qt::CaseSensitivity sensitivity = rule.regex.caseSensitivity();
    QRegExp hostExpr(QString::fromLatin1(host.constData()), sensitivity);
    QRegExp pathExpr(QString::fromLatin1(rule.url.path().constData()), sensitivity);
    return hostExpr.indexIn(QStringLiteral("any-host.invalid")) == 0 && pathExpr.exactMatch(QString());
}

} // namespace

void VRuleMatcher::warnAboutSharedPages() const
{
    const VDebug::StreamId log = PageCacheLogStream;
    // The two entries of an "https?" exact rule share their data: one warning.
    QSet<const CacheRuleData*> seen;
    for (const CacheRule& rule : orderedRules) {
        if (!rule.d->initialised || !rule.d->enable || seen.contains(rule.d.constData()))
            continue;
        seen.insert(rule.d.constData());
        // A pattern's host need only begin the request's host, and the
        // scheme plays no part in matching at all.
        const bool pattern = !rule.regex.pattern().isEmpty();
        if ((pattern || rule.url.host().contains("<default-server>")) && !splitsBy(rule, "HTTP_HOST"))
            VLOG(log, 1) << "Rule" << rule.name << "(" << rule.url.toString() << ")"
                         << "shares its pages across hosts: add a split by _SERVER[HTTP_HOST]";
        if (!splitsBy(rule, "HTTPS") && !splitsBy(rule, "REQUEST_SCHEME"))
            VLOG(log, 1) << "Rule" << rule.name << "(" << rule.url.toString() << ")"
                         << "shares its pages across http and https: add a split by _SERVER[HTTPS]";
        if (coversEveryRoot(rule))
            VLOG(log, 1) << "Rule" << rule.name << "(" << rule.url.toString() << ")"
                         << "covers / of every host: give it the host and path of its own application";
        if (pattern && !splitsBy(rule, "REQUEST_URI"))
            VLOG(log, 1) << "Rule" << rule.name << "(" << rule.url.toString() << ")"
                         << "shares its pages across paths: add a split by _SERVER[REQUEST_URI]";
    }
}

void VRuleMatcher::clearRuleCache()
{
    ruleCache.clear();
}

void VRuleMatcher::setMaxCachedRules(int count)
{
    ruleCache.setMaxCost(qMax(0, count));
}

CacheRule* VRuleMatcher::remember(const QByteArray& url, const CacheRule& rule)
{
    CacheRule* copy = new CacheRule(rule);
    // A full cache evicts its least recently used entry; a cache of size 0
    // destroys what it is given, so such a rule is kept aside instead.
    if (ruleCache.maxCost() >= 1 && ruleCache.insert(url, copy, 1))
        return copy;
    unremembered.reset(new CacheRule(rule));
    return unremembered.data();
}

CacheRule* VRuleMatcher::getOrderedMatchingRuleForUrl(const QByteArray& url)
{
    const VDebug::StreamId log = PageCacheLogStream;
    if (CacheRule* known = ruleCache.object(url)) {
        VLOG(log, 5) << "rule from rules cache found for:" << url;
        return known->d->dontCache ? nullptr : known;
    }
    if (blacklistInForce.contains(url)) {
        VLOG(log, 5) << url << "is in caching blacklist";
        VLOG(log, 5) << "explicit don't cache rule set for:" << url;
        remember(url, CacheRule::dontCacheRule());
        return nullptr;
    }

    // What the exact and pattern tests need of the URL, worked out once.
    const QUrl parsed(QString::fromLatin1(url.constData()), QUrl::TolerantMode);
    const QString urlPath = parsed.path(QUrl::FullyDecoded).mid(1);
    const QString urlHost = parsed.host(QUrl::FullyDecoded);
    const int urlPort = parsed.port(80);
    const int hostStart = url.indexOf("://") + 3;
    const int slash = url.indexOf('/', hostStart);
    const QString hostPart = QString::fromLatin1(url.mid(hostStart, slash - hostStart));
    const QString pathPart = QString::fromLatin1(url.mid(slash + 1));

    const QList<CacheRule> candidates = orderedRules;
    for (const CacheRule& rule : candidates) {
        VLOG(log, 5) << "VHTMLCache::getOrderedMatchingRuleForUrl checking url" << url << "against rule"
                     << rule.name << "(" << rule.url.toString() << ")";
        if (!rule.d->enable) {
            VLOG(log, 5) << "rule disable";
            continue;
        }
        const QByteArray ruleHostAndPort = rule.url.host();
        const QList<QByteArray> hostPieces = ruleHostAndPort.split(':');
        const QString ruleHost = QString::fromLatin1(hostPieces.first().constData());
        const int rulePort = hostPieces.size() > 1 ? hostPieces.at(1).toInt() : 0;
        const QString rulePath = QString::fromLatin1(rule.url.path().constData());
        const bool pathMatches = urlPath == rulePath;
        if (pathMatches && urlHost == ruleHost && (rulePort == 0 || rulePort == urlPort)) {
            VLOG(log, 5) << "Exact match rule found for:" << url;
            return remember(url, rule);
        }
        if (pathMatches && ruleHostAndPort.contains("<default-server>")) {
            VLOG(log, 5) << "Exact match rule found for:" << url;
            return remember(url, rule);
        }
        if (rule.regex.pattern().isEmpty())
            continue;

        VUrl copy = rule.url;
        if (copy.host().contains("<default-server>")) {
            VLOG(log, 5) << "Host is default-server. Will discard host in comparison";
            copy.setHost(".*");
        }
        QRegExp hostExpr(QString::fromLatin1(copy.host().constData()), rule.regex.caseSensitivity());
        QRegExp pathExpr(QString::fromLatin1(copy.path().constData()), rule.regex.caseSensitivity());
        if (hostExpr.indexIn(hostPart) == 0 && pathExpr.exactMatch(pathPart)) {
            VLOG(log, 5) << "Pattern match rule" << rule.name << "with pattern" << rule.regex.pattern()
                         << "found for:" << url;
            return remember(url, rule);
        }
    }
    VLOG(log, 5) << "Explicit \"don't cache\" rule set for:" << url;
    remember(url, CacheRule::dontCacheRule());
    return nullptr;
}

QList<QRegExp> VRuleMatcher::matchingPatterns(const QByteArray& url) const
{
    QList<QRegExp> found;
    const QString text = QString::fromLatin1(url.constData());
    for (const QRegExp& pattern : patterns) {
        QRegExp candidate(pattern);
        if (candidate.indexIn(text) == 0) {
            VLOG(PageCacheLogStream, 5) << "Checking match of" << url
                                        << "with patterns list. Matched candidate" << pattern.pattern();
            found.append(pattern);
        } else {
            VLOG(PageCacheLogStream, 5) << "Checking match of" << url
                                        << "with patterns list. No match with" << pattern.pattern();
        }
    }
    return found;
}

const ResponseRule& VRuleMatcher::responseRule(int appId) const
{
    static const ResponseRule none;
    if (!responseRules)
        return none;
    const auto it = responseRules->constFind(appId);
    return it == responseRules->constEnd() ? none : it.value();
}

bool VRuleMatcher::isStatusCacheable(int status, int appId) const
{
    const VDebug::StreamId log = PageCacheLogStream;
    VLOG(log, 3) << "Checking if the request with response code" << status << "should be cached. App id" << appId;
    const ResponseRule& rule = responseRule(appId);
    if (rule.hasCodePatterns()) {
        if (rule.statusFits(status)) {
            VLOG(log, 3) << "Accepted for cache - by response code rule";
            return true;
        }
        VLOG(log, 3) << "Rejected for cache - by response code rule";
        return false;
    }
    if (status == 200) {
        VLOG(log, 3) << "Rule not found - considering status" << 200 << "as OK";
        return true;
    }
    VLOG(log, 3) << "Rule not found - considering status" << status << "as rejection";
    return false;
}

bool VRuleMatcher::areHeadersCacheable(const QLinkedList<QByteArray>& headers, int appId) const
{
    return headersPassFor(headers, appId, PageCacheLogStream);
}

bool VRuleMatcher::passesResponseRules(int status, const QLinkedList<QByteArray>& headers, int appId) const
{
    const ResponseRule& rule = responseRule(appId);
    const bool statusFits = rule.hasCodePatterns() ? rule.statusFits(status) : status == 200;
    return statusFits && headersPassFor(headers, appId, VDebug::DEVNULL);
}

bool VRuleMatcher::headersPassFor(const QLinkedList<QByteArray>& headers, int appId, int log) const
{
    const ResponseRule& rule = responseRule(appId);
    if (!rule.hasCodePatterns())
        return true;
    if (!rule.headersPass(headers, log)) {
        VLOG(log, 3) << "Cache REJECTED by app response headers rules";
        return false;
    }
    const ResponseRule& global = responseRule(-1);
    // The rule for no application is the global one, already passed.
    if (!rule.inheritGlobals || &global == &rule)
        return true;
    if (!global.hasCodePatterns())
        return true;
    if (!global.headersPass(headers, log)) {
        VLOG(log, 3) << "Cache REJECTED by global response headers rules";
        return false;
    }
    return true;
}
