// Exception classes for components to throw and print.
#include <ios>
#include <string>

#include "comException.h"
#include "baseInternal.h"

const char CVXException::s_rgModule[] = "";

CVXException::~CVXException() = default;

std::wostream& operator<<(std::wostream& out, const CVXException& e) {
    e.GenerateDetails(out);
    return out;
}

CVXSystemException::~CVXSystemException() = default;

void CVXSystemException::GenerateDetails(std::wostream& out) const {
    // The label and number go out first so that they stay in the stream even
    // if converting the system's text fails.
    out << L"System Exception" << m_nError << L": ";
    std::wstring text;
    AppendSystemErrorText(text, m_nError);
    out << text;
}

int CVXSystemException::SystemError() const { return m_nError; }

CVXMemoryException::~CVXMemoryException() = default;

void CVXMemoryException::GenerateDetails(std::wostream& out) const { out << L"Memory Exception"; }

CVXRangeException::~CVXRangeException() = default;

void CVXRangeException::GenerateDetails(std::wostream& out) const { out << L"Range Exception"; }

CVXComException::~CVXComException() = default;

void CVXComException::GenerateDetails(std::wostream& out) const {
    // The stream is left in hexadecimal on purpose; printers of these
    // exceptions depend on it.
    out << L"COM Exception" << std::hex << m_hr;
}
