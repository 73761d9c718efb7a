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
// An exception reached an entry point of the engine: logged at level 0; at
// start-up the cache is switched off for the process, as start-up stopped
// half way.
void failureEscaped(const char* where, const char* what, bool startup);
// Tells the extension manager, when one is loaded, why the cache is off.
void disableExtension(const QString& reason);

extern const char* const PageCacheName;
extern const char* const PageCacheVersion;
