// A library that exports GetClassObject but not CanUnloadNow, so it is not a
// component the runtime accepts.
#include "testComponents.h"

extern "C" HRESULT GetClassObject(const COM_GUID&, const COM_GUID&, void** out) {
    *out = nullptr;
    return CLASS_E_CLASSNOTAVAILABLE;
}
