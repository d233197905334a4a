// A service whose first creation asks COM_GetService for the service itself,
// so that the inner request stores its object before the outer one can.
#include "testComponents.h"

namespace {

class CReentrantService : public COM_CImplements<CReentrantService, COM_IUnknown> {
public:
    static HRESULT CreateInstance(const COM_GUID& iid, void** out) {
        static bool s_askedForItself = false;
        if (!s_askedForItself) {
            s_askedForItself = true;
            utlAutoIf<COM_IUnknown, &COM_IID_IUnknown> inner;
            COM_GetService(CLSID_ReentrantService, kReentrantServiceNumber, COM_IID_IUnknown,
                           inner.OutVoid());
        }
        return COM_CreateNewObject<CReentrantService>(iid, out);
    }
};

const COM_CLASSINFO kService = {
    &CLSID_ReentrantService, L"Test.ReentrantService", nullptr, nullptr, nullptr, nullptr, nullptr};

}  // namespace

COM_BEGIN_OBJECT_MAP(s_objectMap)
COM_OBJECT_ENTRY_CLASS(kService, CReentrantService)
COM_END_OBJECT_MAP()

COM_DEFINE_MODULE(s_objectMap, "libtestreentrant.so")
