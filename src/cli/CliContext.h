#pragma once

#include "CliDirectives.h"

#include "VDebug.h"
#include "VeskServerInfo.h"

#include <QStringList>

class VHTMLCache;

// What every subcommand starts from: the workers' directives, their log,
// and, once asked for, the cache as a worker loads it (rules and store,
// without a cleaner of its own).
struct CliContext
{
    CliDirectives directives;
    VDebug::StreamId log = VDebug::DEVNULL;

    // Answers null after printing the reason.
    VHTMLCache* cache();
    VeskServerInfo serverInfo() const;
};

// Exit codes: done, failed, called wrongly.
enum ExitCode { ExitOk = 0, ExitFailed = 1, ExitUsage = 2 };

// Prints "vesk-pagecache: <text>" on one line of the standard error.
int fail(int code, const QString& text);
void out(const QString& text);

int commandStatus(CliContext& context, const QStringList& args);
int commandList(CliContext& context, const QStringList& args);
int commandInspect(CliContext& context, const QStringList& args);
int commandRemove(CliContext& context, const QStringList& args);
int commandCheckRules(CliContext& context, const QStringList& args);
int commandStats(CliContext& context, const QStringList& args);
int commandPublishConfig(CliContext& context, const QStringList& args);
