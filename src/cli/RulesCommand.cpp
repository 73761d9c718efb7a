// check-rules: a rules file read as a worker's load reads it: the schema,
// the parser, the order of trial and the warnings the load logs.

#include "CliContext.h"
#include "CommandLine.h"
#include "RuleReport.h"

#include "PageCacheLogStream.h"
#include "VException.h"
#include "RulesFileValidator.h"
#include "VRuleMatcher.h"

#include <QCommandLineParser>
#include <QFile>
#include <QRegularExpression>
#include <QTemporaryFile>

namespace {

// Reads and takes over the tables as a load does, with the load's level-1
// statements (the warnings) caught in a file of their own; answers them.
QStringList readRules(VRuleMatcher& matcher, QFile& rules)
{
    QTemporaryFile caught;
    if (!caught.open())
        throw VException(QStringLiteral("cannot make a temporary file: %1").arg(caught.errorString()));
    const VDebug::StreamId workersLog = PageCacheLogStream;
    const VDebug::StreamId warnings = VDebug::registerStream("Page-Cache", caught.fileName().toLocal8Bit().constData());
    VDebug::setDebugLevel(warnings, 1);
    PageCacheLogStream = warnings;
    try {
        matcher.setDevice(&rules);
        matcher.parse();
        matcher.takeOverTables();
    } catch (...) {
        PageCacheLogStream = workersLog;
        VDebug::unregisterStream(warnings);
        throw;
    }
    PageCacheLogStream = workersLog;
    VDebug::unregisterStream(warnings);
    QStringList lines;
    // The text after the statement's stamp, stream and level.
    static const QRegularExpression stamp(QStringLiteral("^\\[[^\\]]*\\]\\s*"));
    for (const QByteArray& line : caught.readAll().split('\n')) {
        if (!line.trimmed().isEmpty())
            lines << QString::fromUtf8(line).remove(stamp).trimmed();
    }
    return lines;
}

} // namespace

int commandCheckRules(CliContext& context, const QStringList& args)
{
    QCommandLineParser parser;
    parser.addPositionalArgument(QStringLiteral("FILE"), QStringLiteral("The rules file (default: the workers')."));
    int code = ExitOk;
    if (!parseCommand(parser, args, 0, 1, QStringLiteral("[FILE]"), &code))
        return code;
    const QString path = !parser.positionalArguments().isEmpty() ? parser.positionalArguments().at(0)
                                                                  : QString::fromLocal8Bit(context.directives.rulesFile());
    QFile rules(path);
    if (!rules.open(QIODevice::ReadOnly | QIODevice::Text))
        return fail(ExitFailed, QStringLiteral("Can't open dependencies file %1 %2").arg(path, rules.errorString()));
    QString error;
    if (!validateRulesFileAgainstSchema(path.toLocal8Bit().constData(), error))
        return fail(ExitFailed, QStringLiteral("%1: %2").arg(path, error));
    VRuleMatcher matcher;
    QStringList warnings;
    try {
        warnings = readRules(matcher, rules);
    } catch (const VException& e) {
        return fail(ExitFailed, QStringLiteral("%1: %2").arg(path, QString::fromLocal8Bit(e.what())));
    }
    out(QStringLiteral("%1: valid, %2 rules, in order of trial:").arg(path).arg(matcher.rules().size()));
    int position = 0;
    for (const CacheRule& rule : matcher.rules()) {
        out(QStringLiteral("%1. \"%2\" (id %3)").arg(++position).arg(rule.name).arg(rule.id));
        out(describeRule(rule, QStringLiteral("   ")));
    }
    for (const QByteArray& url : matcher.readBlacklist())
        out(QStringLiteral("never cached: %1").arg(QString::fromUtf8(url)));
    for (const QString& warning : warnings)
        out(QStringLiteral("warning: %1").arg(warning));
    return ExitOk;
}
