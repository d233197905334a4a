// An ordinary component: one class with a custom interface, registered
// through its own DllRegisterServer. It is written the long way, with the
// class-binding and registry macros and a QueryInterface of its own, so that
// the tests run components built without interface maps too.
#include "testComponents.h"

namespace {

class CCounter : public ICounter,
                 public COM_CComObjectRoot,
                 public COM_CComCoClass<CCounter, &CLSID_Counter> {
public:
    COM_DECLARE_REGISTRY(L"Test.Counter", L"Test counter", L"Counts calls")
    COM_IMPLEMENT_REFCOUNT()

    HRESULT QueryInterface(const COM_GUID& iid, void** out) override {
        if (!out) return E_POINTER;
        if (iid == COM_IID_IUnknown || iid == IID_ICounter) {
            *out = static_cast<ICounter*>(this);
            AddRef();
            return S_OK;
        }
        *out = nullptr;
        return E_NOINTERFACE;
    }

    HRESULT Increment(long* value) override {
        *value = ++m_nValue;
        return S_OK;
    }

private:
    long m_nValue = 0;
};

}  // namespace

COM_BEGIN_OBJECT_MAP(s_objectMap)
COM_OBJECT_ENTRY(CLSID_Counter, CCounter)
COM_END_OBJECT_MAP()

COM_DEFINE_MODULE(s_objectMap, "libtestcounter.so")
