#pragma once

#include "VDebug.h"
#include "VeskServerInfo.h"

#include <QByteArray>
#include <QDateTime>
#include <QString>

class PageCachePurgeRules;

// What lives for the whole worker process. Written only by start-up,
// shutdown and a rules reload; read without locks everywhere else.
struct ModuleState
{
    // The working switch: every entry point tests this, not the directive.
    bool enabled = false;
    VDebug::StreamId logStream = 0;
    VeskServerInfo serverInfo;
    QString rulesFilePath;
    QDateTime rulesFileDate;
    // Null while unresolved.
    QByteArray resolvedRulesFile;
    QByteArray resolvedSavePath;
    bool sessionHooksInstalled = false;
    // Made by start-up and kept to the end of the process; null before, and
    // in a module refused early.
    PageCachePurgeRules* purgeRules = nullptr;
};

extern ModuleState moduleState;
