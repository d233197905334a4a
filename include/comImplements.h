// Interface maps: a class names the interfaces it implements once,
//
//     class CCalc : public COM_CImplements<CCalc, ICalc, ICalcMemory> { ... };
//
// and gets QueryInterface (base interfaces included, one COM_IUnknown
// identity), atomic reference counting with the module lock, and its factory.
// The coclass data veltcom-idl generates binds it into the object map:
//
//     COM_OBJECT_ENTRY_CLASS(CLASS_Calc, CCalc)
#ifndef VELTCOM_COMIMPLEMENTS_H
#define VELTCOM_COMIMPLEMENTS_H

#include <cwchar>
#include <type_traits>

#include "comApi.h"
#include "comModule.h"
#include "comMoniker.h"
#include "comTypeInfo.h"
#include "comUtil.h"

// Each interface's identifier and base. veltcom-idl writes one for every
// interface it generates; the runtime's own are below.
template <class I>
struct COM_InterfaceTraits;

template <>
struct COM_InterfaceTraits<COM_IUnknown> {
    using Base = void;
    static const COM_GUID& iid() { return COM_IID_IUnknown; }
};

template <>
struct COM_InterfaceTraits<COM_IClassFactory> {
    using Base = COM_IUnknown;
    static const COM_GUID& iid() { return COM_IID_IClassFactory; }
};

template <>
struct COM_InterfaceTraits<COM_IErrorInfo> {
    using Base = COM_IUnknown;
    static const COM_GUID& iid() { return COM_IID_IErrorInfo; }
};

template <>
struct COM_InterfaceTraits<COM_IDecodeHResult> {
    using Base = COM_IUnknown;
    static const COM_GUID& iid() { return COM_IID_IDecodeHResult; }
};

template <>
struct COM_InterfaceTraits<COM_IMonikerData> {
    using Base = COM_IUnknown;
    static const COM_GUID& iid() { return COM_IID_IMonikerData; }
};

template <>
struct COM_InterfaceTraits<COM_ITypeInfo> {
    using Base = COM_IUnknown;
    static const COM_GUID& iid() { return COM_IID_ITypeInfo; }
};

// `object` as the interface `iid` names, when it is I or one of its bases;
// null otherwise. COM_IUnknown is left to the caller, for one identity.
template <class I>
void* COM_InterfaceIfMatches(I* object, const COM_GUID& iid) {
    if constexpr (std::is_same_v<I, COM_IUnknown>) {
        return nullptr;
    } else {
        if (iid == COM_InterfaceTraits<I>::iid()) return object;
        using Base = typename COM_InterfaceTraits<I>::Base;
        return COM_InterfaceIfMatches<Base>(static_cast<Base*>(object), iid);
    }
}

template <class T, class First, class... Rest>
class COM_CImplements : public First, public Rest..., public COM_CComObjectRoot {
public:
    HRESULT QueryInterface(const COM_GUID& iid, void** out) override {
        if (!out) return E_POINTER;
        void* found = iid == COM_IID_IUnknown
                          ? static_cast<COM_IUnknown*>(static_cast<First*>(this))
                          : COM_InterfaceIfMatches<First>(this, iid);
        ((found = found ? found : COM_InterfaceIfMatches<Rest>(this, iid)), ...);
        *out = found;
        if (!found) return E_NOINTERFACE;
        AddRef();
        return S_OK;
    }
    COM_IMPLEMENT_REFCOUNT()

    static HRESULT CreateInstance(const COM_GUID& iid, void** out) {
        return COM_CreateNewObject<T>(iid, out);
    }

    static COM_CClassFactory<T> _theClassFactory;
};

template <class T, class First, class... Rest>
COM_CClassFactory<T> COM_CImplements<T, First, Rest...>::_theClassFactory;

// What a coclass registers, as veltcom-idl generates it (CLASS_<coclass>).
// Null texts are not written; `categories` ends with null.
struct COM_CLASSINFO {
    const COM_GUID* clsid;
    const wchar_t* progId;
    const wchar_t* displayName;
    const wchar_t* description;
    const COM_GUID* const* categories;
    const wchar_t* monikerName;
    const wchar_t* monikerValueNames;
};

template <const COM_CLASSINFO* info>
struct COM_CClassRegistration {
    static HRESULT UpdateRegistry(int reg) {
        return g_theModule.UpdateRegistryClass(*info->clsid, info->progId, 0, reg,
                                               info->displayName, info->description,
                                               info->monikerName, info->monikerValueNames);
    }
    static const COM_GUID* const* GetCategoryMap() { return info->categories; }
};

#define COM_OBJECT_ENTRY_CLASS(info, T)                                                 \
    {(info).clsid, &T::_theClassFactory, &COM_CClassRegistration<&(info)>::UpdateRegistry, \
     &COM_CClassRegistration<&(info)>::GetCategoryMap},

// Makes a new error-information object with `description` at `location` the
// current error, and returns hr, so that a method can end with
// `return COM_ReportError(E_..., L"Sample.Thing", L"what went wrong");`.
inline HRESULT COM_ReportError(HRESULT hr, const wchar_t* location, const wchar_t* description) {
    utlAutoIf<COM_IErrorInfo, &COM_IID_IErrorInfo> info;
    if (FAILED(COM_CreateErrorInfo(info.Out()))) return hr;
    // The setters copy the text.
    info->SetDescription(const_cast<wchar_t*>(description));
    info->SetLocation(const_cast<wchar_t*>(location));
    info->SetHRESULT(hr);
    COM_SetErrorInfo(info);
    return hr;
}

// A facility's status codes with their texts (FACILITY_<name>).
struct COM_STATUSTEXT {
    HRESULT code;
    const wchar_t* text;
};

struct COM_FACILITYINFO {
    unsigned int number;
    const COM_STATUSTEXT* texts;
    unsigned int count;
    const wchar_t* unknownText;
};

// The decoder of a declared facility: a class of the object map, with the
// coclass that names it in `decodes(...)`,
//
//     COM_OBJECT_ENTRY_CLASS(CLASS_GreeterStatus, COM_CStatusDecoder<&FACILITY_GREETER>)
//
// Texts end with the code in brackets, as the runtime writes its own; a code
// the facility does not declare gets the generic text and S_FALSE.
template <const COM_FACILITYINFO* facility>
class COM_CStatusDecoder
    : public COM_CImplements<COM_CStatusDecoder<facility>, COM_IDecodeHResult> {
public:
    HRESULT DecodeHResult(int hr, unsigned int, wchar_t** text) override {
        if (!text) return E_POINTER;
        const wchar_t* message = facility->unknownText;
        HRESULT result = S_FALSE;
        for (unsigned int i = 0; i < facility->count; ++i) {
            if (facility->texts[i].code == hr) {
                message = facility->texts[i].text;
                result = S_OK;
            }
        }
        // A text of any length is kept whole; only the code has a fixed width.
        wchar_t code[16];
        std::swprintf(code, sizeof code / sizeof code[0], L" [%8X]", static_cast<unsigned int>(hr));
        const size_t length = message ? std::wcslen(message) : 0;
        *text = COM_SysAllocStringLen(nullptr, length + std::wcslen(code));
        if (!*text) return E_OUTOFMEMORY;
        std::wmemcpy(*text, message ? message : L"", length);
        std::wcscpy(*text + length, code);
        return result;
    }
};

#endif
