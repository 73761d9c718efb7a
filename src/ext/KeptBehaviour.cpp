#include "KeptBehaviour.h"

#include "GlobalDirectives.h"
#include "host/vesk_host.h"

#include "VDevBar.h"

#include <cstdlib>

namespace kept {

bool toolbarCollecting()
{
    return !VDevBar::instance()->collectionStarted().isNull();
}

bool debuggerSessionRunning()
{
    const int slot = vesk_extension_resource_number("Vesk Debugger", "Vesk Technologies");
    return slot != -1 && vesk_reserved_word_set(slot);
}

bool pageCacheStatisticsEnabled()
{
    static const char name[] = "vesk_statistics.pagecache.enable";
    static ResolvedDirective memo;
    const char* value = nullptr;
    if (findDirectiveOnce(name, sizeof name, memo, &value) != 0 || !value)
        return false;
    return strtol(value, nullptr, 10) != 0;
}

} // namespace kept
