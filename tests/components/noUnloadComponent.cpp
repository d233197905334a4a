// A library that exports GetClassObject but not CanUnloadNow, so it is not a
// component the runtime accepts. It uses the runtime, so the runtime's own
// CanUnloadNow is reachable through it: that one must not count.
#include "testComponents.h"

extern "C" HRESULT GetClassObject(const COM_GUID& clsid, const COM_GUID&, void** out) {
    *out = nullptr;
    wchar_t* text = nullptr;
    COM_CLSIDToString(clsid, &text);
    COM_SysFreeString(text);
    return CLASS_E_CLASSNOTAVAILABLE;
}
