#pragma once

#include <sys/types.h>

// Takes the given effective user and group for the life of the object and
// gives the previous ones back on destruction. Only a process whose effective
// user is root can change identity; any other keeps its own, which is what a
// server started by an unprivileged user wants.
class VPrivilegesDropper
{
public:
    VPrivilegesDropper(long uid, long gid);
    ~VPrivilegesDropper();
    VPrivilegesDropper(const VPrivilegesDropper&) = delete;
    VPrivilegesDropper& operator=(const VPrivilegesDropper&) = delete;

    bool dropped() const { return m_dropped; }

    // Becomes the given user and group for the rest of the process's life:
    // its groups, then real, effective and saved group and user ids, which
    // leaves no permitted capability. A process that runs under no root id
    // keeps what it has. False when root's ids could not all be given up;
    // the caller must not go on as root then.
    static bool dropForGood(long uid, long gid);

private:
    uid_t m_savedUid;
    gid_t m_savedGid;
    bool m_dropped = false;
};
