// remove: the removals of the script functions, made from the shell with
// the same calls into the cache, and handed on to the other nodes of a
// cluster the same way when --cluster says so.

#include "CliContext.h"
#include "CommandLine.h"

#include "TKDTaskInserter.h"
#include "VCacheRemoval.h"
#include "VException.h"
#include "VHTMLCache.h"

#include <QCommandLineParser>

namespace {

const char* const Syntax = "[--cluster] pattern PATTERN | uri RULE URI | rule NAME | ids ID... | tag TAG... | all";

// Only a node of a cluster queues; the local removal has been done and
// stands whatever happens to the task.
bool queueTask(CliContext& context, const VCacheRemoval& removal)
{
    if (context.directives.nodeId() == 0)
        return true;
    TKDTaskInserter::setClusterQueue(context.directives.clusterQueue());
    try {
        TKDTaskInserter::addTask(removal.taskType(), true, context.serverInfo(), removal.payload(), context.log);
        return true;
    } catch (const VException& e) {
        VLOG(context.log, 0) << removal.queueFailure() << e.what();
        fail(ExitFailed, QStringLiteral("removed here, but not queued for the other nodes: %1")
                             .arg(QString::fromLocal8Bit(e.what())));
        return false;
    }
}

// The removal `what` names.
VCacheRemoval removalOf(const QStringList& what)
{
    const QString kind = what.first();
    if (kind == QLatin1String("pattern"))
        return VCacheRemoval::byPattern(what.at(1).toUtf8());
    if (kind == QLatin1String("uri"))
        return VCacheRemoval::byUri(what.at(1).toUtf8(), what.at(2).toUtf8());
    if (kind == QLatin1String("rule"))
        return VCacheRemoval::byRule(what.at(1).toUtf8());
    if (kind == QLatin1String("ids")) {
        QList<qint64> ids;
        for (int i = 1; i < what.size(); ++i)
            ids << what.at(i).toLongLong();
        return VCacheRemoval::byRuleIds(ids);
    }
    if (kind == QLatin1String("tag")) {
        QList<QByteArray> tags;
        for (int i = 1; i < what.size(); ++i)
            tags << what.at(i).toUtf8();
        return VCacheRemoval::byTags(tags);
    }
    return VCacheRemoval::all();
}

// The number of words each kind takes after its name; -1 for one or more.
int wordsOf(const QString& kind)
{
    if (kind == QLatin1String("pattern") || kind == QLatin1String("rule"))
        return 1;
    if (kind == QLatin1String("uri"))
        return 2;
    if (kind == QLatin1String("ids") || kind == QLatin1String("tag"))
        return -1;
    if (kind == QLatin1String("all"))
        return 0;
    return -2;
}

// A rule name or id that the file doesn't hold would make the removal
// remove nothing and still succeed, as the script functions do: from a
// shell that is most likely a typing error, so it is told.
QString unknownRule(const VHTMLCache& cache, const QStringList& what)
{
    const QString kind = what.first();
    if (kind != QLatin1String("uri") && kind != QLatin1String("rule") && kind != QLatin1String("ids"))
        return QString();
    for (int i = 1; i < (kind == QLatin1String("ids") ? what.size() : 2); ++i) {
        bool found = false;
        for (const CacheRule& rule : cache.rules())
            found = found || (kind == QLatin1String("ids") ? rule.id == what.at(i).toLongLong() : rule.name == what.at(i));
        if (!found)
            return what.at(i);
    }
    return QString();
}

bool idsAreNumbers(const QStringList& what)
{
    for (int i = 1; i < what.size(); ++i) {
        bool ok = false;
        if (what.at(i).toLongLong(&ok) == 0 || !ok)
            return false;
    }
    return true;
}

} // namespace

int commandRemove(CliContext& context, const QStringList& args)
{
    QCommandLineParser parser;
    const QCommandLineOption cluster(QStringLiteral("cluster"),
                                     QStringLiteral("Queue the same removal for the other nodes of the cluster."));
    parser.addOption(cluster);
    parser.addPositionalArgument(QStringLiteral("what"), QString::fromLatin1(Syntax));
    int code = ExitOk;
    if (!parseCommand(parser, args, 1, -1, QString::fromLatin1(Syntax), &code))
        return code;
    const QStringList what = parser.positionalArguments();
    const int words = wordsOf(what.first());
    if (words == -2 || (words >= 0 && what.size() != words + 1) || (words == -1 && what.size() < 2))
        return fail(ExitUsage, QStringLiteral("usage: vesk-pagecache remove %1").arg(QString::fromLatin1(Syntax)));
    if (what.first() == QLatin1String("ids") && !idsAreNumbers(what))
        return fail(ExitUsage, QStringLiteral("remove ids: rule ids are numbers other than 0"));
    VHTMLCache* cache = context.cache();
    if (!cache)
        return ExitFailed;
    const QString unknown = unknownRule(*cache, what);
    if (!unknown.isEmpty())
        return fail(ExitFailed, QStringLiteral("no rule \"%1\" in the rules file; nothing removed").arg(unknown));
    const VCacheRemoval removal = removalOf(what);
    if (!removal.carryOut(*cache))
        return fail(ExitFailed, QStringLiteral("nothing removed: %1").arg(what.join(QLatin1Char(' '))));
    out(QStringLiteral("removed: %1").arg(what.join(QLatin1Char(' '))));
    if (parser.isSet(cluster) && !queueTask(context, removal))
        return ExitFailed;
    return ExitOk;
}
