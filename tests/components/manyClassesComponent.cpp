// A component of kManyClasses classes, each with a ProgID, a display name and
// a description, written with the same macros as any component.
#include <string>

#include "testComponents.h"

namespace {

template <unsigned int N>
struct CManyId {
    static const COM_GUID value;
};
template <unsigned int N>
const COM_GUID CManyId<N>::value = ManyClassId(N);

// "Test.Many<N>"; made once, since the registration keeps no copy.
template <unsigned int N>
const wchar_t* ManyProgId() {
    static const std::wstring text = L"Test.Many" + std::to_wstring(N);
    return text.c_str();
}

template <unsigned int N>
class CMany : public COM_IUnknown,
              public COM_CComObjectRoot,
              public COM_CComCoClass<CMany<N>, &CManyId<N>::value> {
public:
    // The macro names it unqualified; a template must say whose it is.
    using COM_CComCoClass<CMany<N>, &CManyId<N>::value>::GetObjectCLSID;
    COM_DECLARE_REGISTRY(ManyProgId<N>(), L"A class of many", L"One of the many classes")
    COM_IMPLEMENT_REFCOUNT()

    HRESULT QueryInterface(const COM_GUID& iid, void** out) override {
        if (!out) return E_POINTER;
        *out = iid == COM_IID_IUnknown ? static_cast<COM_IUnknown*>(this) : nullptr;
        if (!*out) return E_NOINTERFACE;
        AddRef();
        return S_OK;
    }
};

}  // namespace

#define MANY_ENTRY(n) COM_OBJECT_ENTRY(CManyId<(n)>::value, CMany<(n)>)
#define MANY_ENTRIES_10(n)                                                                 \
    MANY_ENTRY(n) MANY_ENTRY(n + 1) MANY_ENTRY(n + 2) MANY_ENTRY(n + 3) MANY_ENTRY(n + 4) \
    MANY_ENTRY(n + 5) MANY_ENTRY(n + 6) MANY_ENTRY(n + 7) MANY_ENTRY(n + 8) MANY_ENTRY(n + 9)
#define MANY_ENTRIES_100(n)                                                    \
    MANY_ENTRIES_10(n) MANY_ENTRIES_10(n + 10) MANY_ENTRIES_10(n + 20)         \
    MANY_ENTRIES_10(n + 30) MANY_ENTRIES_10(n + 40) MANY_ENTRIES_10(n + 50)    \
    MANY_ENTRIES_10(n + 60) MANY_ENTRIES_10(n + 70) MANY_ENTRIES_10(n + 80)    \
    MANY_ENTRIES_10(n + 90)

COM_BEGIN_OBJECT_MAP(s_objectMap)
MANY_ENTRIES_100(0)
MANY_ENTRIES_100(100)
COM_END_OBJECT_MAP()

static_assert(sizeof s_objectMap / sizeof s_objectMap[0] == kManyClasses + 1, "one entry per class");

COM_DEFINE_MODULE(s_objectMap, "libtestmany.so")
