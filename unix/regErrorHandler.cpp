// The registry parser's error handler.
#include "regErrorHandler.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include <xercesc/sax/SAXParseException.hpp>
#include <xercesc/util/XMLString.hpp>

void RegAssertFail(const char* expression, const char* file, unsigned int line,
                   const char* function) {
    std::fprintf(stderr, "%s: %s:%u: %s: Assertion `%s' failed.\n", program_invocation_short_name,
                 file, line, function, expression);
    std::fflush(stderr);
    std::abort();
}

// The parser's own account goes first, so that whoever reads the assertion
// also learns where the file went wrong.
void DOMErrorHandler::Report(const char* severity, const xercesc::SAXParseException& exc) const {
    char* message = xercesc::XMLString::transcode(exc.getMessage());
    std::fprintf(stderr, "%s:%llu:%llu: %s: %s\n", m_strFileName.c_str(),
                 static_cast<unsigned long long>(exc.getLineNumber()),
                 static_cast<unsigned long long>(exc.getColumnNumber()), severity,
                 message ? message : "");
    xercesc::XMLString::release(&message);
}

void DOMErrorHandler::warning(const xercesc::SAXParseException& exc) {
    Report("warning", exc);
    const bool parsedWithoutWarning = false;
    REG_ASSERT(parsedWithoutWarning);
}

void DOMErrorHandler::error(const xercesc::SAXParseException& exc) {
    Report("error", exc);
    const bool parsedWithoutError = false;
    REG_ASSERT(parsedWithoutError);
}

void DOMErrorHandler::fatalError(const xercesc::SAXParseException& exc) {
    Report("fatal error", exc);
    const bool parsedWithoutFatalError = false;
    REG_ASSERT(parsedWithoutFatalError);
}

void DOMErrorHandler::resetErrors() {
    const bool errorsNeverReset = false;
    REG_ASSERT(errorsNeverReset);
}
