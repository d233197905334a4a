// A component whose factories misbehave: one fails to create its object, one
// reports success without handing out a factory.
#include "testComponents.h"

namespace {

struct CFailing {
    static HRESULT CreateInstance(const COM_GUID&, void** out) {
        *out = nullptr;
        return kFailingFactoryResult;
    }
};

COM_CClassFactory<CFailing> s_failingFactory;

}  // namespace

// Holds the factory's locks; nothing is registered through it.
COM_CComModule g_theModule(nullptr, "libtestfaulty.so");

extern "C" HRESULT GetClassObject(const COM_GUID& clsid, const COM_GUID& iid, void** out) {
    if (clsid == CLSID_FailingFactory) return s_failingFactory.QueryInterface(iid, out);
    if (clsid == CLSID_NullFactory) return S_OK;
    return CLASS_E_CLASSNOTAVAILABLE;
}

extern "C" HRESULT CanUnloadNow() { return S_OK; }
