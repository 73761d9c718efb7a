// The rules file as a worker meets it: schema validation by Xerces, then
// the reader, on whatever bytes the file holds.

#include "PageCacheLogStream.h"
#include "VException.h"
#include "VHTMLCache.h"
#include "VPHPGlobalsEvaluator.h"
#include "VRuleMatcher.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>

#include <cstdint>

namespace {

class Reader : public VRuleMatcher
{
public:
    explicit Reader(const QByteArray& xml)
    {
        addData(xml);
        parse();
        takeOverTables();
    }
};

// No superglobals outside PHP: every value is absent.
class NoValues : public VPHPValueSource
{
public:
    QByteArray elementValue(const QByteArray&, const QList<QByteArray>&) override { return QByteArray(); }
    QByteArray wholeValue(const QByteArray&) override { return QByteArray(); }
    bool globalExists(const QByteArray&) override { return false; }
    bool elementExists(const QByteArray&, const QList<QByteArray>&) override { return false; }
};

QString rulesPath()
{
    static QTemporaryDir dir;
    static bool ready = false;
    if (!ready) {
        // The reader's messages would only slow the search down.
        PageCacheLogStream = VDebug::DEVNULL;
        QFile::copy(QStringLiteral(VESK_SOURCE_DIR "/conf/pagecache_rules_schema.xsd"),
                    dir.filePath(QStringLiteral("pagecache_rules_schema.xsd")));
        static NoValues values;
        VPHPEvaluatorsManager::setValueSource(&values);
        VPHPEvaluatorsManager::instance()->createEvaluators();
        ready = true;
    }
    return dir.filePath(QStringLiteral("pagecache_rules.xml"));
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const QString path = rulesPath();
    const QByteArray bytes(reinterpret_cast<const char*>(data), int(size));
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate))
        return 0;
    file.write(bytes);
    file.close();
    if (!VHTMLCache::instance()->validateRulesFile(QFile::encodeName(path).constData()))
        return 0;
    try {
        Reader reader(bytes);
        reader.getOrderedMatchingRuleForUrl("http://fuzz.example/a/b?c=d");
    } catch (const VException&) {
    }
    return 0;
}
