#include "GlobalDirectives.h"

#include "host/vesk_host.h"

#include <QByteArray>
#include <QHash>
#include <QSet>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <sys/stat.h>

namespace {

const size_t PathBufferSize = 4096;

const char* const baseDirectoryNames[] = {
    "vesk.install_dir", "vesk.pid_dir", "vesk.temp_dir", "vesk.conf_dir",
    "vesk.log_dir",     "vesk.data_dir", "vesk.ini_scandir",
};

const char* const acceptedPrefixes[] = {
    "vesk_", "vesk.", "tlm.", "qdr.", "java.", "ocula.", "opcache.", "mod_cluster.",
};

QHash<QByteArray, QByteArray>* directiveTable = nullptr;
bool directivesLoaded = false;
// Counts the changes of the table: what was resolved from it stands until
// the next one, since the engine's own configuration stays as start-up
// read it.
quint64 tableGeneration = 0;

// Sibling components' directives. The page cache filters by nothing of its
// own, so the set stays empty and filtering stays off.
QSet<QByteArray>* filteredDirectives = nullptr;
bool filterDirectives = false;

bool readFailureReported = false;

const char* engineValue(const char* name)
{
    return vesk_get_configuration_directive(name, strlen(name));
}

int parseIniFile(const char* path)
{
    struct stat st;
    if (stat(path, &st) != 0 || S_ISDIR(st.st_mode))
        return -1;
    FILE* file = fopen(path, "r");
    if (!file) {
        if (!readFailureReported) {
            readFailureReported = true;
            vesk_error(VESK_E_WARNING, "Failed to read ini file [%s], %s", path, strerror(errno));
        }
        return -1;
    }
    return vesk_parse_ini_file(file, path, acceptDirective, nullptr);
}

int scanDirectory(const char* dirPath)
{
    DIR* dir = opendir(dirPath);
    if (!dir) {
        vesk_error(VESK_E_WARNING, "Failed to open the scandir [%s]: %s", dirPath, strerror(errno));
        return -1;
    }
    char path[PathBufferSize];
    while (const struct dirent* entry = readdir(dir)) {
        const char* dot = strrchr(entry->d_name, '.');
        if (!dot || strcmp(dot, ".ini") != 0)
            continue;
        const int length = snprintf(path, sizeof path, "%s%c%s", dirPath, '/', entry->d_name);
        if (length < 0 || size_t(length) >= sizeof path) {
            vesk_error(VESK_E_WARNING, "Will not parse [%s]: the path is too long", entry->d_name);
            continue;
        }
        parseIniFile(path);
    }
    if (closedir(dir) != 0) {
        vesk_error(VESK_E_WARNING, "Failed to close the scandir [%s]: %s", dirPath, strerror(errno));
        return -1;
    }
    return 0;
}

// `value` of `directive` named under vesk.conf_dir, as `what`. False, with
// the engine told why, without a conf directory or with a path too long.
bool underConfDir(const char* confDir, const char* directive, const char* value, const char* what, QByteArray& path)
{
    if (!confDir) {
        vesk_error(VESK_E_ERROR, "%s was specified (%s), but %s was not: can't locate the %s", directive, value,
                   "vesk.conf_dir", what);
        return false;
    }
    if (strlen(confDir) + strlen(value) + 2 > PathBufferSize) {
        vesk_error(VESK_E_ERROR, "%s path too long (%s: %s, %s: %s)", what, "vesk.conf_dir", confDir, directive,
                   value);
        return false;
    }
    path = QByteArray(confDir) + '/' + value;
    return true;
}

// PHP_INI_SCAN_DIR as the engine reads it: directories separated by ":",
// each read in turn; an empty entry stands for the engine's own scan
// directory, so ":/dir" adds a directory to the usual ones.
int scanDirectoryList(const char* list)
{
    int result = 0;
    for (const QByteArray& entry : QByteArray(list).split(':')) {
        const char* dirPath = entry.isEmpty() ? vesk_engine_scan_dir() : entry.constData();
        if (dirPath && *dirPath && scanDirectory(dirPath) != 0)
            result = -1;
    }
    return result;
}

long numberOf(const char* name, long absent)
{
    const char* value = nullptr;
    if (findDirective(name, strlen(name), &value) != 0 || !value)
        return absent;
    return strtol(value, nullptr, 10);
}

const char* textOf(const char* name, const char* absent)
{
    const char* value = nullptr;
    if (findDirective(name, strlen(name), &value) != 0)
        return absent;
    return value;
}

} // namespace

int loadGlobalDirectives()
{
    if (!filteredDirectives)
        filteredDirectives = new QSet<QByteArray>;
    delete directiveTable;
    directiveTable = new QHash<QByteArray, QByteArray>;
    directivesLoaded = true;
    ++tableGeneration;

    // A copy: the file read next may set vesk.conf_dir itself, and the
    // engine frees the value it replaces.
    const char* configured = engineValue("vesk.conf_dir");
    const QByteArray confDirCopy = configured ? QByteArray(configured) : QByteArray();
    const char* confDir = configured ? confDirCopy.constData() : nullptr;
    if (confDir) {
        const QByteArray globalFile = QByteArray(confDir) + "/" + "VeskGlobalDirectives.ini";
        struct stat st;
        if (stat(globalFile.constData(), &st) == 0)
            parseIniFile(globalFile.constData());
    }

    // An empty PHP_INI_SCAN_DIR means "no scan directory" to the engine
    // itself, so it does here too. Its value is a list; vesk.ini_scandir
    // names one directory.
    const char* scanDir = getenv("PHP_INI_SCAN_DIR");
    if (scanDir && *scanDir)
        return scanDirectoryList(scanDir);
    QByteArray path;
    if (const char* iniScanDir = engineValue("vesk.ini_scandir")) {
        if (!underConfDir(confDir, "vesk.ini_scandir", iniScanDir, "scandir", path))
            return -1;
        return scanDirectory(path.constData());
    }
    const char* iniFile = engineValue("vesk.ini_file");
    if (!iniFile)
        return 0;
    if (!underConfDir(confDir, "vesk.ini_file", iniFile, "ini file", path))
        return -1;
    parseIniFile(path.constData());
    return 0;
}

void acceptDirective(const char* key, size_t keyLength, const char* value, size_t valueLength,
                     int callbackType, void*)
{
    if (callbackType != VESK_INI_PARSER_ENTRY || !value || !key || keyLength <= 4)
        return;
    bool known = false;
    for (const char* prefix : acceptedPrefixes) {
        const size_t length = strlen(prefix);
        if (keyLength >= length && memcmp(key, prefix, length) == 0) {
            known = true;
            break;
        }
    }
    if (!known)
        return;
    const QByteArray name(key, int(keyLength));
    if (filterDirectives && !filteredDirectives->contains(name))
        return;
    directiveTable->insert(name, QByteArray(value, int(valueLength)));
    ++tableGeneration;
    vesk_add_configuration_directive(key, keyLength, value, valueLength);
}

int applyGlobalDirectives()
{
    if (!directivesLoaded)
        loadGlobalDirectives();
    for (auto it = directiveTable->constBegin(); it != directiveTable->constEnd(); ++it) {
        // A pair without a registered directive stays for findDirective();
        // a value the directive refuses leaves its php.ini value in force.
        vesk_apply_ini_entry(it.key().constData(), size_t(it.key().size()),
                             it.value().constData(), size_t(it.value().size()));
    }
    return 0;
}

int findDirective(const char* name, size_t length, const char** value)
{
    if (!directivesLoaded)
        loadGlobalDirectives();
    if (directiveTable) {
        const auto it = directiveTable->constFind(QByteArray::fromRawData(name, int(length)));
        if (it != directiveTable->constEnd()) {
            *value = it.value().constData();
            return 0;
        }
    }
    const char* engine = vesk_get_configuration_directive(name, length);
    if (!engine)
        return -1;
    *value = engine;
    return 0;
}

int findDirectiveOnce(const char* name, size_t length, ResolvedDirective& memo, const char** value)
{
    if (!directivesLoaded)
        loadGlobalDirectives();
    if (memo.generation != tableGeneration) {
        memo.found = findDirective(name, length, &memo.value);
        memo.generation = tableGeneration;
    }
    *value = memo.value;
    return memo.found;
}

const char* iniFromEngine(const char* name, size_t length)
{
    return vesk_get_configuration_directive(name, length);
}

QByteArray resolvePath(const char* path, int baseIndex)
{
    if (!path)
        path = "";
    if (path[0] == '/')
        return QByteArray(path);
    if (baseIndex < 0 || baseIndex > IniScanDirBase)
        return QByteArray();
    const char* base = nullptr;
    const char* name = baseDirectoryNames[baseIndex];
    if (findDirective(name, strlen(name), &base) != 0 || !base)
        return QByteArray();
    return QByteArray(base) + '/' + path;
}

long httpdUid()
{
    return numberOf("vesk.httpd_uid", -1);
}

long httpdGid()
{
    // A missing group falls back to the user's number.
    return numberOf("vesk.httpd_gid", httpdUid());
}

const char* installDir()
{
    return textOf("vesk.install_dir", nullptr);
}

long nodeId()
{
    return numberOf("vesk.node_id", 0);
}

const char* clusterQueue()
{
    return textOf("vesk.cluster_queue", "");
}

const char* webserverType()
{
    return textOf("vesk.webserver_type", nullptr);
}

long statisticsEnabled()
{
    static const char name[] = "vesk_statistics.enable";
    static ResolvedDirective memo;
    const char* value = nullptr;
    if (findDirectiveOnce(name, sizeof name - 1, memo, &value) == 0 && value)
        return strtol(value, nullptr, 10);
    return vesk_ini_long(name, sizeof name - 1);
}

const char* statsdConnectionString()
{
    return textOf("vesk.statsd_connection_string", nullptr);
}

const char* internalPorts()
{
    // Asked on every request: looked up once per table.
    static const char name[] = "vesk.internal_ports";
    static ResolvedDirective memo;
    const char* value = nullptr;
    return findDirectiveOnce(name, sizeof name - 1, memo, &value) == 0 ? value : "10081,10082,10083";
}
