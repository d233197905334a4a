// A component built from idlSample.idl: a class with three interfaces, one
// derived from another, the facility's decoder, and the type information.
// Its methods need only match the generated header, which gives every
// parameter shape of the definition the C++ type these overrides name.
#include "idlSample.h"

// An enum counts up from 0, or from the last value given.
static_assert(SampleFast == 0 && SampleSafe == 5 && SampleLast == 6, "enumerator values");

namespace {

class CIdlCalc : public COM_CImplements<CIdlCalc, ICalcMore, ISeparate> {
public:
    HRESULT Add(int32_t, int32_t, int32_t*) override { return E_NOTIMPL; }
    HRESULT Label(const wchar_t*, wchar_t**) override { return E_NOTIMPL; }
    HRESULT Scale(double*, SampleMode) override { return E_NOTIMPL; }
    HRESULT Move(const SamplePoint&, SamplePoint*) override { return E_NOTIMPL; }
    HRESULT Find(const COM_GUID&, void**) override { return E_NOTIMPL; }
    HRESULT Pair(ICalc*, ICalc**) override { return E_NOTIMPL; }
    HRESULT Flags(bool, uint64_t, int8_t*) override { return E_NOTIMPL; }
    HRESULT Ping() override { return E_NOTIMPL; }
};

}  // namespace

COM_BEGIN_OBJECT_MAP(s_objectMap)
COM_OBJECT_ENTRY_CLASS(CLASS_IdlCalc, CIdlCalc)
COM_OBJECT_ENTRY_CLASS(CLASS_IdlStatus, COM_CStatusDecoder<&FACILITY_SAMPLE>)
COM_END_OBJECT_MAP()

COM_DEFINE_MODULE(s_objectMap, "libtestidl.so")
COM_DEFINE_TYPELIBRARY(TYPELIB_idlSample)
