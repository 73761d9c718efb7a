// Listens where the page cache's workers send their statistics and shows
// what arrives: each message as a line, or a live table per rule.
//
//   pagecache-statsd-listen [--table] [--exit-after N] CONNECTION
//
// CONNECTION is "tcp://HOST:PORT" or "unix:PATH", as in
// vesk.statsd_connection_string. With --exit-after the tool ends after N
// messages; SIGINT or SIGTERM end it at any time.

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

struct RuleFigures
{
    QByteArray name;
    qint64 possible = 0;
    qint64 hits = 0;
    qint64 misses = 0;
    qint64 timeSavedMs = 0;
};

void printTable(const QMap<QPair<qint64, qint32>, RuleFigures>& rules)
{
    // Clears the terminal and redraws from the top.
    printf("\033[H\033[2J%-8s %-6s %-30s %10s %10s %10s %8s %14s\n", "rule", "app", "name", "possible", "hits",
           "misses", "ratio", "saved (ms)");
    for (auto it = rules.cbegin(); it != rules.cend(); ++it) {
        const RuleFigures& r = it.value();
        const qint64 answered = r.hits + r.misses;
        printf("%-8lld %-6d %-30.30s %10lld %10lld %10lld %7.1f%% %14lld\n", (long long)it.key().first,
               it.key().second, r.name.constData(), (long long)r.possible, (long long)r.hits,
               (long long)r.misses, answered ? 100.0 * double(r.hits) / double(answered) : 0.0,
               (long long)r.timeSavedMs);
    }
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
        QMap<QPair<qint64, qint32>, RuleFigures> rules;
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
                RuleFigures& figures = rules[qMakePair(message.ruleId, message.appId)];
                figures.name = message.ruleName;
                switch (message.counterType) {
                case VPageCacheStatsMessage::Possible:
                    figures.possible += message.counterValue;
                    break;
                case VPageCacheStatsMessage::Hit:
                    figures.hits += message.counterValue;
                    break;
                case VPageCacheStatsMessage::Miss:
                    figures.misses += message.counterValue;
                    break;
                case VPageCacheStatsMessage::TimeSaved:
                    figures.timeSavedMs += message.counterValue;
                    break;
                }
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
