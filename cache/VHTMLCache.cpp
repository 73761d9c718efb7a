#include "VHTMLCache.h"

#include "PageCacheLogStream.h"
#include "ParserErrorHandler.h"
#include "VException.h"
#include "VPHPGlobalsEvaluator.h"

#include <QFile>
#include <QFileInfo>

#include <memory>
#include <unistd.h>
#include <xercesc/sax2/SAX2XMLReader.hpp>
#include <xercesc/sax2/XMLReaderFactory.hpp>
#include <xercesc/util/PlatformUtils.hpp>
#include <xercesc/util/XMLString.hpp>
#include <xercesc/util/XMLUni.hpp>

using namespace xercesc;

namespace {

VHTMLCache* s_instance = nullptr;

QString fromXerces(const XMLCh* text)
{
    return text ? QString::fromUtf16(reinterpret_cast<const char16_t*>(text)) : QString();
}

} // namespace

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
    Q_UNUSED(savePath);
    Q_UNUSED(dirDepth);
    Q_UNUSED(cleanFrequency);
    Q_UNUSED(cleanerDisabled);
    Q_UNUSED(startCleaner);
    VPHPEvaluatorsManager::instance()->createEvaluators();
    clearRuleCache();

    // A generator replacing the file gets five seconds to put the new one in place.
    QFile file(QString::fromLocal8Bit(rulesFile));
    bool opened = false;
    for (int attempt = 0; attempt < 10 && !opened; ++attempt) {
        opened = file.open(QIODevice::ReadOnly | QIODevice::Text);
        if (!opened)
            usleep(500000);
    }
    if (!opened) {
        m_lastError = QStringLiteral("Can't open dependencies file %1 %2").arg(file.fileName(), file.errorString());
        return false;
    }
    try {
        if (!validateRulesFile(rulesFile))
            return false;
        setDevice(&file);
        parse();
        setDevice(nullptr);
        takeOverTables();
    } catch (const VException& e) {
        setDevice(nullptr);
        m_lastError = QString::fromLatin1(e.what());
        return false;
    }
    setMaxCachedRules(int(qBound<qint64>(0, maxCachedRules, INT_MAX)));
    return true;
}

bool VHTMLCache::validateRulesFile(const char* rulesFile)
{
    try {
        XMLPlatformUtils::Initialize("en_US");
    } catch (const XMLException& e) {
        m_lastError = QStringLiteral("Error during xerces initialization: ") + fromXerces(e.getMessage());
        return false;
    }
    std::unique_ptr<SAX2XMLReader> parser(XMLReaderFactory::createXMLReader());
    parser->setFeature(XMLUni::fgXercesSchema, true);
    parser->setFeature(XMLUni::fgSAX2CoreNameSpaces, true);
    parser->setFeature(XMLUni::fgXercesLoadExternalDTD, true);
    parser->setFeature(XMLUni::fgSAX2CoreValidation, true);
    parser->setFeature(XMLUni::fgXercesSchemaFullChecking, true);
    parser->setFeature(XMLUni::fgXercesValidateAnnotations, true);

    const QString schema = QFileInfo(QFileInfo(QString::fromLocal8Bit(rulesFile)).absoluteFilePath()).absolutePath()
                           + QStringLiteral("/pagecache_rules_schema.xsd");
    if (!QFile::exists(schema)) {
        m_lastError = QStringLiteral("Dependencies file error: Unable to find the schema file at ") + schema;
        return false;
    }
    const std::u16string location = schema.toStdU16String();
    parser->setProperty(XMLUni::fgXercesSchemaExternalNoNameSpaceSchemaLocation,
                        const_cast<char16_t*>(location.c_str()));
    std::unique_ptr<ParserErrorHandler> handler(new ParserErrorHandler);
    parser->setErrorHandler(handler.get());
    VLOG(PageCacheLogStream, 5) << "Validating dependencies file" << rulesFile << "with schema file at" << schema;
    try {
        parser->parse(rulesFile);
    } catch (const SAXParseException& e) {
        m_lastError = QStringLiteral("Dependencies file validation error on line ") + QString::number(e.getLineNumber())
                      + QStringLiteral(" column ") + QString::number(e.getColumnNumber())
                      + QStringLiteral(" during Vesk Page Cache startup. ") + fromXerces(e.getMessage());
        return false;
    } catch (const XMLException& e) {
        m_lastError = QStringLiteral("Dependencies file error: ") + fromXerces(e.getMessage());
        return false;
    } catch (...) {
        m_lastError = QStringLiteral("Dependencies file unexpected exception");
        return false;
    }
    VLOG(PageCacheLogStream, 5) << "XML validation OK";
    return true;
}

int VHTMLCache::shutdown()
{
    VPHPEvaluatorsManager::destroyInstance();
    return 1;
}
