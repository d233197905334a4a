// A component built from idlSample.idl: a class with three interfaces, one
// derived from another, the facility's decoder, and the type information.
#include "idlSample.h"

namespace {

class CIdlCalc : public COM_CImplements<CIdlCalc, ICalcMore, ISeparate> {
public:
    HRESULT Add(int32_t a, int32_t b, int32_t* sum) override {
        *sum = a + b;
        return S_OK;
    }
    HRESULT Label(const wchar_t* prefix, wchar_t** label) override {
        *label = COM_SysAllocString(prefix);
        return S_OK;
    }
    HRESULT Scale(double*, SampleMode) override { return E_NOTIMPL; }
    HRESULT Move(const SamplePoint&, SamplePoint*) override { return E_NOTIMPL; }
    HRESULT Find(const COM_GUID& iid, void** object) override {
        return QueryInterface(iid, object);
    }
    HRESULT Pair(ICalc*, ICalc**) override { return E_NOTIMPL; }
    HRESULT Flags(bool, uint64_t, int8_t*) override { return E_NOTIMPL; }
    HRESULT Ping() override { return S_OK; }
};

}  // namespace

COM_BEGIN_OBJECT_MAP(s_objectMap)
COM_OBJECT_ENTRY_CLASS(CLASS_IdlCalc, CIdlCalc)
COM_OBJECT_ENTRY_CLASS(CLASS_IdlStatus, COM_CStatusDecoder<&FACILITY_SAMPLE>)
COM_END_OBJECT_MAP()

COM_DEFINE_MODULE(s_objectMap, "libtestidl.so")
COM_DEFINE_TYPELIBRARY(TYPELIB_idlSample)
