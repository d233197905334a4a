// An ordinary component: one class with a custom interface, registered
// through its own DllRegisterServer.
#include "testComponents.h"

namespace {

class CCounter : public COM_CImplements<CCounter, ICounter> {
public:
    HRESULT Increment(long* value) override {
        *value = ++m_nValue;
        return S_OK;
    }

private:
    long m_nValue = 0;
};

const COM_CLASSINFO kCounter = {&CLSID_Counter, L"Test.Counter", L"Test counter", L"Counts calls",
                                nullptr,        nullptr,         nullptr};

}  // namespace

COM_BEGIN_OBJECT_MAP(s_objectMap)
COM_OBJECT_ENTRY_CLASS(kCounter, CCounter)
COM_END_OBJECT_MAP()

COM_DEFINE_MODULE(s_objectMap, "libtestcounter.so")
