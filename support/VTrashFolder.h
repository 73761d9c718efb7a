#pragma once

#include <QByteArray>

// A folder that files leave a tree by, one rename each, their deletion left
// to whoever cleans the tree (the store's cleaning, the published files'
// sweep). Freeing a file's blocks is what makes an unlink slow (on a disk
// mounted with discard, a hundred times a rename), so a removal of many
// files at once takes them out of every reader's sight at a rename's cost.
class VTrashFolder
{
public:
    // From now on take() moves files into `path`, made at the first file.
    void open(const QByteArray& path);
    bool isOpen() const { return !m_path.isEmpty(); }
    // Renames `file` into the folder; false (not open, no such file, the
    // folder deleted meanwhile) leaves the file to the caller's unlink().
    bool take(const QByteArray& file);
    // Removes the folder if nothing went into it, and takes no more files.
    void close();

private:
    QByteArray m_path;
    bool m_made = false;
    int m_taken = 0;
};
