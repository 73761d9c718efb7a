#include "VHTMLCache.h"

namespace {
VHTMLCache* s_instance = nullptr;
}

VHTMLCache* VHTMLCache::instance()
{
    if (!s_instance)
        s_instance = new VHTMLCache;
    return s_instance;
}

void VHTMLCache::destroyInstance()
{
    delete s_instance;
    s_instance = nullptr;
}

bool VHTMLCache::load(const char* savePath, qint64 dirDepth, const char* rulesFile,
                      qint64 cleanFrequency, bool cleanerDisabled, qint64 maxCachedRules,
                      bool startCleaner)
{
    // No rules are read yet: every URL stays uncached.
    Q_UNUSED(savePath);
    Q_UNUSED(dirDepth);
    Q_UNUSED(rulesFile);
    Q_UNUSED(cleanFrequency);
    Q_UNUSED(cleanerDisabled);
    Q_UNUSED(maxCachedRules);
    Q_UNUSED(startCleaner);
    m_lastError.clear();
    return true;
}

int VHTMLCache::shutdown()
{
    return 1;
}
