// status, list and inspect: what the store holds, read as a worker reads it.

#include "CliContext.h"
#include "CommandLine.h"
#include "RuleReport.h"
#include "StoreListing.h"

#include "VDiskStorage.h"
#include "VGlobals.h"
#include "VHTMLCache.h"

#include <QCommandLineParser>
#include <QDateTime>
#include <QFile>
#include <QMap>

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

// The cleaner's pid file, written in vesk.pid_dir while it runs.
QString cleanerState(const CliDirectives& directives)
{
    const QByteArray pidDir = directives.value("vesk.pid_dir");
    if (pidDir.isEmpty())
        return QStringLiteral("unknown (vesk.pid_dir is not set)");
    QFile file(QString::fromLocal8Bit(pidDir) + QLatin1Char('/') +
               QLatin1String(VGlobals::PID_PAGECACHE_CLEANER) + QStringLiteral(".pid"));
    if (!file.open(QIODevice::ReadOnly))
        return QStringLiteral("not running");
    const long pid = file.readAll().trimmed().toLong();
    if (pid > 0 && (kill(pid_t(pid), 0) == 0 || errno == EPERM))
        return QStringLiteral("running, pid %1").arg(pid);
    return QStringLiteral("not running (stale pid file)");
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
    for (const StoredPage& page : listStore(*cache->store())) {
        RuleTotals& t = totals[nameOf(names, page.ns)];
        page.compressedCopy() ? ++t.gzipCopies : ++t.pages;
        t.bytes += page.fileBytes;
        t.oldest = t.oldest ? qMin(t.oldest, page.written) : page.written;
        t.newest = qMax(t.newest, page.written);
    }
    out(QStringLiteral("store: %1").arg(QString::fromLocal8Bit(cache->store()->root())));
    out(QStringLiteral("rules file: %1").arg(QString::fromLocal8Bit(context.directives.rulesFile())));
    out(QStringLiteral("cleaner: %1").arg(cleanerState(context.directives)));
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
    parser.addOption(ruleOption);
    int code = ExitOk;
    if (!parseCommand(parser, args, 0, 0, QStringLiteral("[--rule NAME]"), &code))
        return code;
    VHTMLCache* cache = context.cache();
    if (!cache)
        return ExitFailed;
    const QHash<QByteArray, QString> names = ruleNames(*cache);
    const qint64 now = QDateTime::currentSecsSinceEpoch();
    for (const StoredPage& page : listStore(*cache->store())) {
        const QString rule = nameOf(names, page.ns);
        if (parser.isSet(ruleOption) && rule != parser.value(ruleOption))
            continue;
        out(QStringLiteral("%1\t%2\t%3\tstatus %4\tage %5 s\texpires %6\t%7 bytes%8")
                .arg(rule, QString::fromUtf8(page.entry.url()), QString::fromLatin1(page.key))
                .arg(page.entry.status())
                .arg(now - page.written)
                .arg(expiryText(page, now))
                .arg(page.entry.bodySize())
                .arg(page.compressedCopy() ? QStringLiteral("\tgzip") : QString()));
    }
    return ExitOk;
}

int commandInspect(CliContext& context, const QStringList& args)
{
    QCommandLineParser parser;
    parser.addPositionalArgument(QStringLiteral("URL"), QStringLiteral("An http or https URL."));
    int code = ExitOk;
    if (!parseCommand(parser, args, 1, 1, QStringLiteral("URL"), &code))
        return code;
    const QByteArray url = matchingUrl(parser.positionalArguments().at(0));
    if (url.isEmpty())
        return fail(ExitUsage, QStringLiteral("inspect: not an http or https URL: %1").arg(parser.positionalArguments().at(0)));
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
    const QByteArray ns = VHTMLCache::ruleNamespace(*coverage.rule);
    const qint64 now = QDateTime::currentSecsSinceEpoch();
    int copies = 0;
    for (const StoredPage& page : listStore(*cache->store())) {
        // Stored URLs keep their query; the copies of every query count.
        if (page.ns != ns || matchingUrl(QString::fromUtf8(page.entry.url())) != url)
            continue;
        ++copies;
        out(QStringLiteral("stored copy %1 of %2: status %3, age %4 s, expires %5, %6 bytes")
                .arg(QString::fromLatin1(page.key), QString::fromUtf8(page.entry.url()))
                .arg(page.entry.status())
                .arg(now - page.written)
                .arg(expiryText(page, now))
                .arg(page.entry.bodySize()));
        for (const QByteArray& header : page.entry.headers())
            out(QStringLiteral("    ") + QString::fromLatin1(header));
    }
    if (copies == 0)
        out(QStringLiteral("no stored copy"));
    return ExitOk;
}
