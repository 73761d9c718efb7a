#include "RulesFileValidator.h"

#include "PageCacheLogStream.h"
#include "ParserErrorHandler.h"

#include <QFile>
#include <QFileInfo>

#include <memory>
#include <xercesc/sax2/SAX2XMLReader.hpp>
#include <xercesc/sax2/XMLReaderFactory.hpp>
#include <xercesc/util/PlatformUtils.hpp>
#include <xercesc/util/XMLString.hpp>
#include <xercesc/util/XMLUni.hpp>

using namespace xercesc;

namespace {

QString fromXerces(const XMLCh* text)
{
    return text ? QString::fromUtf16(reinterpret_cast<const char16_t*>(text)) : QString();
}

} // namespace

bool validateRulesFileAgainstSchema(const char* rulesFile, QString& error, bool atStartup)
{
    try {
        XMLPlatformUtils::Initialize("en_US");
    } catch (const XMLException& e) {
        error = QStringLiteral("Error during xerces initialization: ") + fromXerces(e.getMessage());
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
        error = QStringLiteral("Dependencies file error: Unable to find the schema file at ") + schema;
        return false;
    }
    const std::u16string location = schema.toStdU16String();
    parser->setProperty(XMLUni::fgXercesSchemaExternalNoNameSpaceSchemaLocation,
                        const_cast<char16_t*>(location.c_str()));
    std::unique_ptr<ParserErrorHandler> handler(new ParserErrorHandler);
    parser->setErrorHandler(handler.get());
    DoctypeRefuser refuser;
    parser->setContentHandler(&refuser);
    parser->setLexicalHandler(&refuser);
    VLOG(PageCacheLogStream, 5) << "Validating dependencies file" << rulesFile << "with schema file at" << schema;
    try {
        parser->parse(rulesFile);
    } catch (const SAXParseException& e) {
        error = QStringLiteral("Dependencies file validation error on line ") + QString::number(e.getLineNumber())
                      + QStringLiteral(" column ") + QString::number(e.getColumnNumber())
                      + (atStartup ? QStringLiteral(" during Vesk Page Cache startup. ")
                                   : QStringLiteral(" during Vesk Page Cache reload. "))
                      + fromXerces(e.getMessage());
        return false;
    } catch (const XMLException& e) {
        error = QStringLiteral("Dependencies file error: ") + fromXerces(e.getMessage());
        return false;
    } catch (...) {
        error = QStringLiteral("Dependencies file unexpected exception");
        return false;
    }
    VLOG(PageCacheLogStream, 5) << "XML validation OK";
    return true;
}
