// vesk-pagecache: the operators' tool over the page cache of a server's
// PHP workers. It reads the directives the workers read and works on their
// rules, their store and their statistics through the same code.

#include "CliContext.h"

#include "PageCacheLogStream.h"
#include "VException.h"
#include "VFileMode.h"
#include "VPrivilegesDropper.h"

#include <QCommandLineParser>
#include <QCoreApplication>

#include <unistd.h>

namespace {

const char* const Summary =
    "The page cache of the PHP workers, from the shell.\n\n"
    "Commands:\n"
    "  status                 pages and bytes stored per rule, the cleaner, and the farm's queue\n"
    "  list [--rule NAME]     the stored pages\n"
    "  inspect URL            the rule that covers URL, and its stored copies\n"
    "  remove WHAT            pattern PATTERN | uri RULE URI | rule NAME | ids ID... | all\n"
    "  check-rules [FILE]     validate a rules file and show its rules in order of trial\n"
    "  stats                  hits, misses and time saved per rule, live\n"
    "  publish-config nginx|apache|apache-rules\n"
    "                         the web server's side of published pages\n\n"
    "Run 'vesk-pagecache COMMAND --help' for a command's options.";

typedef int (*Command)(CliContext&, const QStringList&);

Command commandNamed(const QString& name)
{
    if (name == QLatin1String("status"))
        return commandStatus;
    if (name == QLatin1String("list"))
        return commandList;
    if (name == QLatin1String("inspect"))
        return commandInspect;
    if (name == QLatin1String("remove"))
        return commandRemove;
    if (name == QLatin1String("check-rules"))
        return commandCheckRules;
    if (name == QLatin1String("stats"))
        return commandStats;
    if (name == QLatin1String("publish-config"))
        return commandPublishConfig;
    return nullptr;
}

// The store and the log belong to the workers' user: a root shell works as
// that user for good, so that nothing it writes becomes root's and nothing
// it reads (rules, databases the workers can write) runs with root's rights.
bool becomeWorkersUser(const CliDirectives& directives)
{
    if (geteuid() != 0)
        return true;
    return directives.httpdUid() >= 0
           && VPrivilegesDropper::dropForGood(long(directives.httpdUid()), long(directives.httpdGid()));
}

// The workers' log file, where the core's own statements go as they would
// from a worker; none when it can't be opened.
void openLog(CliContext& context)
{
    const QByteArray dir = context.directives.value("vesk.log_dir");
    PageCacheLogStream = VDebug::DEVNULL;
    if (dir.isEmpty())
        return;
    try {
        context.log = VDebug::registerStream("Page-Cache", (dir + "/pagecache.log").constData());
        VDebug::setDebugLevel(context.log, int(context.directives.number("vesk_pagecache.log_verbosity_level", 2)));
        PageCacheLogStream = context.log;
    } catch (const VException&) {
    }
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("vesk-pagecache"));
    QCommandLineParser parser;
    parser.setApplicationDescription(QString::fromLatin1(Summary));
    parser.addHelpOption();
    const QCommandLineOption ini(QStringLiteral("ini"), QStringLiteral("Read FILE instead of the API's php.ini."),
                                 QStringLiteral("FILE"));
    const QCommandLineOption sapi(QStringLiteral("sapi"),
                                  QStringLiteral("The server API whose ini files to read (default fpm)."),
                                  QStringLiteral("NAME"), QStringLiteral("fpm"));
    const QCommandLineOption confRoot(QStringLiteral("php-conf-dir"),
                                      QStringLiteral("Where the APIs' ini files lie (default /etc/php/8.2)."),
                                      QStringLiteral("DIR"), QStringLiteral("/etc/php/8.2"));
    parser.addOptions({ini, sapi, confRoot});
    parser.addPositionalArgument(QStringLiteral("command"), QStringLiteral("What to do; see above."));
    // What follows the command is the command's own.
    parser.setOptionsAfterPositionalArgumentsMode(QCommandLineParser::ParseAsPositionalArguments);
    if (!parser.parse(app.arguments()))
        return fail(ExitUsage, parser.errorText());
    if (parser.isSet(QStringLiteral("help")))
        parser.showHelp(ExitOk);
    const QStringList rest = parser.positionalArguments();
    if (rest.isEmpty())
        return fail(ExitUsage, QStringLiteral("no command given; try --help"));
    const Command command = commandNamed(rest.first());
    if (!command)
        return fail(ExitUsage, QStringLiteral("unknown command '%1'; try --help").arg(rest.first()));

    CliContext context;
    // A command's help is printed before anything is read.
    if (rest.contains(QStringLiteral("--help")) || rest.contains(QStringLiteral("-h")))
        return command(context, rest);
    if (!context.directives.load(iniSourcesFor(parser.value(confRoot), parser.value(sapi), parser.value(ini))))
        return fail(ExitFailed, context.directives.lastError());
    if (!becomeWorkersUser(context.directives)) {
        const QString phpIni = context.directives.filesRead().value(0);
        return fail(ExitFailed, context.directives.httpdUid() < 0
                                    ? QStringLiteral("vesk.httpd_uid is set neither in %1 nor in its scan directories: "
                                                     "the workers' user is unknown").arg(phpIni)
                                    : QStringLiteral("cannot become the workers' user %1").arg(context.directives.httpdUid()));
    }
    VFileMode::set(context.directives.value("vesk.file_mode"));
    openLog(context);
    try {
        return command(context, rest);
    } catch (const VException& e) {
        return fail(ExitFailed, QString::fromLocal8Bit(e.what()));
    }
}
