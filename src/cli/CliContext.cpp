#include "CliContext.h"

#include "CommandLine.h"

#include "VHTMLCache.h"

#include <QCommandLineParser>
#include <QTextStream>

#include <cstdio>

int fail(int code, const QString& text)
{
    QString line = text.simplified();
    fprintf(stderr, "vesk-pagecache: %s\n", line.toLocal8Bit().constData());
    return code;
}

void out(const QString& text)
{
    fputs(text.toLocal8Bit().constData(), stdout);
    fputc('\n', stdout);
}

VHTMLCache* CliContext::cache()
{
    const QByteArray savePath = directives.savePath();
    const QByteArray rulesFile = directives.rulesFile();
    if (savePath.isEmpty() || rulesFile.isEmpty()) {
        fail(ExitFailed, QStringLiteral("vesk.temp_dir or vesk.conf_dir is not set: no store or rules file"));
        return nullptr;
    }
    // Removals end the published files of what they remove, as the workers' do.
    VHTMLCache::setPublishDir(directives.publishDir());
    VHTMLCache* cache = VHTMLCache::instance();
    // The workers' own load, less the cleaner: theirs already runs.
    if (!cache->load(savePath.constData(), directives.dirDepth(), rulesFile.constData(),
                     directives.number("vesk_pagecache.max_cached_rules", 100))) {
        fail(ExitFailed, cache->lastError());
        return nullptr;
    }
    return cache;
}

VeskServerInfo CliContext::serverInfo() const
{
    const QByteArray installDir = directives.value("vesk.install_dir");
    const QByteArray webserver = directives.value("vesk.webserver_type");
    VeskServerInfo info(installDir.isNull() ? nullptr : installDir.constData(),
                        webserver.isNull() ? nullptr : webserver.constData(), log);
    info.setServerNumber(int(directives.nodeId()));
    return info;
}

bool parseCommand(QCommandLineParser& parser, const QStringList& args, int minPositional, int maxPositional,
                  const QString& syntax, int* code)
{
    parser.addHelpOption();
    if (!parser.parse(args)) {
        *code = fail(ExitUsage, args.first() + QStringLiteral(": ") + parser.errorText());
        return false;
    }
    if (parser.isSet(QStringLiteral("help")))
        parser.showHelp(ExitOk);
    const int count = parser.positionalArguments().size();
    if (count < minPositional || (maxPositional >= 0 && count > maxPositional)) {
        *code = fail(ExitUsage, QStringLiteral("usage: vesk-pagecache %1 %2").arg(args.first(), syntax));
        return false;
    }
    return true;
}
