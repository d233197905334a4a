// The component library behind every generated class: one factory serves the
// whole family, so that ten thousand registered classes need no table here.
#include "benchClasses.h"

namespace {

const COM_GUID kFirstClass = bench::ClassId(0);

class CBenchObject : public COM_IUnknown,
                     public COM_CComObjectRoot,
                     public COM_CComCoClass<CBenchObject, &kFirstClass> {
public:
    COM_IMPLEMENT_REFCOUNT()

    HRESULT QueryInterface(const COM_GUID& iid, void** out) override {
        if (!out) return E_POINTER;
        if (iid != COM_IID_IUnknown) {
            *out = nullptr;
            return E_NOINTERFACE;
        }
        *out = static_cast<COM_IUnknown*>(this);
        AddRef();
        return S_OK;
    }
};

const COM_OBJMAP_ENTRY s_noClasses[] = {{nullptr, nullptr, nullptr, nullptr}};

}  // namespace

COM_CComModule g_theModule(s_noClasses, bench::kComponentFile);

extern "C" VELTCOM_API HRESULT GetClassObject(const COM_GUID& clsid, const COM_GUID& iid, void** out) {
    if (!out) return E_POINTER;
    if (!bench::IsBenchClass(clsid)) return CLASS_E_CLASSNOTAVAILABLE;
    return CBenchObject::_theClassFactory.QueryInterface(iid, out);
}

extern "C" VELTCOM_API HRESULT CanUnloadNow() { return g_theModule.CanUnloadNow(); }
