// Exceptions for components to throw and print. Each kind writes a one-line
// description of itself, without a line end, to a wide stream.
#ifndef VELTCOM_COMEXCEPTION_H
#define VELTCOM_COMEXCEPTION_H

#include <ostream>

#include "comBase.h"

class VELTCOM_API CVXException {
public:
    virtual ~CVXException();
    virtual void GenerateDetails(std::wostream& out) const = 0;

    // The module that raised the exception; empty in the runtime.
    static const char s_rgModule[];
};

VELTCOM_API std::wostream& operator<<(std::wostream& out, const CVXException& e);

// An operating-system error number and the system's text for it.
class VELTCOM_API CVXSystemException : public CVXException {
public:
    explicit CVXSystemException(int error) : m_nError(error) {}
    ~CVXSystemException() override;
    void GenerateDetails(std::wostream& out) const override;
    virtual int SystemError() const;

private:
    int m_nError;
};

class VELTCOM_API CVXMemoryException : public CVXException {
public:
    ~CVXMemoryException() override;
    void GenerateDetails(std::wostream& out) const override;
};

class VELTCOM_API CVXRangeException : public CVXException {
public:
    ~CVXRangeException() override;
    void GenerateDetails(std::wostream& out) const override;
};

// A failing status code.
class VELTCOM_API CVXComException : public CVXException {
public:
    explicit CVXComException(int hr) : m_hr(hr) {}
    ~CVXComException() override;
    // Leaves the stream in hexadecimal mode.
    void GenerateDetails(std::wostream& out) const override;
    int Code() const { return m_hr; }

private:
    int m_hr;
};

#endif
