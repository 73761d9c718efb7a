// Listens where the page cache's workers send their statistics and shows
// what arrives: each message as a line, or a live table per rule.
//
//   pagecache-statsd-listen [--table] [--exit-after N] CONNECTION
//
// CONNECTION is "tcp://HOST:PORT" or "unix:PATH", as in
// vesk.statsd_connection_string. With --exit-after the tool ends after N
// messages; SIGINT or SIGTERM end it at any time.

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
    fprintf(stderr, "usage: pagecache-statsd-listen [--table] [--exit-after N] CONNECTION\n");
    return 2;
}

} // namespace

int main(int argc, char** argv)
{
    bool table = false;
    long exitAfter = -1;
    QString connection;
    for (int i = 1; i < argc; ++i) {
        if (strcmp(argv[i], "--table") == 0)
            table = true;
        else if (strcmp(argv[i], "--exit-after") == 0 && i + 1 < argc)
            exitAfter = strtol(argv[++i], nullptr, 10);
        else if (argv[i][0] != '-' && connection.isEmpty())
            connection = QString::fromLocal8Bit(argv[i]);
        else
            return usage();
    }
    if (connection.isEmpty())
        return usage();

    signal(SIGINT, stop);
    signal(SIGTERM, stop);
    signal(SIGPIPE, SIG_IGN);
    try {
        VSocketServer server(connection);
        fprintf(stderr, "listening on %s\n", connection.toLocal8Bit().constData());
        StatsTable rules;
        long received = 0;
        while (!stopping && (exitAfter < 0 || received < exitAfter)) {
            for (const QByteArray& payload : server.poll(500)) {
                QDataStream stream(payload);
                stream.setVersion(VSocketBase::QDataStreamVersion);
                stream.setByteOrder(QDataStream::BigEndian);
                qint32 kind = 0;
                stream >> kind;
                if (kind != VPageCacheStatsMessage::Kind) {
                    fprintf(stderr, "skipping a message of kind %d\n", kind);
                    continue;
                }
                VPageCacheStatsMessage message;
                message.readFrom(stream);
                if (stream.status() != QDataStream::Ok) {
                    fprintf(stderr, "skipping a truncated message\n");
                    continue;
                }
                ++received;
                if (!table) {
                    printf("%s RuleId: %lld, Server: %d, Time: %lld\n", message.toString().toLocal8Bit().constData(),
                           (long long)message.ruleId, message.serverNumber, (long long)message.timestamp);
                    fflush(stdout);
                    continue;
                }
                rules.add(message);
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
