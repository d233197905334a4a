// A component whose two classes declare the categories they belong to, so
// that its DllRegisterServer and DllUnregisterServer add and remove
// category membership. CatWidget stands first in the map, CatViewer second.
#include "testComponents.h"

namespace {

// QueryInterface and counting common to both classes: neither has an
// interface beyond COM_IUnknown.
template <class T, const COM_GUID* pclsid>
class CPlainObject : public COM_IUnknown,
                     public COM_CComObjectRoot,
                     public COM_CComCoClass<T, pclsid> {
public:
    COM_IMPLEMENT_REFCOUNT()

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

class CCatWidget : public CPlainObject<CCatWidget, &CLSID_CatWidget> {
public:
    COM_DECLARE_REGISTRY(L"Test.CatWidget", nullptr, nullptr)

    static const COM_GUID* const* GetCategoryMap() {
        static const COM_GUID* const categories[] = {&CATID_TestTools, &CATID_TestViewers,
                                                     nullptr};
        return categories;
    }
};

class CCatViewer : public CPlainObject<CCatViewer, &CLSID_CatViewer> {
public:
    COM_DECLARE_REGISTRY(L"Test.CatViewer", nullptr, nullptr)

    static const COM_GUID* const* GetCategoryMap() {
        static const COM_GUID* const categories[] = {&CATID_TestViewers, nullptr};
        return categories;
    }
};

}  // namespace

COM_BEGIN_OBJECT_MAP(s_objectMap)
COM_OBJECT_ENTRY(CLSID_CatWidget, CCatWidget)
COM_OBJECT_ENTRY(CLSID_CatViewer, CCatViewer)
COM_END_OBJECT_MAP()

COM_DEFINE_MODULE(s_objectMap, "libtestcategories.so")
