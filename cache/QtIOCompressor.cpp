#include "QtIOCompressor.h"

#include "PageCacheLogStream.h"

#include <QBuffer>
#include <zlib.h>

class QtIOCompressorPrivate
{
public:
    enum State { ReadStart, InStream, StreamEnd, WriteStart, Written, Closed, Failed };

    QtIOCompressorPrivate(QtIOCompressor* owner, QIODevice* device, int level, int size)
        // One byte more than the zlib buffer: giving back unused input reads one past it.
        : owner(owner), device(device), compressionLevel(level), bufferSize(size), buffer(new char[size + 1]())
    {
        memset(&stream, 0, sizeof stream);
    }
    ~QtIOCompressorPrivate() { delete[] buffer; }

    bool writeBytes(const char* data, qint64 size);
    void finish(int flushMode);
    void setZlibError(const char* prefix, int code);

    QtIOCompressor* owner;
    QIODevice* device;
    bool manageDevice = false;
    z_stream stream;
    int compressionLevel;
    int bufferSize;
    char* buffer;
    State state = Closed;
    int streamFormat = QtIOCompressor::ZlibFormat;
};

void QtIOCompressorPrivate::setZlibError(const char* prefix, int code)
{
    const char* text = zError(code);
    owner->setErrorText(text ? QLatin1String(prefix) + QLatin1String(text)
                                 : QLatin1String(prefix) + QStringLiteral(" Unknown error, code ") + QString::number(code));
}

bool QtIOCompressorPrivate::writeBytes(const char* data, qint64 size)
{
    qint64 written = 0;
    while (written < size) {
        // The pointer isn't advanced: memory buffers take everything at once.
        const qint64 n = device->write(data, size);
        if (n == -1) {
            owner->setErrorText(QStringLiteral("Error writing to underlying device: ") + device->errorString());
            return false;
        }
        written += n;
    }
    state = Written;
    return true;
}

void QtIOCompressorPrivate::finish(int flushMode)
{
    stream.next_in = nullptr;
    stream.avail_in = 0;
    for (;;) {
        stream.next_out = reinterpret_cast<Bytef*>(buffer);
        stream.avail_out = uInt(bufferSize);
        const int status = deflate(&stream, flushMode);
        if (status != Z_OK && status != Z_STREAM_END) {
            state = Failed;
            setZlibError("Internal zlib error when compressing: ", status);
            return;
        }
        if (!writeBytes(buffer, bufferSize - stream.avail_out))
            return;
        if (flushMode == Z_FINISH ? status == Z_STREAM_END : stream.avail_out != 0)
            return;
    }
}

QtIOCompressor::QtIOCompressor(QIODevice* device, int compressionLevel, int bufferSize)
    : d(new QtIOCompressorPrivate(this, device, compressionLevel, bufferSize))
{
}

QtIOCompressor::~QtIOCompressor()
{
    close();
}

void QtIOCompressor::setStreamFormat(StreamFormat format)
{
    if (format == GzipFormat && !gzipSupported(ZLIB_VERSION))
        qWarning("QtIOCompressor::setStreamFormat: zlib 1.2.x or higher is "
                 "required to use the gzip format. Current version is: %s",
                 ZLIB_VERSION);
    d->streamFormat = format;
}

QtIOCompressor::StreamFormat QtIOCompressor::streamFormat() const
{
    return StreamFormat(d->streamFormat);
}

bool QtIOCompressor::gzipSupported(const char* version)
{
    if (!version || strlen(version) < 3 || version[0] == '0')
        return false;
    if (version[0] != '1')
        return true;
    return quint8(version[2]) - '0' >= 2;
}

bool QtIOCompressor::gzipAvailable()
{
    return gzipSupported(zlibVersion());
}

bool QtIOCompressor::isSequential() const
{
    return true;
}

bool QtIOCompressor::open(OpenMode mode)
{
    if (isOpen()) {
        qWarning("QtIOCompressor::open: device already open");
        return false;
    }
    const bool reading = mode & ReadOnly;
    const bool writing = mode & WriteOnly;
    if (reading == writing) {
        qWarning("QtIOCompressor::open: QtIOCompressor can only be opened in the ReadOnly or WriteOnly modes");
        return false;
    }
    if (d->device->isOpen()) {
        d->manageDevice = false;
        if ((reading && !(d->device->openMode() & ReadOnly)) || (writing && !(d->device->openMode() & WriteOnly))) {
            qWarning("QtIOCompressor::open: underlying device must be open in one of the ReadOnly or WriteOnly modes");
            return false;
        }
    } else {
        d->manageDevice = true;
        if (!d->device->open(mode)) {
            setErrorString(QStringLiteral("Error opening underlying device: ") + d->device->errorString());
            return false;
        }
    }
    int status;
    if (reading) {
        d->stream.next_in = nullptr;
        d->stream.avail_in = 0;
        d->state = QtIOCompressorPrivate::ReadStart;
        if (d->streamFormat == ZlibFormat) {
            status = inflateInit(&d->stream);
        } else {
            if (!gzipAvailable()) {
                setErrorString(QStringLiteral("The gzip format not supported in this version of zlib."));
                return false;
            }
            status = inflateInit2(&d->stream, 31);
        }
    } else {
        d->state = QtIOCompressorPrivate::WriteStart;
        if (d->streamFormat == ZlibFormat)
            status = deflateInit(&d->stream, d->compressionLevel);
        else
            status = deflateInit2(&d->stream, d->compressionLevel, Z_DEFLATED, 31, 8, Z_DEFAULT_STRATEGY);
    }
    if (status != Z_OK) {
        d->setZlibError("Internal zlib error: ", status);
        return false;
    }
    return QIODevice::open(mode);
}

void QtIOCompressor::close()
{
    if (!isOpen())
        return;
    if (openMode() & ReadOnly) {
        d->state = QtIOCompressorPrivate::ReadStart;
        inflateEnd(&d->stream);
    } else {
        if (d->state == QtIOCompressorPrivate::Written) {
            d->state = QtIOCompressorPrivate::WriteStart;
            d->finish(Z_FINISH);
        }
        deflateEnd(&d->stream);
    }
    if (d->manageDevice)
        d->device->close();
    QIODevice::close();
}

void QtIOCompressor::flush()
{
    if (!isOpen() || (openMode() & ReadOnly))
        return;
    d->finish(Z_SYNC_FLUSH);
}

qint64 QtIOCompressor::bytesAvailable() const
{
    if (!(openMode() & ReadOnly))
        return 0;
    qint64 available = 0;
    if (d->state == QtIOCompressorPrivate::ReadStart)
        available = d->device->bytesAvailable();
    else if (d->state == QtIOCompressorPrivate::InStream)
        available = 1;
    available += QIODevice::bytesAvailable();
    return qint32(available) > 0 ? 1 : 0;
}

qint64 QtIOCompressor::readData(char* data, qint64 maxSize)
{
    if (d->state == QtIOCompressorPrivate::StreamEnd)
        return 0;
    if (d->state == QtIOCompressorPrivate::Failed)
        return -1;
    d->stream.next_out = reinterpret_cast<Bytef*>(data);
    d->stream.avail_out = uInt(maxSize);
    for (;;) {
        if (d->stream.avail_in == 0) {
            const qint64 n = d->device->read(d->buffer, d->bufferSize);
            if (n == -1) {
                d->state = QtIOCompressorPrivate::Failed;
                setErrorString(QStringLiteral("Error reading data from underlying device: ") + d->device->errorString());
                return -1;
            }
            d->stream.next_in = reinterpret_cast<Bytef*>(d->buffer);
            d->stream.avail_in = uInt(n);
            if (d->state != QtIOCompressorPrivate::InStream) {
                if (n == 0)
                    return 0;
                d->state = QtIOCompressorPrivate::InStream;
            }
        }
        const int status = inflate(&d->stream, Z_SYNC_FLUSH);
        if (status == Z_NEED_DICT || status == Z_DATA_ERROR || status == Z_MEM_ERROR) {
            d->state = QtIOCompressorPrivate::Failed;
            d->setZlibError("Internal zlib error when decompressing: ", status);
            return -1;
        }
        if (status == Z_BUF_ERROR)
            return 0;
        if (status == Z_STREAM_END) {
            d->state = QtIOCompressorPrivate::StreamEnd;
            // What follows the stream goes back to the device. The walk starts
            // one position past the last unused byte, as it always has.
            for (int i = int(d->stream.avail_in); i >= 0; --i)
                d->device->ungetChar(reinterpret_cast<const char*>(d->stream.next_in)[i]);
            return maxSize - d->stream.avail_out;
        }
        if (d->stream.avail_out == 0)
            return maxSize;
    }
}

qint64 QtIOCompressor::writeData(const char* data, qint64 size)
{
    if (d->state == QtIOCompressorPrivate::Failed)
        return -1;
    d->stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(data));
    d->stream.avail_in = uInt(size);
    for (;;) {
        d->stream.next_out = reinterpret_cast<Bytef*>(d->buffer);
        d->stream.avail_out = uInt(d->bufferSize);
        const int status = deflate(&d->stream, Z_NO_FLUSH);
        if (status != Z_OK) {
            d->state = QtIOCompressorPrivate::Failed;
            d->setZlibError("Internal zlib error when compressing: ", status);
            return -1;
        }
        if (!d->writeBytes(d->buffer, d->bufferSize - d->stream.avail_out))
            return -1;
        if (d->stream.avail_out != 0)
            return size;
    }
}

QByteArray compress(const char* data, qint64 size)
{
    QBuffer buffer;
    QtIOCompressor compressor(&buffer, 6, 65500);
    compressor.setStreamFormat(QtIOCompressor::GzipFormat);
    compressor.open(QIODevice::WriteOnly);
    compressor.write(QByteArray::fromRawData(data, int(size)));
    compressor.flush();
    if (buffer.data().isEmpty())
        VLOG(PageCacheLogStream, 1) << "Unable to compress response." << compressor.errorString();
    compressor.close();
    return buffer.data();
}

QByteArray decompress(const char* data, qint64 size)
{
    const QByteArray input = QByteArray::fromRawData(data, int(size));
    QBuffer buffer;
    buffer.setData(input);
    QtIOCompressor compressor(&buffer, 6, 65500);
    compressor.setStreamFormat(QtIOCompressor::GzipFormat);
    compressor.open(QIODevice::ReadOnly);
    const QByteArray result = compressor.readAll();
    if (result.isEmpty())
        VLOG(PageCacheLogStream, 1) << "Unable to decompress response." << compressor.errorString();
    compressor.close();
    return result;
}
