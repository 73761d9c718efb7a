#pragma once

#include "VRuleMatcher.h"

#include <QString>
#include <QtGlobal>

// The one cache object of a worker process: the rules in force and the
// store of pages. A reload of the rules file destroys it and makes a new
// one, so no rule outlives the file it came from.
class VHTMLCache : public VRuleMatcher
{
public:
    static VHTMLCache* instance();
    static void destroyInstance();

    // Reads the rules file and opens the store under `savePath`. Answers
    // false with the reason in lastError(); no rule is in force then.
    bool load(const char* savePath, qint64 dirDepth, const char* rulesFile,
              qint64 cleanFrequency, bool cleanerDisabled, qint64 maxCachedRules,
              bool startCleaner);
    // Validates the rules file against pagecache_rules_schema.xsd beside it.
    bool validateRulesFile(const char* rulesFile);
    // Stops the cleaner and lets go of the store. Always 1.
    int shutdown();

    QString lastError() const { return m_lastError; }

private:
    VHTMLCache() = default;

    QString m_lastError;
};
