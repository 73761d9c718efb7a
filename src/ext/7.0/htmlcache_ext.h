#pragma once

// The extension's life in a worker process: the engine's entry points call
// these through the host layer. Each answers 0; a module that can't start
// switches itself off and lets PHP run.

class QString;

int extensionStartup();
int moduleStartup();
int moduleShutdown();
void moduleInfo();

// Reads the rules file anew into a fresh cache object. Throws VException
// when the file can't be read.
void reloadRules(bool isStartup);
// Tells the extension manager, when one is loaded, why the cache is off.
void disableExtension(const QString& reason);
bool isPageCacheStatisticsEnabled();
// Both statistics switches of the record channel, read afresh.
bool isRecordChannelOn();

extern const char* const PageCacheName;
extern const char* const PageCacheVersion;
