// The binder of "hresult:" monikers: turns a facility number, optionally
// followed by "!" and data, into the decoder registered for that facility;
// and status decoding, which reaches such decoders through it.
#include <cwchar>
#include <new>
#include <string>

#include "coreInternal.h"

namespace {

using RegistryPtr = utlAutoIf<COM_IRegistry, &COM_IID_IRegistry>;
using UnknownPtr = utlAutoIf<COM_IUnknown, &COM_IID_IUnknown>;
using MonikerDataPtr = utlAutoIf<COM_IMonikerData, &COM_IID_IMonikerData>;

const wchar_t kProgId[] = L"ZarvoCOM.Decoder";

// Reads the decoder class registered as `facility` under Moniker\hresult.
// Any failure, the value not being an identifier included, is a failing
// status thrown as an int.
COM_GUID FindDecoderClass(const wchar_t* facility) {
    RegistryPtr registry;
    CAutoBstr text;
    COM_HRESULT_EXCEPTION hr = registry.CreateInstance(COM_CLSID_Registry);
    hr = registry->Open(1, L"");
    hr = registry->OpenKey(L"Moniker\\hresult");
    hr = registry->GetValueString(facility, text.Out());
    hr = registry->Close();
    COM_GUID clsid;
    hr = COM_StringToCLSID(text.Get(), &clsid);
    return clsid;
}

// Hands the data of the display name to the new object.
HRESULT PassData(COM_IUnknown& object, const wchar_t* data) {
    MonikerDataPtr target;
    if (FAILED(target.QueryFrom(&object))) return MK_E_EXTENSIONNOTSUPPORTED;
    // Strings cross interfaces as system strings, so the decoder gets its
    // own copy, never a pointer into the caller's name.
    CAutoBstr copy;
    *copy.Out() = COM_SysAllocString(data);
    if (!copy.Get()) return E_OUTOFMEMORY;
    const HRESULT hr = target->SetData(copy.Get());
    if (SUCCEEDED(hr)) return S_OK;
    return hr == MK_E_EXTENSIONNOTSUPPORTED ? hr : CLASS_E_CLASSNOTAVAILABLE;
}

}  // namespace

HRESULT CHResultDecoderBinder::UpdateRegistry(int reg) {
    const HRESULT classResult = g_theModule.UpdateRegistryClass(
        COM_CLSID_HResultDecoderBinder, kProgId, 0, reg, nullptr, nullptr, nullptr, nullptr);
    if (FAILED(classResult)) return classResult;
    try {
        RegistryPtr registry;
        CAutoBstr text;
        COM_HRESULT_EXCEPTION hr = registry.CreateInstance(COM_CLSID_Registry);
        hr = COM_CLSIDToString(COM_CLSID_HResultDecoderBinder, text.Out());
        hr = registry->Open(1, L"");
        hr = registry->CreateKey(L"Moniker", 1);
        hr = registry->CreateKey(L"hresult", 1);
        if (reg)
            hr = registry->SetValueString(L"", text.Get());
        else if (classResult == S_OK)
            // S_FALSE means another installation still uses the class, and
            // with it the binding of "hresult:".
            hr = registry->DeleteValue(L"");
        hr = registry->Close();
        return S_OK;
    } catch (int hr) {
        return hr;
    }
}

HRESULT CHResultDecoderBinder::QueryInterface(const COM_GUID& iid, void** out) {
    if (!out) return E_POINTER;
    if (iid == COM_IID_IUnknown || iid == COM_IID_IMoniker) {
        *out = static_cast<COM_IMoniker*>(this);
        AddRef();
        return S_OK;
    }
    *out = nullptr;
    return E_NOINTERFACE;
}

HRESULT CHResultDecoderBinder::BindToObject(wchar_t* name, const COM_GUID& iid, void** out) {
    if (!name || !out) return E_POINTER;
    *out = nullptr;
    try {
        const wchar_t* bang = std::wcschr(name, L'!');
        const std::wstring facility = bang ? std::wstring(name, bang - name) : std::wstring(name);
        const wchar_t* data = bang ? bang + 1 : L"";
        // The empty value name would read the key's default value, which
        // names this binder, not a decoder.
        if (facility.empty()) return CLASS_E_CLASSNOTAVAILABLE;

        COM_GUID clsid;
        try {
            clsid = FindDecoderClass(facility.c_str());
        } catch (int) {
            return CLASS_E_CLASSNOTAVAILABLE;
        }
        UnknownPtr object;
        if (FAILED(COM_CreateInstance(clsid, nullptr, iid, object.OutVoid())))
            return CLASS_E_CLASSNOTAVAILABLE;
        if (*data) {
            const HRESULT hr = PassData(*object, data);
            if (FAILED(hr)) return hr;
        }
        *out = object.Detach();
        return S_OK;
    } catch (const std::bad_alloc&) {
        return E_OUTOFMEMORY;
    }
}

namespace {

// Codes of the higher facilities go to the decoder registered for the
// facility, found through the moniker "hresult:<facility in hexadecimal>".
HRESULT DecodeByRegisteredDecoder(int hr, wchar_t** text) {
    wchar_t name[24];
    std::swprintf(name, sizeof name / sizeof name[0], L"hresult:%X",
                  (static_cast<uint32_t>(hr) >> 16) & 0x1FFF);
    unsigned long eaten = 0;
    utlAutoIf<COM_IMoniker, &COM_IID_IMoniker> moniker;
    HRESULT result = COM_MkParseName(name, &eaten, moniker.Out());
    if (FAILED(result)) return result;
    const unsigned long length = std::wcslen(name);
    utlAutoIf<COM_IDecodeHResult, &COM_IID_IDecodeHResult> decoder;
    result = moniker->BindToObject(name + (eaten < length ? eaten : length),
                                   COM_IID_IDecodeHResult, decoder.OutVoid());
    if (FAILED(result)) return result;
    // The binder has no decoder to offer: the generic text stands in.
    if (result == S_FALSE) return DecodeBuiltInHRESULT(hr, text);
    // Decoders always see flags 0, whatever the caller passed.
    return decoder->DecodeHResult(hr, 0, text);
}

}  // namespace

HRESULT CComPlatformUtils::COM_DecodeHRESULT(int hr, unsigned int, wchar_t** text) {
    if (!text) return E_POINTER;
    if (IsBuiltInFacility(hr)) return DecodeBuiltInHRESULT(hr, text);
    return DecodeByRegisteredDecoder(hr, text);
}
