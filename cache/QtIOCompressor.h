#pragma once

#include <QIODevice>
#include <QScopedPointer>

class QtIOCompressorPrivate;

// A device over another device that compresses what is written to it and
// decompresses what is read from it, in zlib or gzip format.
class QtIOCompressor : public QIODevice
{
    Q_OBJECT
public:
    enum StreamFormat { ZlibFormat = 0, GzipFormat = 1 };

    QtIOCompressor(QIODevice* device, int compressionLevel = 6, int bufferSize = 65500);
    ~QtIOCompressor() override;

    void setStreamFormat(StreamFormat format);
    StreamFormat streamFormat() const;
    // Whether a zlib of this version can read and write gzip: 1.2 and later.
    static bool gzipSupported(const char* version);
    static bool gzipAvailable();

    bool isSequential() const override;
    bool open(OpenMode mode) override;
    void close() override;
    // Sends out what zlib holds, so the device has every byte written so far.
    void flush();
    // 1 while data may still come, else 0.
    qint64 bytesAvailable() const override;

protected:
    qint64 readData(char* data, qint64 maxSize) override;
    qint64 writeData(const char* data, qint64 size) override;

private:
    friend class QtIOCompressorPrivate;
    // The device's error text is protected in QIODevice; the private half sets it here.
    void setErrorText(const QString& text) { setErrorString(text); }

    QScopedPointer<QtIOCompressorPrivate> d;
};

// A gzip copy of the bytes, level 6; empty (and logged) if zlib fails.
QByteArray compress(const char* data, qint64 size);
// The clear bytes of a gzip stream; empty (and logged) when nothing inflates.
QByteArray decompress(const char* data, qint64 size);
