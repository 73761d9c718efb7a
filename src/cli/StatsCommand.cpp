// stats: listens where the workers send their statistics, as the daemon
// would, and shows the figures per rule; with --prometheus it also serves
// them over HTTP for a Prometheus server to scrape.

#include "CliContext.h"
#include "CommandLine.h"
#include "StatsTable.h"

#include "VSocket.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QElapsedTimer>
#include <QHostAddress>
#include <QTcpServer>
#include <QTcpSocket>

#include <csignal>
#include <cstdio>
#include <unistd.h>

namespace {

volatile sig_atomic_t stopping = 0;

void stop(int)
{
    stopping = 1;
}

// Answers every request on `server` with the table's current figures.
void serveMetrics(QTcpServer& server, const StatsTable& table)
{
    QObject::connect(&server, &QTcpServer::newConnection, [&server, &table]() {
        while (QTcpSocket* socket = server.nextPendingConnection()) {
            QObject::connect(socket, &QTcpSocket::disconnected, socket, &QObject::deleteLater);
            QObject::connect(socket, &QTcpSocket::readyRead, socket, [socket, &table]() {
                // Whatever is asked, once the request's head is in.
                if (!socket->peek(1 << 16).contains("\r\n\r\n"))
                    return;
                const QByteArray body = table.prometheus();
                socket->write("HTTP/1.0 200 OK\r\nContent-Type: text/plain; version=0.0.4\r\nContent-Length: " +
                              QByteArray::number(body.size()) + "\r\nConnection: close\r\n\r\n" + body);
                socket->disconnectFromHost();
            });
        }
    });
}

bool listenOn(QTcpServer& server, const QString& address)
{
    const int colon = address.lastIndexOf(QLatin1Char(':'));
    bool ok = false;
    const int port = address.mid(colon + 1).toInt(&ok);
    QString host = address.left(qMax(colon, 0));
    if (host.startsWith(QLatin1Char('[')))
        host = host.mid(1, host.size() - 2);
    const QHostAddress ip(host.isEmpty() ? QStringLiteral("127.0.0.1") : host);
    return colon >= 0 && ok && port > 0 && port < 65536 && !ip.isNull() && server.listen(ip, quint16(port));
}

void showTable(const StatsTable& table)
{
    // A terminal gets the table redrawn in place; a pipe gets it at the end.
    if (!isatty(STDOUT_FILENO))
        return;
    fputs("\033[H\033[2J", stdout);
    fputs(table.text().constData(), stdout);
    fflush(stdout);
}

} // namespace

int commandStats(CliContext& context, const QStringList& args)
{
    QCommandLineParser parser;
    const QCommandLineOption prometheus(QStringLiteral("prometheus"),
                                        QStringLiteral("Serve the figures as Prometheus metrics at ADDRESS (HOST:PORT)."),
                                        QStringLiteral("ADDRESS"));
    const QCommandLineOption listen(QStringLiteral("listen"),
                                    QStringLiteral("Listen at CONNECTION instead of vesk.statsd_connection_string."),
                                    QStringLiteral("CONNECTION"));
    const QCommandLineOption exitAfter(QStringLiteral("exit-after"),
                                       QStringLiteral("End after N messages (default: at SIGINT or SIGTERM)."),
                                       QStringLiteral("N"));
    parser.addOptions({prometheus, listen, exitAfter});
    int code = ExitOk;
    if (!parseCommand(parser, args, 0, 0, QStringLiteral("[--listen CONNECTION] [--prometheus ADDRESS] [--exit-after N]"),
                      &code))
        return code;
    bool counted = true;
    const long limit = parser.isSet(exitAfter) ? parser.value(exitAfter).toLong(&counted) : -1;
    if (!counted || (parser.isSet(exitAfter) && limit <= 0))
        return fail(ExitUsage, QStringLiteral("stats: --exit-after takes a positive number"));
    QString connection = parser.isSet(listen) ? parser.value(listen)
                                              : QString::fromLocal8Bit(context.directives.value("vesk.statsd_connection_string"));
    if (connection.isEmpty())
        return fail(ExitFailed, QStringLiteral("stats: vesk.statsd_connection_string is not set; give --listen"));
    // As the workers read the string.
    connection.replace(QLatin1String("VESK_PREFIX"), QString::fromLocal8Bit(context.directives.value("vesk.install_dir")));

    QTcpServer metrics;
    StatsTable table;
    if (parser.isSet(prometheus)) {
        if (!listenOn(metrics, parser.value(prometheus)))
            return fail(ExitUsage, QStringLiteral("stats: cannot serve metrics at %1").arg(parser.value(prometheus)));
        serveMetrics(metrics, table);
    }
    VSocketServer server(connection);
    fprintf(stderr, "listening on %s\n", connection.toLocal8Bit().constData());
    signal(SIGINT, stop);
    signal(SIGTERM, stop);
    signal(SIGPIPE, SIG_IGN);
    long received = 0;
    QElapsedTimer sinceDrawn;
    sinceDrawn.start();
    while (!stopping && (limit < 0 || received < limit)) {
        for (const QByteArray& payload : server.poll(100))
            received += table.addFrame(payload) ? 1 : 0;
        QCoreApplication::processEvents();
        if (sinceDrawn.elapsed() >= 1000) {
            showTable(table);
            sinceDrawn.restart();
        }
    }
    fputs(table.text().constData(), stdout);
    return ExitOk;
}
