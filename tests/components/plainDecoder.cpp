// A status decoder without COM_IMonikerData: it cannot take data from the
// display name.
#include <cstdio>

#include "decoderComponents.h"

namespace {

class CPlainDecoder : public COM_IDecodeHResult,
                      public COM_CComObjectRoot,
                      public COM_CComCoClass<CPlainDecoder, &CLSID_PlainDecoder> {
public:
    static HRESULT UpdateRegistry(int reg) {
        return g_theModule.UpdateRegistryClass(GetObjectCLSID(), L"Test.PlainDecoder", 0, reg,
                                               nullptr, nullptr, L"hresult", L"68");
    }
    COM_IMPLEMENT_REFCOUNT()

    HRESULT QueryInterface(const COM_GUID& iid, void** out) override {
        if (!out) return E_POINTER;
        if (iid == COM_IID_IUnknown || iid == COM_IID_IDecodeHResult) {
            *out = static_cast<COM_IDecodeHResult*>(this);
            AddRef();
            return S_OK;
        }
        *out = nullptr;
        return E_NOINTERFACE;
    }

    HRESULT DecodeHResult(int hr, unsigned int flags, wchar_t** text) override {
        if (!text) return E_POINTER;
        wchar_t buffer[64];
        std::swprintf(buffer, sizeof buffer / sizeof buffer[0],
                      L"plain decoder: code %08X, flags %u", static_cast<unsigned>(hr), flags);
        *text = COM_SysAllocString(buffer);
        return *text ? S_OK : E_OUTOFMEMORY;
    }
};

}  // namespace

COM_BEGIN_OBJECT_MAP(s_objectMap)
COM_OBJECT_ENTRY(CLSID_PlainDecoder, CPlainDecoder)
COM_END_OBJECT_MAP()

COM_DEFINE_MODULE(s_objectMap, "libtestplaindecoder.so")
