// status, list and inspect: what the store holds, read as a worker reads it.

#include "CliContext.h"
#include "CommandLine.h"
#include "RuleReport.h"
#include "RequestValues.h"
#include "StoreListing.h"

#include "VMD5.h"
#include "VPHPGlobalsEvaluator.h"

#include "TKDTaskStream.h"
#include "VClusterAgent.h"
#include "VDiskStorage.h"
#include "VException.h"
#include "VGlobals.h"
#include "VHTMLCache.h"

#include <QCommandLineParser>
#include <QDateTime>
#include <QFile>
#include <QMap>
#include <QScopeGuard>

#include <cerrno>
#include <csignal>

namespace {

// The rule name of each namespace, for the rules now in the file.
QHash<QByteArray, QString> ruleNames(VHTMLCache& cache)
{
    QHash<QByteArray, QString> names;
    for (const CacheRule& rule : cache.rules())
        names.insert(VHTMLCache::ruleNamespace(rule), rule.name);
    return names;
}

QString nameOf(const QHash<QByteArray, QString>& names, const QByteArray& ns)
{
    return names.value(ns, QStringLiteral("(no rule of the file: %1)").arg(QString::fromLatin1(ns)));
}

QString timeText(qint64 seconds)
{
    return QDateTime::fromSecsSinceEpoch(seconds, Qt::UTC).toString(Qt::ISODate);
}

QString expiryText(const StoredPage& page, qint64 now)
{
    if (page.lifetime <= 0)
        return QStringLiteral("never");
    return QStringLiteral("in %1 s").arg(page.written + page.lifetime - now);
}

// The cleaner's pid file, written while it runs in vesk.pid_dir, or
// without it in the store's save path.
QString cleanerState(const CliDirectives& directives)
{
    QByteArray pidDir = directives.value("vesk.pid_dir");
    if (pidDir.isEmpty())
        pidDir = directives.savePath();
    QFile file(QString::fromLocal8Bit(pidDir) + QLatin1Char('/') +
               QLatin1String(VGlobals::PID_PAGECACHE_CLEANER) + QStringLiteral(".pid"));
    if (!file.open(QIODevice::ReadOnly))
        return QStringLiteral("not running");
    const long pid = file.readAll().trimmed().toLong();
    if (pid > 0 && (kill(pid_t(pid), 0) == 0 || errno == EPERM))
        return QStringLiteral("running, pid %1").arg(pid);
    return QStringLiteral("not running (stale pid file)");
}

// The farm's task queue and this node's place in it: what its agent was
// handed last, what it hasn't finished, and what waits for it.
QString queueState(const CliDirectives& directives, const VHTMLCache& cache)
{
    const QByteArray url = directives.clusterQueue();
    if (url.isEmpty())
        return QStringLiteral("none (vesk.cluster_queue is not set)");
    const QByteArray group = VClusterAgent::groupName(directives.nodeId(), cache.store()->root());
    QString state = QStringLiteral("%1, group %2: ").arg(QString::fromUtf8(url), QString::fromUtf8(group));
    try {
        const TKDQueuePosition position = TKDTaskConsumer::position(url, group);
        if (!position.groupExists)
            return state + QStringLiteral("not joined yet (%1 tasks in the stream)").arg(position.length);
        return state + QStringLiteral("last task %1, %2 unfinished, lag %3, %4 tasks in the stream")
                           .arg(QString::fromLatin1(position.lastDelivered))
                           .arg(position.pending)
                           .arg(position.lag < 0 ? QStringLiteral("unknown") : QString::number(position.lag))
                           .arg(position.length);
    } catch (const VException& e) {
        return state + QStringLiteral("unreachable: %1").arg(QString::fromLocal8Bit(e.what()));
    }
}

struct RuleTotals
{
    int pages = 0;
    int gzipCopies = 0;
    qint64 bytes = 0;
    qint64 oldest = 0;
    qint64 newest = 0;
};

} // namespace

int commandStatus(CliContext& context, const QStringList& args)
{
    QCommandLineParser parser;
    int code = ExitOk;
    if (!parseCommand(parser, args, 0, 0, QString(), &code))
        return code;
    VHTMLCache* cache = context.cache();
    if (!cache)
        return ExitFailed;
    const QHash<QByteArray, QString> names = ruleNames(*cache);
    QMap<QString, RuleTotals> totals;
    QString error;
    const bool read = forEachStoredPage(*cache->store(), [&](const StoredPage& page) {
        RuleTotals& t = totals[nameOf(names, page.ns)];
        page.compressedCopy() ? ++t.gzipCopies : ++t.pages;
        t.bytes += page.fileBytes;
        t.oldest = t.oldest ? qMin(t.oldest, page.written) : page.written;
        t.newest = qMax(t.newest, page.written);
    }, &error);
    if (!read)
        return fail(ExitFailed, error);
    out(QStringLiteral("store: %1").arg(QString::fromLocal8Bit(cache->store()->root())));
    out(QStringLiteral("rules file: %1").arg(QString::fromLocal8Bit(context.directives.rulesFile())));
    out(QStringLiteral("cleaner: %1").arg(cleanerState(context.directives)));
    out(QStringLiteral("queue: %1").arg(queueState(context.directives, *cache)));
    for (auto it = totals.cbegin(); it != totals.cend(); ++it) {
        const RuleTotals& t = it.value();
        out(QStringLiteral("rule \"%1\": %2 pages, %3 gzip copies, %4 bytes, oldest %5, newest %6")
                .arg(it.key())
                .arg(t.pages)
                .arg(t.gzipCopies)
                .arg(t.bytes)
                .arg(timeText(t.oldest), timeText(t.newest)));
    }
    if (totals.isEmpty())
        out(QStringLiteral("no pages stored"));
    return ExitOk;
}

int commandList(CliContext& context, const QStringList& args)
{
    QCommandLineParser parser;
    const QCommandLineOption ruleOption(QStringLiteral("rule"), QStringLiteral("Only the pages of rule NAME."),
                                        QStringLiteral("NAME"));
    const QCommandLineOption tagOption(QStringLiteral("tag"), QStringLiteral("Only the pages holding tag TAG."),
                                       QStringLiteral("TAG"));
    parser.addOptions({ruleOption, tagOption});
    int code = ExitOk;
    if (!parseCommand(parser, args, 0, 0, QStringLiteral("[--rule NAME] [--tag TAG]"), &code))
        return code;
    const QByteArray tag = parser.value(tagOption).toUtf8();
    VHTMLCache* cache = context.cache();
    if (!cache)
        return ExitFailed;
    const QHash<QByteArray, QString> names = ruleNames(*cache);
    const QString only = parser.value(ruleOption);
    if (parser.isSet(ruleOption) && names.key(only).isEmpty())
        return fail(ExitFailed, QStringLiteral("no rule \"%1\" in the rules file").arg(only));
    const qint64 now = QDateTime::currentSecsSinceEpoch();
    QString error;
    const bool read = forEachStoredPage(*cache->store(), [&](const StoredPage& page) {
        const QString rule = nameOf(names, page.ns);
        // The records' own tags: what a removal of the tag ends.
        if ((parser.isSet(ruleOption) && rule != only) || (parser.isSet(tagOption) && !page.entry.tags().contains(tag)))
            return;
        out(QStringLiteral("%1\t%2\t%3\tstatus %4\tage %5 s\texpires %6\t%7 bytes%8")
                .arg(rule, QString::fromUtf8(page.entry.url()), QString::fromLatin1(page.key))
                .arg(page.entry.status())
                .arg(now - page.written)
                .arg(expiryText(page, now))
                .arg(page.entry.bodySize())
                .arg(page.compressedCopy() ? QStringLiteral("\tgzip") : QString()));
    }, &error);
    return read ? ExitOk : fail(ExitFailed, error);
}

namespace {

// This request's verdict: whether the conditions let the page be served
// and stored, and the key of its copy. Answers that key, or an empty one.
QByteArray showRequest(const CacheRule& rule, const QByteArray& url, RequestValues& values)
{
    bool holds = false;
    for (const QString& line : testConditions(rule, &holds))
        out(QStringLiteral("  ") + line);
    if (rule.d->conditionsNeedSession || rule.d->splitNeedsSession)
        out(QStringLiteral("  (conditions or split on _SESSION are decided when the script starts a session)"));
    if (!holds) {
        out(QStringLiteral("this request: conditions fail: the page is neither served from the store nor stored"));
        return QByteArray();
    }
    bool portConflict = false;
    const QByteArray https = values.elementValue("_SERVER", {"HTTPS"}).toLower();
    const QByteArray site = requestSite(values.elementValue("_SERVER", {"HTTP_HOST"}),
                                        values.elementValue("_SERVER", {"SERVER_PORT"}),
                                        !https.isEmpty() && https != "off", &portConflict);
    if (portConflict) {
        out(QStringLiteral("this request: its Host names another port than the server's: neither served nor stored"));
        return QByteArray();
    }
    QByteArray split;
    if (!faithfulSplitKey(rule.d->splitBlock, url, split, site)) {
        out(QStringLiteral("this request: a split value holds a NUL byte: never served from the store"));
        return QByteArray();
    }
    const QByteArray key = VMD5::hash(split);
    out(QStringLiteral("this request: conditions hold; its copy is %1 (split key \"%2\")")
            .arg(QString::fromLatin1(key), QString::fromUtf8(split)));
    return key;
}

// False, with the reason in `error`, when the store can't be read.
bool showCopies(VHTMLCache& cache, const CacheRule& rule, const QByteArray& url, const QByteArray& requestKey,
                QString* error)
{
    const QByteArray ns = VHTMLCache::ruleNamespace(rule);
    const qint64 now = QDateTime::currentSecsSinceEpoch();
    int copies = 0;
    const bool read = forEachStoredPage(*cache.store(), [&](const StoredPage& page) {
        // Stored URLs keep their query; the copies of every query count.
        if (page.ns != ns || matchingUrl(QString::fromUtf8(page.entry.url())) != url)
            return;
        ++copies;
        const bool mine = !requestKey.isEmpty() && page.key.startsWith(requestKey);
        out(QStringLiteral("stored copy %1 of %2: status %3, age %4 s, expires %5, %6 bytes%7")
                .arg(QString::fromLatin1(page.key), QString::fromUtf8(page.entry.url()))
                .arg(page.entry.status())
                .arg(now - page.written)
                .arg(expiryText(page, now))
                .arg(page.entry.bodySize())
                .arg(mine ? QStringLiteral(" (this request's)") : QString()));
        for (const QByteArray& header : page.entry.headers())
            out(QStringLiteral("    ") + QString::fromLatin1(header));
        const QList<QByteArray> tags = page.entry.tags();
        if (!tags.isEmpty())
            out(QStringLiteral("    tags: ") + QString::fromUtf8(tags.join(' ')));
    }, error);
    if (read && copies == 0)
        out(QStringLiteral("no stored copy"));
    return read;
}

} // namespace

int commandInspect(CliContext& context, const QStringList& args)
{
    QCommandLineParser parser;
    parser.addPositionalArgument(QStringLiteral("URL"), QStringLiteral("An http or https URL."));
    const QCommandLineOption cookie(QStringLiteral("cookie"), QStringLiteral("A cookie of the request."),
                                    QStringLiteral("NAME=VALUE"));
    const QCommandLineOption server(QStringLiteral("server"), QStringLiteral("A _SERVER value of the request."),
                                    QStringLiteral("NAME=VALUE"));
    parser.addOptions({cookie, server});
    int code = ExitOk;
    const QString syntax = QStringLiteral("[--cookie NAME=VALUE]... [--server NAME=VALUE]... URL");
    if (!parseCommand(parser, args, 1, 1, syntax, &code))
        return code;
    const QString text = parser.positionalArguments().at(0);
    const QByteArray url = matchingUrl(text);
    if (url.isEmpty())
        return fail(ExitUsage, QStringLiteral("inspect: not an http or https URL: %1").arg(text));
    QHash<QByteArray, QByteArray> checked;
    for (const QString& pair : parser.values(cookie) + parser.values(server)) {
        if (!RequestValues::addPair(pair, checked))
            return fail(ExitUsage, QStringLiteral("inspect: expected NAME=VALUE, not %1").arg(pair));
    }
    RequestValues values(text, parser.values(cookie), parser.values(server));
    VPHPEvaluatorsManager::setValueSource(&values);
    const auto forget = qScopeGuard([] { VPHPEvaluatorsManager::setValueSource(nullptr); });
    VHTMLCache* cache = context.cache();
    if (!cache)
        return ExitFailed;
    const Coverage coverage = coverageOf(*cache, url);
    if (!coverage.rule) {
        out(QStringLiteral("%1: not covered: %2").arg(QString::fromUtf8(url), coverage.reason));
        return ExitOk;
    }
    out(QStringLiteral("%1: covered by rule \"%2\" (id %3): %4")
            .arg(QString::fromUtf8(url), coverage.rule->name)
            .arg(coverage.rule->id)
            .arg(coverage.reason));
    out(describeRule(*coverage.rule, QStringLiteral("  ")));
    const QByteArray key = showRequest(*coverage.rule, url, values);
    QString error;
    return showCopies(*cache, *coverage.rule, url, key, &error) ? ExitOk : fail(ExitFailed, error);
}
