// Listens where the page cache's workers send their statistics and shows
// what arrives: each message as a line, or a live table per rule.
//
//   pagecache-statsd-listen [--table] [--exit-after N] [--group GROUP] [CONNECTION]
//
// CONNECTION is "unix:PATH" (by default unix:/run/vesk/statsd.sock) or
// "tcp://HOST:PORT" on loopback, as in vesk.statsd_connection_string. The
// Unix socket is made 0660 for GROUP, the workers' group: www-data when
// root starts the tool, else the tool's own group. With --exit-after the
// tool ends after N messages; SIGINT or SIGTERM end it at any time.

#include "StatsTable.h"
#include "VException.h"
#include "VPageCacheStatsMessage.h"
#include "VSocket.h"

#include <QDataStream>
#include <QMap>
#include <QTextStream>

#include <csignal>
#include <cstdio>
#include <cstring>
#include <grp.h>
#include <unistd.h>

namespace {

volatile sig_atomic_t stopping = 0;

void stop(int)
{
    stopping = 1;
}

// Clears the terminal and redraws the table from the top.
void printTable(const StatsTable& table)
{
    printf("\033[H\033[2J%s", table.text().constData());
    fflush(stdout);
}

int usage()
{
    fprintf(stderr, "usage: pagecache-statsd-listen [--table] [--exit-after N] [--group GROUP] [CONNECTION]\n");
    return 2;
}

// The group that may send on the Unix socket: a name or a number; -1 for
// the tool's own when none is given and the tool isn't root.
long groupId(const char* name)
{
    if (!name)
        name = geteuid() == 0 ? "www-data" : nullptr;
    if (!name)
        return -1;
    char* end = nullptr;
    const long number = strtol(name, &end, 10);
    if (*name && !*end)
        return number;
    const struct group* found = getgrnam(name);
    if (!found)
        throw VException(QStringLiteral("No group %1").arg(QString::fromLocal8Bit(name)));
    return long(found->gr_gid);
}

// One line per message; the texts a sender chose are shown escaped.
void printMessage(const VPageCacheStatsMessage& m)
{
    printf("Page Cache Message: {CounterType: %d, CounterValue: %lld, RuleName: %s, Key: %s, AppID: %d} "
           "RuleId: %lld, Server: %d, Time: %lld\n",
           m.counterType, (long long)m.counterValue, printableText(m.ruleName).constData(),
           printableText(m.key).constData(), m.appId, (long long)m.ruleId, m.serverNumber, (long long)m.timestamp);
    fflush(stdout);
}

// Reads one frame; false, said on standard error, for one that isn't a
// whole page cache message.
bool readMessage(const QByteArray& payload, VPageCacheStatsMessage& message)
{
    QDataStream stream(payload);
    stream.setVersion(VSocketBase::QDataStreamVersion);
    stream.setByteOrder(QDataStream::BigEndian);
    qint32 kind = 0;
    stream >> kind;
    if (kind != VPageCacheStatsMessage::Kind) {
        fprintf(stderr, "skipping a message of kind %d\n", kind);
        return false;
    }
    message.readFrom(stream);
    if (stream.status() != QDataStream::Ok) {
        fprintf(stderr, "skipping a truncated message\n");
        return false;
    }
    return true;
}

} // namespace

int main(int argc, char** argv)
{
    bool table = false;
    long exitAfter = -1;
    const char* group = nullptr;
    QString connection;
    for (int i = 1; i < argc; ++i) {
        if (strcmp(argv[i], "--table") == 0)
            table = true;
        else if (strcmp(argv[i], "--exit-after") == 0 && i + 1 < argc)
            exitAfter = strtol(argv[++i], nullptr, 10);
        else if (strcmp(argv[i], "--group") == 0 && i + 1 < argc)
            group = argv[++i];
        else if (argv[i][0] != '-' && connection.isEmpty())
            connection = QString::fromLocal8Bit(argv[i]);
        else
            return usage();
    }
    if (connection.isEmpty())
        connection = QStringLiteral("unix:/run/vesk/statsd.sock");

    signal(SIGINT, stop);
    signal(SIGTERM, stop);
    signal(SIGPIPE, SIG_IGN);
    try {
        VSocketServer server(connection, groupId(group));
        fprintf(stderr, "listening on %s\n", connection.toLocal8Bit().constData());
        StatsTable rules;
        long received = 0;
        while (!stopping && (exitAfter < 0 || received < exitAfter)) {
            for (const QByteArray& payload : server.poll(500)) {
                VPageCacheStatsMessage message;
                if (!readMessage(payload, message))
                    continue;
                ++received;
                if (table)
                    rules.add(message);
                else
                    printMessage(message);
            }
            if (table)
                printTable(rules);
        }
    } catch (const VException& e) {
        fprintf(stderr, "pagecache-statsd-listen: %s\n", e.what());
        return 1;
    }
    return 0;
}
