#pragma once

#include <xercesc/sax/ErrorHandler.hpp>
#include <xercesc/sax/Locator.hpp>
#include <xercesc/sax2/DefaultHandler.hpp>
#include <xercesc/sax/SAXParseException.hpp>

// Turns every complaint of the validating parser, a warning included, into
// a failed validation.
class ParserErrorHandler : public xercesc::ErrorHandler
{
public:
    void warning(const xercesc::SAXParseException& e) override { fatalError(e); }
    void error(const xercesc::SAXParseException& e) override { fatalError(e); }
    void fatalError(const xercesc::SAXParseException& e) override { throw xercesc::SAXParseException(e); }
    void resetErrors() override {}
};

// Refuses a document type declaration the moment it begins, before any of
// its entities is declared or its external subset fetched: a rules file
// never needs one, and expanding entities could read other files or eat the
// worker's memory.
class DoctypeRefuser : public xercesc::DefaultHandler
{
public:
    void setDocumentLocator(const xercesc::Locator* const locator) override { m_locator = locator; }
    void startDTD(const XMLCh* const name, const XMLCh* const publicId, const XMLCh* const systemId) override
    {
        (void)name;
        (void)publicId;
        (void)systemId;
        static const XMLCh message[] = u"A DOCTYPE declaration is not allowed in a rules file";
        if (m_locator)
            throw xercesc::SAXParseException(message, *m_locator);
        throw xercesc::SAXParseException(message, u"", u"", 0, 0);
    }

private:
    const xercesc::Locator* m_locator = nullptr;
};
