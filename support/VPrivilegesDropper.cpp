#include "VPrivilegesDropper.h"

#include <grp.h>
#include <pwd.h>
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

namespace {

bool anyRootId()
{
    uid_t real, effective, saved;
    return getresuid(&real, &effective, &saved) != 0 || real == 0 || effective == 0 || saved == 0;
}

bool allIdsAre(uid_t uid, gid_t gid)
{
    uid_t ru, eu, su;
    gid_t rg, eg, sg;
    return getresuid(&ru, &eu, &su) == 0 && getresgid(&rg, &eg, &sg) == 0 && ru == uid && eu == uid && su == uid
           && rg == gid && eg == gid && sg == gid;
}

} // namespace

bool VPrivilegesDropper::dropForGood(long uid, long gid)
{
    if (!anyRootId())
        return true;
    if (uid < 0 || gid < 0)
        return false;
    // Only an effective root may change groups and the other ids.
    if (geteuid() != 0 && seteuid(0) != 0)
        return false;
    const gid_t group = gid_t(gid);
    // The user's supplementary groups, as a login would have them; none
    // of root's stay.
    const struct passwd* user = getpwuid(uid_t(uid));
    const int groups = user ? initgroups(user->pw_name, group) : setgroups(1, &group);
    if (groups != 0 || setresgid(group, group, group) != 0 || setresuid(uid_t(uid), uid_t(uid), uid_t(uid)) != 0)
        return false;
    return allIdsAre(uid_t(uid), group);
}
