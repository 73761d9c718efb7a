#include "VPrivilegesDropper.h"

#include <unistd.h>

VPrivilegesDropper::VPrivilegesDropper(long uid, long gid)
    : m_savedUid(geteuid()), m_savedGid(getegid())
{
    if (m_savedUid != 0 || uid < 0 || gid < 0)
        return;
    // Group first: once the user is no longer root the group can't change.
    if (setegid(gid_t(gid)) != 0)
        return;
    if (seteuid(uid_t(uid)) != 0) {
        if (setegid(m_savedGid) != 0) {
            // still root, so this can't fail in practice
        }
        return;
    }
    m_dropped = true;
}

VPrivilegesDropper::~VPrivilegesDropper()
{
    if (!m_dropped)
        return;
    // Root again first, then the group: the order the kernel allows.
    if (seteuid(m_savedUid) != 0 || setegid(m_savedGid) != 0) {
        // a destructor has no one to tell
    }
}
