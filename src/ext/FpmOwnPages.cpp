// php-fpm answers its pool's status and ping paths (pm.status_path,
// ping.path) itself, once the request has started and before any script:
// a page stored or served for one would go out beside php-fpm's own answer.
// The engine doesn't expose the pool's configuration, so each worker reads
// it once: its pool's name from its own title ("php-fpm: pool NAME"), the
// configuration file from its master's ("php-fpm: master process (FILE)"),
// with the files that one includes.

#include "RequestPrivacy.h"

#include "HostProbes.h"
#include "ModuleState.h"
#include "host/vesk_host.h"

#include <QByteArrayList>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QList>

#include <cstring>
#include <unistd.h>

namespace {

// A bound on nested includes, against a file that includes itself.
const int DeepestInclude = 8;

QByteArray processTitle(pid_t pid)
{
    QFile file(QStringLiteral("/proc/%1/cmdline").arg(pid));
    if (!file.open(QIODevice::ReadOnly))
        return QByteArray();
    const QByteArray text = file.readAll();
    return text.left(text.indexOf('\0')).trimmed();
}

QByteArray unquoted(const QByteArray& value)
{
    if (value.size() >= 2 && (value.startsWith('"') || value.startsWith('\'')) && value.endsWith(value.at(0)))
        return value.mid(1, value.size() - 2);
    return value;
}

struct PoolFile
{
    QByteArray pool;
    QByteArray section;
    QList<QByteArray> paths;
};

void readConfig(const QString& path, PoolFile& config, int depth)
{
    QFile file(path);
    if (depth > DeepestInclude || !file.open(QIODevice::ReadOnly))
        return;
    while (!file.atEnd()) {
        const QByteArray line = file.readLine().trimmed();
        if (line.startsWith('[') && line.endsWith(']'))
            config.section = line.mid(1, line.size() - 2).trimmed();
        const int equals = line.indexOf('=');
        if (line.isEmpty() || line.startsWith(';') || line.startsWith('#') || equals < 0)
            continue;
        const QByteArray key = line.left(equals).trimmed();
        const QByteArray value = unquoted(line.mid(equals + 1).trimmed());
        if (key == "include") {
            const QFileInfo pattern(QFileInfo(path).dir(), QString::fromLocal8Bit(value));
            const QDir dir = pattern.dir();
            for (const QString& name : dir.entryList({pattern.fileName()}, QDir::Files, QDir::Name))
                readConfig(dir.filePath(name), config, depth + 1);
        } else if ((key == "pm.status_path" || key == "ping.path") && !value.isEmpty()
                   && (config.pool.isEmpty() || config.section == config.pool)) {
            config.paths.append(value);
        }
    }
}

// The status and ping paths of this worker's pool (of every pool when its
// own isn't named), read once.
const QList<QByteArray>& ownPaths()
{
    static bool read = false;
    static QList<QByteArray> paths;
    if (read)
        return paths;
    read = true;
    const QByteArray master = processTitle(getppid());
    const QByteArray prefix = "php-fpm: master process (";
    if (!master.startsWith(prefix) || !master.endsWith(')'))
        return paths;
    PoolFile config;
    const QByteArray own = processTitle(getpid());
    if (own.startsWith("php-fpm: pool "))
        config.pool = own.mid(int(strlen("php-fpm: pool "))).trimmed();
    readConfig(QString::fromLocal8Bit(master.mid(prefix.size(), master.size() - prefix.size() - 1)), config, 0);
    paths = config.paths;
    VLOG(moduleState.logStream, 4) << "php-fpm's own pages:" << paths.join(' ');
    return paths;
}

} // namespace

bool isFpmOwnPage()
{
    if (!isFpm())
        return false;
    const char* uri = vesk_request_uri();
    return uri && ownPaths().contains(QByteArray(uri));
}
