// Monikers and status decoders. A moniker display name is a prefix, a colon
// and the rest ("hresult:67"); COM_MkParseName finds the binder registered
// for the prefix under Moniker\<prefix>, and the binder's BindToObject turns
// the rest into an object.
//
// A status decoder for the codes of facility 0x67 implements
// COM_IDecodeHResult, and optionally COM_IMonikerData, and registers its
// class as the value "67" of Moniker\hresult (for example with
// UpdateRegistryClass(..., L"hresult", L"67")). COM_DecodeHRESULT then hands
// every code of that facility to it.
#ifndef VELTCOM_COMMONIKER_H
#define VELTCOM_COMMONIKER_H

#include "comUnknown.h"

class COM_IMoniker : public COM_IUnknown {
public:
    // `name` is what follows the prefix and its colon in the display name.
    virtual HRESULT BindToObject(wchar_t* name, const COM_GUID& iid, void** out) = 0;
};

// Optional on a bound object: receives the data of a display name, the text
// after the first "!" of "hresult:67!data".
class COM_IMonikerData : public COM_IUnknown {
public:
    virtual HRESULT SetData(wchar_t* data) = 0;
};

// Renders the codes of one facility as text. On success `*text` is a new
// system string the caller frees with COM_SysFreeString.
class COM_IDecodeHResult : public COM_IUnknown {
public:
    virtual HRESULT DecodeHResult(int hr, unsigned int flags, wchar_t** text) = 0;
};

#endif
