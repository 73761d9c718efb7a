#include "VTrashFolder.h"

#include <cstdio>
#include <sys/stat.h>
#include <unistd.h>

void VTrashFolder::open(const QByteArray& path)
{
    m_path = path;
    m_made = false;
    m_taken = 0;
}

bool VTrashFolder::take(const QByteArray& file)
{
    if (!isOpen())
        return false;
    if (!m_made && mkdir(m_path.constData(), 0700) != 0)
        return false;
    m_made = true;
    return rename(file.constData(), (m_path + '/' + QByteArray::number(++m_taken)).constData()) == 0;
}

void VTrashFolder::close()
{
    // rmdir refuses a folder anything went into: that one is the cleaner's.
    if (m_made)
        rmdir(m_path.constData());
    m_path.clear();
    m_made = false;
}
