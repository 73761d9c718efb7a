#pragma once

// Configuration that lives outside php.ini: VeskGlobalDirectives.ini in the
// configuration directory and the ini files of a scan directory, shared by
// the product's components. Accepted pairs are also handed to the engine's
// configuration, so that php.ini readers see them too.

#include <QByteArray>

#include <cstddef>

// Indexes of the base directories that resolvePath() resolves against.
enum BaseDirectory {
    InstallDirBase = 0,
    PidDirBase = 1,
    TempDirBase = 2,
    ConfDirBase = 3,
    LogDirBase = 4,
    DataDirBase = 5,
    IniScanDirBase = 6,
};

// Reads the directive files anew. Answers 0, or -1 on a refusal; the table
// then holds what was read up to that point.
int loadGlobalDirectives();
// The ini parser's callback: keeps plain entries of the product's prefixes.
void acceptDirective(const char* key, size_t keyLength, const char* value, size_t valueLength,
                     int callbackType, void* arg);
// Gives every loaded pair to the engine directive of that name, if one is registered.
int applyGlobalDirectives();

// 0 and the value, or -1. The table first, then the engine's configuration.
int findDirective(const char* name, size_t length, const char** value);
// The same for a directive that every request reads: looked up by name
// once, and again only after the table changed. `memo` is the caller's own.
struct ResolvedDirective
{
    quint64 generation = 0;
    int found = -1;
    const char* value = nullptr;
};
int findDirectiveOnce(const char* name, size_t length, ResolvedDirective& memo, const char** value);
const char* iniFromEngine(const char* name, size_t length);

// Resolves `path` against a base directory: an absolute path stands as it
// is; null when the base directory isn't configured.
QByteArray resolvePath(const char* path, int baseIndex);

long httpdUid();
long httpdGid();
const char* installDir();
long nodeId();
// The farm's task queue, "redis://host:port/db"; empty for none.
const char* clusterQueue();
const char* webserverType();
long statisticsEnabled();
const char* statsdConnectionString();
const char* internalPorts();
