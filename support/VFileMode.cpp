#include "VFileMode.h"

#include <sys/stat.h>

namespace {

mode_t s_mode = VFileMode::Default;

} // namespace

mode_t VFileMode::files()
{
    return s_mode;
}

void VFileMode::set(const QByteArray& octal)
{
    bool ok = false;
    const uint mode = octal.trimmed().toUInt(&ok, 8);
    // Permission bits only: no set-id bit on a file a worker wrote.
    s_mode = ok && mode <= 0777 ? mode_t(mode) : Default;
}

void VFileMode::apply(int fd)
{
    if (fd >= 0)
        fchmod(fd, s_mode);
}
