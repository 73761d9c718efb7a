#pragma once

#include <QByteArray>
#include <QDateTime>
#include <QString>
#include <QVector>

#include <sys/types.h>

// One log statement. Every statement has the same shape:
//
//     VLOG(stream, level) << "text" << value;
//
// The level test stands at the call site: a statement whose level the sink
// does not reach costs that test alone, with not even its items evaluated,
// unless the sink keeps a circular buffer: then it gets a record that feeds
// the buffer, reads no clock and composes no header. The line is written
// whole when the record dies at the end of the statement.
#define VLOG(stream, lvl)                                                              \
    for (bool vlogOnce = VDebug::sinkLevel(stream) >= (lvl) || VDebug::keepsRecentText(stream); \
         vlogOnce; vlogOnce = false)                                                   \
        (VDebug::sinkLevel(stream) < (lvl) ? VDebug::cheap((stream), (lvl))           \
                                           : VDebug::full((stream), (lvl)))

// A 32-bit word shown as "0x" and its digits in base 16 (so -1 reads
// 0xffffffff), formatted only when the statement is on.
struct VHex
{
    quint32 value;
};

class VDebug
{
public:
    typedef int StreamId;
    static const StreamId DEVNULL = -1;
    static const StreamId STDOUT = 0;
    static const StreamId STDERR = 1;
    static const int MaxStreams = 16;

    struct Sink
    {
        int level = 2;
        QByteArray name;
        bool circularBuffer = false;
        bool writeSuppressed = false;
        int timedLevelSeconds = 0;
        int timedLevelRestore = 0;
        QDateTime timedLevelStart;
        bool timedLevelActive = false;

        int fd = -1;          // where whole lines go
        bool ownsFd = false;  // a file of ours, as opposed to stdout/stderr
        QByteArray path;      // empty for stdout/stderr
        qint64 rotationBytes = 0;
        uid_t owner = 0;      // the effective user that opened the file
        QByteArray ring;      // recent text, when circularBuffer is set

        void write(const QByteArray& text);
        void rotateIfDue(qint64 incoming);
        bool reopen();
        bool mayRotate() const;
    };

    // Opens `file` for appending under the stream `name`, never through a
    // symbolic link. Throws VException when there is no file or it can't be
    // opened. The caller keeps `file`.
    static StreamId registerStream(const QByteArray& name, const char* file);
    static void unregisterStream(StreamId id);
    // The descriptors of the files that streams write to: what a forked
    // helper process keeps of its parent's.
    static QVector<int> openFiles();
    static void setDebugLevel(StreamId id, int level);
    // Size in MiB at which the file is rotated; 0 or less never rotates.
    static void setRotationSize(StreamId id, int mebibytes);
    static const int RotatedFilesKept = 5;

    // Raises a stream's level for `seconds`; the first statement that takes
    // the full way after that puts the old level back. Needs the circular buffer.
    static void raiseLevelFor(StreamId id, int level, int seconds);
    static void setCircularBuffer(StreamId id, bool on);
    static QByteArray circularBufferContents(StreamId id);
    static const int CircularBufferBytes = 64 * 1024;

    static Sink* sinkOf(StreamId id)
    {
        if (id < 0 || id >= MaxStreams)
            return nullptr;
        return _sinkList[id] ? _sinkList[id] : _sinkList[STDERR];
    }
    static int sinkLevel(StreamId id)
    {
        const Sink* sink = sinkOf(id);
        return sink ? sink->level : -1000;
    }
    static bool keepsRecentText(StreamId id)
    {
        const Sink* sink = sinkOf(id);
        return sink && sink->circularBuffer && id != DEVNULL;
    }
    static VDebug cheap(StreamId id, int level);
    static VDebug full(StreamId id, int level);

    VDebug(const VDebug& other) = default;
    VDebug& operator=(const VDebug& other) = default;
    ~VDebug();

    VDebug& operator<<(const char* text);
    VDebug& operator<<(const QString& text);
    VDebug& operator<<(const QByteArray& bytes);
    VDebug& operator<<(int n) { return number(qint64(n)); }
    VDebug& operator<<(unsigned int n) { return unsignedNumber(n); }
    VDebug& operator<<(long n) { return number(n); }
    VDebug& operator<<(unsigned long n) { return unsignedNumber(n); }
    VDebug& operator<<(long long n) { return number(n); }
    VDebug& operator<<(unsigned long long n) { return unsignedNumber(n); }
    VDebug& operator<<(VHex n);

    void setHexNumbers(bool on) { hexNumbers = on; }
    void flush();

    // Settings of the facility, read by every statement.
    static const char* _timestampFormat;
    static bool _printProcessIdAndThreadId;
    static bool _disableStderrOut;
    static const char* const _debugLevelStrings[7];

private:
    VDebug(Sink* sink, int level, bool active);

    // An inactive record that feeds no circular buffer has nothing to do
    // with an item's text, so the item is not even formatted.
    bool wantsText() const { return active || (sink && sink->circularBuffer); }
    VDebug& number(qint64 n);
    VDebug& unsignedNumber(quint64 n);
    void item(const QByteArray& text, bool endsInLineFeed);
    void doHandleCircularBuffer(const QByteArray& text);
    void writeHeader();

    static Sink* _sinkList[MaxStreams];
    static const VDebug _inactive;

    Sink* sink;
    QByteArray circularText;
    int level;
    bool needHeader = true;
    bool autoSpace = true;
    QByteArray line;
    bool active;
    bool hexNumbers = false;
    int lineNumber = -1;
    bool needLineNumber = true;
};
