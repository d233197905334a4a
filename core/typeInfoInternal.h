// Type information of component libraries: recorded at registration.
#ifndef VELTCOM_CORE_TYPE_INFO_INTERNAL_H
#define VELTCOM_CORE_TYPE_INFO_INTERNAL_H

#include "comModule.h"

// Records (reg non-zero) or removes each interface the type library of
// `module`'s library describes, under Interface\<IID text> of the classes
// root. Removal happens only when `removeAllowed`, since another
// installation of the library may still use the entries, and only for
// entries that name this library. A library without type information has
// nothing to record. False when any step failed.
bool UpdateTypeLibraryRegistration(COM_CComModule& module, int reg, bool removeAllowed);

#endif
