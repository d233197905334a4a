// The status decoders the moniker tests load, one source built twice. Their
// texts record the code and the flags they were given, so that a test sees
// exactly what reached them; the recording decoder (RECORDING_DECODER) also
// takes data from the display name, and its text records the data too.
#include <cstdio>
#include <string>

#include "decoderComponents.h"

namespace {

#ifdef RECORDING_DECODER
const COM_CLASSINFO kClass = {&CLSID_RecordingDecoder,
                              L"Test.RecordingDecoder",
                              nullptr,
                              nullptr,
                              nullptr,
                              L"hresult",
                              L"67,1FFF"};
const wchar_t kFormat[] = L"recording decoder: code %08X, flags %u, data <%ls>";

class CDecoder : public COM_CImplements<CDecoder, COM_IDecodeHResult, COM_IMonikerData> {
public:
    HRESULT SetData(wchar_t* data) override {
        if (!data) return E_POINTER;
        const std::wstring text = data;
        if (text == DECODER_DATA_UNSUPPORTED) return MK_E_EXTENSIONNOTSUPPORTED;
        if (text == DECODER_DATA_FAILING) return E_FAIL;
        m_strData = text;
        return S_OK;
    }
#else
const COM_CLASSINFO kClass = {
    &CLSID_PlainDecoder, L"Test.PlainDecoder", nullptr, nullptr, nullptr, L"hresult", L"68"};
const wchar_t kFormat[] = L"plain decoder: code %08X, flags %u";

class CDecoder : public COM_CImplements<CDecoder, COM_IDecodeHResult> {
public:
#endif
    HRESULT DecodeHResult(int hr, unsigned int flags, wchar_t** text) override {
        if (!text) return E_POINTER;
        if ((hr & 0xFFFF) == static_cast<int>(kFailingCodeNumber)) return kDecoderFailure;
        wchar_t buffer[256];
        std::swprintf(buffer, sizeof buffer / sizeof buffer[0], kFormat, static_cast<unsigned>(hr),
                      flags, m_strData.c_str());
        *text = COM_SysAllocString(buffer);
        return *text ? S_OK : E_OUTOFMEMORY;
    }

private:
    std::wstring m_strData;  // what SetData took, if the decoder takes data
};

}  // namespace

COM_BEGIN_OBJECT_MAP(s_objectMap)
COM_OBJECT_ENTRY_CLASS(kClass, CDecoder)
COM_END_OBJECT_MAP()

#ifdef RECORDING_DECODER
COM_DEFINE_MODULE(s_objectMap, "libtestdecoder.so")
#else
COM_DEFINE_MODULE(s_objectMap, "libtestplaindecoder.so")
#endif
