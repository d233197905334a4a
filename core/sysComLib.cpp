// The runtime's module object.
#include "coreInternal.h"

COM_CComModule g_theModule;
