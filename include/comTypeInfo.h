// Type information: what an interface declares, read at run time. A
// component built from a definition compiles in the tables veltcom-idl
// generates and exports them through one more entry point,
//
//     extern "C" HRESULT GetTypeLibrary(const COM_TYPELIBRARY** out);
//
// which COM_DEFINE_TYPELIBRARY writes. Registering the component records each
// interface of its tables under Interface\<IID text> of the classes root,
// with its name and its library; COM_GetTypeInfo finds the library there.
// The categories of the tables are registered with their descriptions.
#ifndef VELTCOM_COMTYPEINFO_H
#define VELTCOM_COMTYPEINFO_H

#include "comUnknown.h"

// A parameter's direction, as flags.
#define COM_PARAM_IN 1u
#define COM_PARAM_OUT 2u
#define COM_PARAM_RETVAL 4u

// The tables are plain data: names and types are ASCII, types as the
// definition writes them ("int32", "BSTR*", "ICalc**").
struct COM_TYPEPARAM {
    const char* name;
    const char* type;
    unsigned int flags;
};

struct COM_TYPEMETHOD {
    const char* name;
    const COM_TYPEPARAM* params;
    unsigned int paramCount;
};

struct COM_TYPEINTERFACE {
    const COM_GUID* iid;
    const char* name;
    const COM_GUID* baseIid;
    const char* baseName;
    const COM_TYPEMETHOD* methods;  // this interface's own, in slot order
    unsigned int methodCount;
};

// The layout of these tables; a library with another is not read.
#define COM_TYPELIBRARY_VERSION 1u

// A category the definition declares. Registration adds its description;
// unregistration removes the category once no class is left in it.
struct COM_TYPECATEGORY {
    const COM_GUID* catid;
    const wchar_t* description;
};

struct COM_TYPELIBRARY {
    unsigned int version;
    const COM_TYPEINTERFACE* interfaces;
    unsigned int interfaceCount;
    const COM_TYPECATEGORY* categories;
    unsigned int categoryCount;
};

#define COM_DEFINE_TYPELIBRARY(library)                                        \
    extern "C" VELTCOM_API HRESULT GetTypeLibrary(const COM_TYPELIBRARY** out) {\
        if (!out) return E_POINTER;                                            \
        *out = &(library);                                                     \
        return S_OK;                                                           \
    }

// {5E0A6C1D-7B3F-4C28-9D41-2F6E8A0B7C35}
inline constexpr COM_GUID COM_IID_ITypeInfo = {
    0x5E0A6C1D, 0x7B3F, 0x4C28, {0x9D, 0x41, 0x2F, 0x6E, 0x8A, 0x0B, 0x7C, 0x35}};

// One interface's description. Text comes out as system strings the caller
// frees; indexes past the end give E_INVALIDARG.
class COM_ITypeInfo : public COM_IUnknown {
public:
    virtual HRESULT GetName(wchar_t** name) = 0;
    // COM_IUnknown for an interface derived from the root.
    virtual HRESULT GetBase(COM_GUID* iid, wchar_t** name) = 0;
    virtual HRESULT GetMethodCount(unsigned int* count) = 0;
    virtual HRESULT GetMethod(unsigned int method, wchar_t** name, unsigned int* paramCount) = 0;
    // `flags` takes COM_PARAM_IN, COM_PARAM_OUT and COM_PARAM_RETVAL.
    virtual HRESULT GetParam(unsigned int method, unsigned int param, wchar_t** name,
                             wchar_t** type, unsigned int* flags) = 0;
};

extern "C" {
// The description of a registered interface. REGDB_E_KEYMISSING when no
// library records it, CO_E_DLLNOTFOUND or CO_E_ERRORINDLL when its library
// cannot be loaded or has no such tables, E_NOINTERFACE when the tables do not
// hold it.
VELTCOM_API HRESULT COM_GetTypeInfo(const COM_GUID& iid, COM_ITypeInfo** info);
}

#endif
