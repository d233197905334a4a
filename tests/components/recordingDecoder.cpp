// A status decoder that also takes data from the display name. Its text
// records the code, the flags it was given and the data, so that a test sees
// exactly what reached it.
#include <cstdio>
#include <string>

#include "decoderComponents.h"

namespace {

class CRecordingDecoder : public COM_IDecodeHResult,
                          public COM_IMonikerData,
                          public COM_CComObjectRoot,
                          public COM_CComCoClass<CRecordingDecoder, &CLSID_RecordingDecoder> {
public:
    static HRESULT UpdateRegistry(int reg) {
        return g_theModule.UpdateRegistryClass(GetObjectCLSID(), L"Test.RecordingDecoder", 0,
                                               reg, nullptr, nullptr, L"hresult", L"67,1FFF");
    }
    COM_IMPLEMENT_REFCOUNT()

    HRESULT QueryInterface(const COM_GUID& iid, void** out) override {
        if (!out) return E_POINTER;
        if (iid == COM_IID_IUnknown || iid == COM_IID_IDecodeHResult)
            *out = static_cast<COM_IDecodeHResult*>(this);
        else if (iid == COM_IID_IMonikerData)
            *out = static_cast<COM_IMonikerData*>(this);
        else {
            *out = nullptr;
            return E_NOINTERFACE;
        }
        AddRef();
        return S_OK;
    }

    HRESULT SetData(wchar_t* data) override {
        if (!data) return E_POINTER;
        const std::wstring text = data;
        if (text == DECODER_DATA_UNSUPPORTED) return MK_E_EXTENSIONNOTSUPPORTED;
        if (text == DECODER_DATA_FAILING) return E_FAIL;
        m_strData = text;
        return S_OK;
    }

    HRESULT DecodeHResult(int hr, unsigned int flags, wchar_t** text) override {
        if (!text) return E_POINTER;
        if ((hr & 0xFFFF) == static_cast<int>(kFailingCodeNumber)) return kDecoderFailure;
        wchar_t buffer[256];
        std::swprintf(buffer, sizeof buffer / sizeof buffer[0],
                      L"recording decoder: code %08X, flags %u, data <%ls>",
                      static_cast<unsigned>(hr), flags, m_strData.c_str());
        *text = COM_SysAllocString(buffer);
        return *text ? S_OK : E_OUTOFMEMORY;
    }

private:
    std::wstring m_strData;
};

}  // namespace

COM_BEGIN_OBJECT_MAP(s_objectMap)
COM_OBJECT_ENTRY(CLSID_RecordingDecoder, CRecordingDecoder)
COM_END_OBJECT_MAP()

COM_DEFINE_MODULE(s_objectMap, "libtestdecoder.so")
