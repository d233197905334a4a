// A plug-in an application opens itself, whose constructor activates a
// registered class of another library: the runtime is entered while the
// loader's own lock is held. The pause lets the test start an activation of
// its own in the meantime. A failed activation aborts the loading process.
#include <unistd.h>

#include <cstdlib>

#include "testComponents.h"

__attribute__((constructor)) static void ActivateWhileLoading() {
    usleep(300 * 1000);
    COM_IUnknown* counter = nullptr;
    if (FAILED(COM_CreateInstance(CLSID_Counter, nullptr, COM_IID_IUnknown,
                                  reinterpret_cast<void**>(&counter))))
        std::abort();
    counter->Release();
}
