#pragma once

#include "VDebug.h"
#include "VeskServerInfo.h"

#include <QByteArray>
#include <QSharedPointer>

// A pid file that lives as long as its last handle: the file is removed
// when the last reference goes, unless another process has written its own
// pid there meanwhile.
class PidFileData
{
public:
    explicit PidFileData(const QByteArray& path);
    ~PidFileData() { remove(); }
    PidFileData(const PidFileData&) = delete;
    PidFileData& operator=(const PidFileData&) = delete;

    QByteArray path() const { return m_path; }
    void remove();

private:
    QByteArray m_path;
    QByteArray m_content;
};

class VGlobals
{
public:
    static const char* const PID_PAGECACHE_CLEANER;

    // The directory of pid files, taken from the host's configuration at start-up.
    static void setPidDirectory(const QByteArray& dir);
    static QByteArray pidDirectory();

    // Writes "<pid dir>/<name>.pid" holding this process's id. Throws
    // VException when no directory is known or the file can't be written.
    static QSharedPointer<PidFileData> createPidFile(VDebug::StreamId logStream,
                                                     const VeskServerInfo& serverInfo,
                                                     const char* name);
};
