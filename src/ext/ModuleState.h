#pragma once

#include "VDebug.h"
#include "VeskServerInfo.h"

#include <QDateTime>
#include <QString>

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
    // C-heap blocks, released at shutdown.
    char* resolvedRulesFile = nullptr;
    char* resolvedSavePath = nullptr;
    bool sessionHooksInstalled = false;
};

extern ModuleState moduleState;
