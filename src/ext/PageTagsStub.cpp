// Stands in for the page tags until they are merged.
#include "PageTags.h"
#include "ModuleState.h"
#include "VDebug.h"

void addPageTags(const QStringList& tags)
{
    VLOG(moduleState.logStream, 5) << "Page tags:" << tags.join(QLatin1Char(' '));
}

int removePagesByTags(const QStringList& tags, bool)
{
    VLOG(moduleState.logStream, 5) << "Remove by tags:" << tags.join(QLatin1Char(' '));
    return 0;
}
