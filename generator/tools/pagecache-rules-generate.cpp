// Makes the page cache's rules file from the task daemon's tables.
//
//   pagecache-rules-generate --db FILE --product-dir DIR [--init] [--verbose N]
//
// The file goes to DIR/etc/pagecache_rules.xml (by way of a ".new" file
// beside it); workers pick it up at their next request by its date. With
// --init the three tables are created first when the database lacks them,
// so an operator can start from nothing. Messages go to standard error, at
// level N (default 3). The database, its directory, DIR/etc and the rules
// file must be the running user's, writable by it alone, and no links.

#include "TKDPageCacheRule.h"
#include "VException.h"

#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>
#include <QSqlDatabase>

#include <cstdio>
#include <cstring>

namespace {

int usage()
{
    fprintf(stderr, "usage: pagecache-rules-generate --db FILE --product-dir DIR [--init] [--verbose N]\n");
    return 2;
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication application(argc, argv);
    QString database, productDir;
    bool init = false;
    int level = 3;
    for (int i = 1; i < argc; ++i) {
        if (strcmp(argv[i], "--db") == 0 && i + 1 < argc)
            database = QString::fromLocal8Bit(argv[++i]);
        else if (strcmp(argv[i], "--product-dir") == 0 && i + 1 < argc)
            productDir = QString::fromLocal8Bit(argv[++i]);
        else if (strcmp(argv[i], "--init") == 0)
            init = true;
        else if (strcmp(argv[i], "--verbose") == 0 && i + 1 < argc)
            level = atoi(argv[++i]);
        else
            return usage();
    }
    if (database.isEmpty() || productDir.isEmpty())
        return usage();
    VDebug::setDebugLevel(VDebug::STDERR, level);

    // What it reads becomes the rules every worker runs on, and where it
    // writes is the workers' configuration: neither may be another's to change.
    const QString etc = productDir + QLatin1String("/etc");
    for (const QString& path : {database, QFileInfo(database).absolutePath(), etc, etc + QLatin1String("/pagecache_rules.xml")}) {
        const QString why = TKDPageCacheRule::unsafePath(path);
        if (!why.isEmpty()) {
            fprintf(stderr, "pagecache-rules-generate: not using %s: it %s\n", path.toLocal8Bit().constData(),
                    why.toLocal8Bit().constData());
            return 1;
        }
    }
    int status = 0;
    {
        QSqlDatabase db = QSqlDatabase::addDatabase(QStringLiteral("QSQLITE"), QStringLiteral("generator"));
        db.setDatabaseName(database);
        if (!init && !QFile::exists(database)) {
            fprintf(stderr, "pagecache-rules-generate: no database %s (--init makes one)\n",
                    database.toLocal8Bit().constData());
            return 1;
        }
        if (!db.open()) {
            fprintf(stderr, "pagecache-rules-generate: cannot open %s\n", database.toLocal8Bit().constData());
            return 1;
        }
        try {
            if (init)
                TKDPageCacheRule::createTables(db);
            QDir().mkpath(etc);
            if (TKDPageCacheRule::writeRulesFile(db, productDir, VDebug::STDERR).isEmpty())
                status = 1;
        } catch (const VException& e) {
            fprintf(stderr, "pagecache-rules-generate: %s\n", e.what());
            status = 1;
        }
        db.close();
    }
    QSqlDatabase::removeDatabase(QStringLiteral("generator"));
    return status;
}
