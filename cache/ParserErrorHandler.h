#pragma once

#include <xercesc/sax/ErrorHandler.hpp>
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
