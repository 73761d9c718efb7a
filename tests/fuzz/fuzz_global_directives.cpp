// The global directive loader: a VeskGlobalDirectives.ini of any bytes in
// the configuration directory, then the lookups and paths built on it.

#include "GlobalDirectives.h"
#include "../unit/ext/FakeHost.h"

#include <QFile>
#include <QTemporaryDir>

#include <cstdint>
#include <cstdlib>
#include <cstring>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static QTemporaryDir dir;
    static const QByteArray conf = QFile::encodeName(dir.path());
    QFile file(dir.filePath(QStringLiteral("VeskGlobalDirectives.ini")));
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate))
        return 0;
    file.write(reinterpret_cast<const char*>(data), qint64(size));
    file.close();

    FakeHost::instance().reset();
    FakeHost::instance().configuration["vesk.conf_dir"] = conf.constData();
    loadGlobalDirectives();
    applyGlobalDirectives();
    const char* value = nullptr;
    for (const char* name : {"vesk.httpd_uid", "vesk.log_dir", "vesk.install_dir", "vesk.node_id"})
        findDirective(name, strlen(name), &value);
    (void)httpdUid();
    (void)httpdGid();
    (void)nodeId();
    (void)internalPorts();
    for (int base = InstallDirBase; base <= IniScanDirBase; ++base)
        (void)resolvePath("pagecache.log", base);
    return 0;
}
