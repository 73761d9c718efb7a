#pragma once

#include <QByteArray>
#include <QDateTime>

// Remembers the dates of the files a worker looks at on every request (the
// rules file, the purge rules' database, the deployment marker) while the
// kernel reports no change in their directories, so that a request asks
// the kernel one question (a read of an inotify descriptor) instead of one
// stat() per file. A change to any of them, made by whichever process or
// editor, is reported before the writer's call returns, so the next request
// sees it. What inotify can't report (another machine writing to a network
// file system, a write through a hard link in another directory) is seen
// within a second: every date is asked again at least that often.
//
// Only a process that calls settle() (the extension, once per request)
// remembers anything; everywhere else fileModified() asks stat() each time.
namespace VFileWatch {

// Takes in what the kernel reported since the last call; forgets every date
// when anything changed, or when the last full look is a second old. Sets
// the watch up at its first call in a process.
void settle();
// The remembered date of `path`; false when it must be asked of stat().
bool known(const char* path, QDateTime* date);
// Keeps `date`, just read by stat(), when the directory of `path` is
// watched and `path` is no symbolic link (whose target may lie elsewhere).
void remember(const char* path, const QDateTime& date);
// Back to nothing remembered and no watch, as in a new process.
void reset();

} // namespace VFileWatch
