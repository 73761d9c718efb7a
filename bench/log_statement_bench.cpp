// Cost of a log statement that is off (the common case on a hit) and of one
// that writes, in nanoseconds per statement.
#include "VDebug.h"

#include <QString>
#include <chrono>
#include <cstdio>

namespace {

template <typename F>
double nanosecondsPer(int rounds, F statement)
{
    const auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < rounds; ++i)
        statement(i);
    const auto end = std::chrono::steady_clock::now();
    return std::chrono::duration<double, std::nano>(end - start).count() / rounds;
}

} // namespace

int main()
{
    const VDebug::StreamId stream = VDebug::registerStream("Page-Cache", "/dev/null");
    VDebug::setDebugLevel(stream, 2);
    const QByteArray url("http://example.com/shop/item?id=42");
    const QString rule = QStringLiteral("Shop pages");

    const int rounds = 2000000;
    const double off = nanosecondsPer(rounds, [&](int i) {
        VLOG(stream, 5) << "Split by key is" << url << rule << qint64(i);
    });
    const double on = nanosecondsPer(rounds / 10, [&](int i) {
        VLOG(stream, 1) << "Split by key is" << url << rule << qint64(i);
    });
    printf("log statement, level off: %8.1f ns\n", off);
    printf("log statement, written:   %8.1f ns\n", on);
    printf("target: a statement that is off stays under 20 ns: %s\n", off < 20 ? "met" : "MISSED");
    VDebug::unregisterStream(stream);
    return 0;
}
