// The base interface and the interfaces every module meets: class factories
// and error information. Slot orders are binary contracts between libraries
// built separately: never reorder, only append in new interfaces.
#ifndef VELTCOM_COMUNKNOWN_H
#define VELTCOM_COMUNKNOWN_H

#include "comBase.h"

// Base of every interface. The virtual destructor takes the first two entries
// of the operation table, so QueryInterface is the third.
class COM_IUnknown {
public:
    virtual ~COM_IUnknown() {}
    // On success stores an interface pointer with one added reference; on
    // failure stores null and returns E_NOINTERFACE.
    virtual HRESULT QueryInterface(const COM_GUID& iid, void** out) = 0;
    virtual unsigned long AddRef() = 0;
    // Deletes the object when the count reaches 0.
    virtual unsigned long Release() = 0;
};

class COM_IClassFactory : public COM_IUnknown {
public:
    // There is no outer-object argument: aggregation is not supported.
    virtual HRESULT CreateInstance(const COM_GUID& iid, void** out) = 0;
};

// A richer account of a failure than its status code. Strings handed out are
// system strings the caller frees with COM_SysFreeString.
class COM_IErrorInfo : public COM_IUnknown {
public:
    virtual HRESULT SetDescription(wchar_t* text) = 0;
    virtual HRESULT SetLocation(wchar_t* text) = 0;
    virtual HRESULT SetLineInfo(long line, long column) = 0;
    virtual HRESULT SetHRESULT(int code) = 0;
    virtual HRESULT GetDescription(wchar_t** out) = 0;
    virtual HRESULT GetLocation(wchar_t** out) = 0;
    virtual HRESULT GetLineInfo(long* line, long* column) = 0;
    virtual HRESULT GetHRESULT(int* out) = 0;
};

#endif
