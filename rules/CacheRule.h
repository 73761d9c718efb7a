#pragma once

#include "LearnedTags.h"
#include "VCondition.h"
#include "VUrl.h"

#include <QList>
#include <QRegExp>
#include <QSet>
#include <QSharedData>
#include <QSharedDataPointer>
#include <QSharedPointer>
#include <QString>

// Conditions that must all hold. The conditions are shared between copies
// of a block and die with the last of them.
class ConditionsBlock
{
public:
    // True when every condition holds; an empty block holds.
    bool holds() const;

    QList<QSharedPointer<VCondition>> conditions;
    bool hasSessionCondition = false;
};

// The variant key of a page: each split condition's superglobal name
// followed by its value. Values are joined as they are, so keys stored so
// far stay valid, except a value that holds a NUL byte or in which the next
// name could be taken to begin: that one is written as a NUL byte, its
// length, ":" and the value. No two tuples of values give the same key.
QByteArray splitKey(const ConditionsBlock& block);
// The same for a request, false when a split value or `url` holds a NUL
// byte: conditions and matching read text only up to it, so such a request
// is neither served from the store nor stored. Says why at level 3. A split
// by _SERVER[HTTP_HOST] takes `site` (see requestSite) for its value when
// one is given: the site the server answered for, not the header as sent.
bool faithfulSplitKey(const ConditionsBlock& block, const QByteArray& url, QByteArray& key,
                      const QByteArray& site = QByteArray());
// The site a request is for: the host of `httpHost` in lower case, ":" and
// the port the server answered on (`serverPort`, else the one the host
// names). `portConflict` says whether the host names a port other than the
// server's and the scheme's own: the client chose it, and a page built for
// it is nobody else's. The scheme's own port is the one a host without a
// port stands for, as a balancer in front may name it.
QByteArray requestSite(const QByteArray& httpHost, const QByteArray& serverPort, bool https, bool* portConflict);

class CacheRuleData : public QSharedData
{
public:
    // The values the conditions read: they live as long as the rule.
    QList<QSharedPointer<VPHPGlobal>> globals;
    QList<ConditionsBlock> conditionBlocks;
    ConditionsBlock splitBlock;
    quint32 lifetime = 0;
    // Seconds after it expires that a page is still served, while the one
    // worker holding its lock rebuilds it.
    quint32 grace = 0;
    // Seconds a redirect (3xx with a Location) is kept instead, without
    // grace, and stored only from a request without any cookie; 0: kept
    // as the rule's pages are.
    quint32 redirectLifetime = 0;
    // How long the store keeps a page: its lifetime and its grace. The
    // store counts whole seconds from the second a page was written, so a
    // page written late in a second would be stale almost at once: a page
    // with grace stays fresh through its lifetime's last second, which
    // makes it fresh for at least its lifetime, as nginx counts its own.
    quint32 storedLifetime() const { return lifetime == 0 ? 0 : grace == 0 ? lifetime : lifetime + grace + 1; }
    // How long of that a page is fresh: the record keeps it, so that a
    // page is judged by what its rule said when it was stored.
    quint32 freshLifetime() const { return lifetime == 0 || grace == 0 ? lifetime : lifetime + 1; }
    bool initialised = false;
    bool dontCache = false;
    bool conditionsNeedSession = false;
    bool splitNeedsSession = false;
    bool compress = true;
    bool enable = true;
    // Its pages are also written as static files that the web server sends
    // without PHP; only set when the web server can decide all that decides
    // them (see publishRefusal).
    bool publish = false;
    // The response header whose words are the page's tags ("X-Cache-Tags");
    // it neither goes out nor is stored. Empty for none.
    QByteArray tagsHeader;
    qint32 appId = -1;
    // A page built for a request with credentials (HTTP authentication)
    // is stored only when the rule says so.
    bool storeCredentials = false;
    // Off, a page is stored whatever cookies its request carried.
    bool storeAnyCookie = false;
    // The cookies the conditions and the split read; a split by the whole
    // cookie list reads them all.
    QSet<QByteArray> readCookies;
    bool readsAllCookies = false;
    // Cookies the rule says don't change its pages: names, prefixes ending
    // in "*" or suffixes beginning with it.
    QList<QByteArray> ignoredCookies;
    // Its pages learn what they depend on from the queries that build them,
    // less the writes the list names.
    bool learn = true;
    LearnIgnoreList learnIgnored;
};

// One rule of the rules file, as a value. Copies share their data until one
// of them writes.
class CacheRule;
// Why the web server couldn't decide the rule's pages by itself, empty when
// it can: conditions only on a cookie or a query parameter existing, not
// existing or equalling a value, a split only by scheme, host and URI.
QString publishRefusal(const CacheRule& rule);

class CacheRule
{
public:
    CacheRule();

    // Any block holds (or there are none).
    bool conditionsHold() const;
    // The same, passing over blocks that read the session, which doesn't
    // exist yet when this is asked.
    bool conditionsHoldWithoutSession() const;
    // The first of a request's cookies (`names`) that the rule doesn't
    // account for: one its conditions and split don't read, that isn't the
    // session's (`sessionName`, when the rule reads the session), and that
    // the rule doesn't list as not changing its pages. Null when there is
    // none: a page is stored only from a request whose cookies the rule
    // accounts for, as any other cookie may have changed it.
    QByteArray unaccountedCookie(const QList<QByteArray>& names, const QByteArray& sessionName) const;
    // A rule standing for a URL that must not be cached.
    static CacheRule dontCacheRule();

    QSharedDataPointer<CacheRuleData> d;
    VUrl url;
    qint64 id = 0;
    QString name;
    QRegExp regex;
    qint32 priority = 0;
};
