// A component whose two classes declare the categories they belong to, so
// that its DllRegisterServer and DllUnregisterServer add and remove
// category membership. CatWidget stands first in the map, CatViewer second.
#include "testComponents.h"

namespace {

// Neither class has an interface beyond COM_IUnknown: one class serves both.
class CPlainObject : public COM_CImplements<CPlainObject, COM_IUnknown> {};

const COM_GUID* const kWidgetCategories[] = {&CATID_TestTools, &CATID_TestViewers, nullptr};
const COM_GUID* const kViewerCategories[] = {&CATID_TestViewers, nullptr};
const COM_CLASSINFO kWidget = {&CLSID_CatWidget,  L"Test.CatWidget", nullptr, nullptr,
                               kWidgetCategories, nullptr,           nullptr};
const COM_CLASSINFO kViewer = {&CLSID_CatViewer,  L"Test.CatViewer", nullptr, nullptr,
                               kViewerCategories, nullptr,           nullptr};

}  // namespace

COM_BEGIN_OBJECT_MAP(s_objectMap)
COM_OBJECT_ENTRY_CLASS(kWidget, CPlainObject)
COM_OBJECT_ENTRY_CLASS(kViewer, CPlainObject)
COM_END_OBJECT_MAP()

COM_DEFINE_MODULE(s_objectMap, "libtestcategories.so")
