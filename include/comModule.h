// The module object: every module (the runtime and each component library)
// has one, g_theModule, whose lock count tells CanUnloadNow whether objects
// or factory references of the module are still alive.
#ifndef VELTCOM_COMMODULE_H
#define VELTCOM_COMMODULE_H

#include "comBase.h"

class COM_CComModule {
public:
    // Objects take one lock while their reference count is above zero;
    // a reference to a class factory is a lock too.
    int Lock() { return ++m_nLockCnt; }
    int Unlock() { return --m_nLockCnt; }
    int GetLockCount() const { return m_nLockCnt; }

private:
    int m_nLockCnt = 0;
};

// Each module defines its own; with hidden visibility it never binds to
// another module's object of the same name.
extern COM_CComModule g_theModule;

#endif
