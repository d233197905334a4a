// A component of kManyClasses classes, each with a ProgID, a display name and
// a description, written with the same macros as any component.
#include "testComponents.h"

namespace {

// The classes differ only in their registration: one class serves them all.
class CMany : public COM_CImplements<CMany, COM_IUnknown> {};

// "Test.Many<n>", made at compile time, since the registration keeps no copy.
struct ManyProgId {
    wchar_t text[13] = L"Test.Many";
};
constexpr ManyProgId MakeManyProgId(unsigned int n) {
    ManyProgId id;
    const int digits = n < 10 ? 1 : n < 100 ? 2 : 3;
    for (int i = digits; i > 0; --i, n /= 10) id.text[8 + i] = static_cast<wchar_t>(L'0' + n % 10);
    return id;
}

template <unsigned int N>
struct ManyClass {
    static constexpr COM_GUID id = ManyClassId(N);
    static constexpr ManyProgId progId = MakeManyProgId(N);
    static constexpr COM_CLASSINFO info = {
        &id,     progId.text, L"A class of many", L"One of the many classes", nullptr,
        nullptr, nullptr};
};

}  // namespace

#define MANY_ENTRY(n) COM_OBJECT_ENTRY_CLASS(ManyClass<(n)>::info, CMany)
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
