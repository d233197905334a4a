// A service whose first creation asks COM_GetService for the service itself,
// so that the inner request stores its object before the outer one can.
#include "testComponents.h"

namespace {

class CReentrantService : public COM_IUnknown,
                          public COM_CComObjectRoot,
                          public COM_CComCoClass<CReentrantService, &CLSID_ReentrantService> {
public:
    COM_DECLARE_REGISTRY(L"Test.ReentrantService", nullptr, nullptr)
    COM_IMPLEMENT_REFCOUNT()

    static HRESULT CreateInstance(const COM_GUID& iid, void** out) {
        static bool s_askedForItself = false;
        if (!s_askedForItself) {
            s_askedForItself = true;
            utlAutoIf<COM_IUnknown, &COM_IID_IUnknown> inner;
            COM_GetService(CLSID_ReentrantService, kReentrantServiceNumber, COM_IID_IUnknown,
                           inner.OutVoid());
        }
        return COM_CComCoClass::CreateInstance(iid, out);
    }

    HRESULT QueryInterface(const COM_GUID& iid, void** out) override {
        if (!out) return E_POINTER;
        if (iid == COM_IID_IUnknown) {
            *out = static_cast<COM_IUnknown*>(this);
            AddRef();
            return S_OK;
        }
        *out = nullptr;
        return E_NOINTERFACE;
    }
};

}  // namespace

COM_BEGIN_OBJECT_MAP(s_objectMap)
COM_OBJECT_ENTRY(CLSID_ReentrantService, CReentrantService)
COM_END_OBJECT_MAP()

COM_DEFINE_MODULE(s_objectMap, "libtestreentrant.so")
