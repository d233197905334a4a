// The registry parser's error handler, and the assertion with which the
// registry's XML layer stops the process.
#ifndef VELTCOM_UNIX_REGERRORHANDLER_H
#define VELTCOM_UNIX_REGERRORHANDLER_H

#include <string>

#include <xercesc/sax/ErrorHandler.hpp>

// Prints "program: file:line: function: Assertion `expression' failed." as
// assert does, and aborts.
[[noreturn]] void RegAssertFail(const char* expression, const char* file, unsigned int line,
                                const char* function);

// Unlike assert, this one stays in every build type: a registry that cannot
// be read or written faithfully must not be worked on.
#define REG_ASSERT(expression)           \
    ((expression) ? static_cast<void>(0) \
                  : RegAssertFail(#expression, __FILE__, __LINE__, __PRETTY_FUNCTION__))

// Any report of the parser, a warning included, stops the process: the
// registry is only ever loaded as written.
class DOMErrorHandler : public xercesc::ErrorHandler {
public:
    // The file name only labels the parser's report on the way out.
    explicit DOMErrorHandler(const std::string& fileName = "Registry.XML")
        : m_strFileName(fileName) {}

    void warning(const xercesc::SAXParseException& exc) override;
    void error(const xercesc::SAXParseException& exc) override;
    void fatalError(const xercesc::SAXParseException& exc) override;
    void resetErrors() override;

private:
    void Report(const char* severity, const xercesc::SAXParseException& exc) const;

    std::string m_strFileName;
};

#endif
