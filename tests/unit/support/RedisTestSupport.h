#pragma once
// A redis-server of the test's own on 127.0.0.1, on a free port, keeping
// nothing on disk; stopped by its pid when the test ends.

#include "VRedisConnection.h"

#include <QByteArray>
#include <QElapsedTimer>
#include <QTemporaryDir>
#include <QThread>

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

// A port nothing listens on now: bound, read back, closed.
inline int freePort()
{
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address);
    socklen_t length = sizeof address;
    getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
    close(fd);
    return ntohs(address.sin_port);
}

class RedisServer
{
public:
    // Starts the server, on `onPort` when given, and waits, within five
    // seconds, until it answers.
    bool start(int onPort = 0)
    {
        port = onPort ? onPort : freePort();
        pid = fork();
        if (pid == 0) {
            const QByteArray portText = QByteArray::number(port);
            const QByteArray dirPath = QFile::encodeName(dir.path());
            execlp("redis-server", "redis-server", "--port", portText.constData(), "--bind", "127.0.0.1",
                   "--save", "", "--appendonly", "no", "--dir", dirPath.constData(), "--loglevel", "warning",
                   static_cast<char*>(nullptr));
            _exit(127);
        }
        QElapsedTimer clock;
        clock.start();
        while (clock.elapsed() < 5000) {
            try {
                VRedisConnection probe(address(), 100, 100);
                if (probe.command({"PING"}).text == "PONG")
                    return true;
            } catch (...) {
            }
            QThread::msleep(20);
        }
        return false;
    }

    void stop()
    {
        if (pid <= 0)
            return;
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
        pid = -1;
    }

    ~RedisServer() { stop(); }

    VRedisAddress address() const
    {
        VRedisAddress a;
        a.host = "127.0.0.1";
        a.port = port;
        return a;
    }
    QByteArray url() const { return "redis://127.0.0.1:" + QByteArray::number(port) + "/0"; }

    int port = 0;
    pid_t pid = -1;
    QTemporaryDir dir;
};
