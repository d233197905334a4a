// Everything a component or application needs from the runtime.
#ifndef VELTCOM_H
#define VELTCOM_H

#include "comBase.h"
#include "comUnknown.h"
#include "comApi.h"
#include "comUtil.h"
#include "comRegistry.h"
#include "comCategories.h"
#include "comModule.h"
#include "comException.h"
#include "comMemory.h"
#include "comMoniker.h"
#include "comImplements.h"
#include "comTypeInfo.h"

#endif
