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

// For copies of files a process keeps in memory (the page store's records):
// the folder of such a file and every folder above it up to the store are
// watched, and the copy is trusted without a stat() while both epochs are
// those it was checked under. The file epoch moves at any change of a file
// in a folder of kept files, and at the full look each second (what inotify
// can't report is seen within that second); the folder epoch moves when a
// watched folder is removed, moved or its watch lost, and when the reports
// overflowed: the copies' watches must then be made again.
quint64 fileEpoch();
quint64 folderEpoch();
// Watches `dir`, which holds kept files (`files`) or lies above a folder that
// does; the watch, or -1 where it can't be had: no settle() in this process,
// no such folder, or the process holds as many watches as it may.
int watchFolder(const char* dir, bool files);
// Gives back a watch of watchFolder(); the last one given back is removed.
void unwatchFolder(int watch, bool files);
// The watches this process holds, for the tests.
int watchCount();

} // namespace VFileWatch
