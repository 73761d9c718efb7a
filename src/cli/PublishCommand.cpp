// publish-config: the web server's side of published pages, for the rules
// in force, to include in its configuration.

#include "CliContext.h"
#include "CommandLine.h"
#include "PublishConfig.h"

#include "VHTMLCache.h"

#include <QCommandLineParser>

int commandPublishConfig(CliContext& context, const QStringList& args)
{
    QCommandLineParser parser;
    parser.addPositionalArgument(QStringLiteral("SERVER"),
                                 QStringLiteral("nginx (the locations' part), nginx-maps (the http block's), "
                                                "apache (the virtual host's) or apache-rules (the site "
                                                "directory's)."));
    int code = ExitOk;
    if (!parseCommand(parser, args, 1, 1, QStringLiteral("nginx|nginx-maps|apache|apache-rules"), &code))
        return code;
    const QString server = parser.positionalArguments().first();
    const QStringList servers = {QStringLiteral("nginx"), QStringLiteral("nginx-maps"), QStringLiteral("apache"),
                                 QStringLiteral("apache-rules")};
    if (!servers.contains(server))
        return fail(ExitUsage, QStringLiteral("usage: vesk-pagecache publish-config nginx|nginx-maps|apache|apache-rules"));
    const QByteArray dir = context.directives.publishDir();
    if (dir.isEmpty())
        return fail(ExitFailed, QStringLiteral("vesk_pagecache.publish_dir is not set: nothing is published"));
    VHTMLCache* cache = context.cache();
    if (!cache)
        return ExitFailed;
    const QList<CacheRule>& rules = cache->rules();
    const QString text = server == QLatin1String("nginx")        ? nginxPublishConfig(rules, dir)
                         : server == QLatin1String("nginx-maps") ? nginxPublishMaps(rules, dir)
                         : server == QLatin1String("apache")     ? apachePublishConfig(dir)
                                                                 : apacheRewriteConfig(rules, dir);
    fputs(text.toLocal8Bit().constData(), stdout);
    return ExitOk;
}
