#pragma once

#include <QString>
#include <QtGlobal>

// The one cache object of a worker process. A reload of the rules file
// destroys it and makes a new one, so nothing outlives the rules it was
// built from.
class VHTMLCache
{
public:
    static VHTMLCache* instance();
    static void destroyInstance();

    // Reads the rules file and opens the store under `savePath`. Answers
    // false with the reason in lastError().
    bool load(const char* savePath, qint64 dirDepth, const char* rulesFile,
              qint64 cleanFrequency, bool cleanerDisabled, qint64 maxCachedRules,
              bool startCleaner);
    // Stops the cleaner and lets go of the store. Always 1.
    int shutdown();

    QString lastError() const { return m_lastError; }

private:
    VHTMLCache() = default;

    QString m_lastError;
};
