// A component whose factories misbehave: one fails to create its object, one
// reports success without handing out a factory.
#include "testComponents.h"

namespace {

class CFailingFactory : public COM_IClassFactory {
public:
    HRESULT QueryInterface(const COM_GUID& iid, void** out) override {
        if (iid == COM_IID_IUnknown || iid == COM_IID_IClassFactory) {
            *out = static_cast<COM_IClassFactory*>(this);
            return S_OK;
        }
        *out = nullptr;
        return E_NOINTERFACE;
    }
    unsigned long AddRef() override { return 1; }
    unsigned long Release() override { return 1; }
    HRESULT CreateInstance(const COM_GUID&, void** out) override {
        *out = nullptr;
        return kFailingFactoryResult;
    }
};

CFailingFactory s_failingFactory;

}  // namespace

extern "C" HRESULT GetClassObject(const COM_GUID& clsid, const COM_GUID& iid, void** out) {
    if (clsid == CLSID_FailingFactory) return s_failingFactory.QueryInterface(iid, out);
    if (clsid == CLSID_NullFactory) return S_OK;
    return CLASS_E_CLASSNOTAVAILABLE;
}

extern "C" HRESULT CanUnloadNow() { return S_OK; }
