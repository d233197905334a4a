// Component categories as components see them: the category manager, its
// two enumerators, and category membership written by self-registration.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <climits>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "testComponents.h"
#include "testSupport.h"

namespace {

using CatRegisterPtr = utlAutoIf<COM_ICatRegister, &COM_IID_ICatRegister>;
using CatInformationPtr = utlAutoIf<COM_ICatInformation, &COM_IID_ICatInformation>;
using EnumCategoriesPtr = utlAutoIf<COM_IEnumCATEGORYINFO, &COM_IID_IEnumCATEGORYINFO>;
using EnumClassesPtr = utlAutoIf<COM_IEnumCLSID, &COM_IID_IEnumCLSID>;
using Ids = std::vector<COM_GUID>;

const COM_GUID kCatA = {0xCA7000A1, 0x0001, 0x4000, {0x80, 0, 0, 0, 0, 0, 0, 0xA1}};
const COM_GUID kCatB = {0xCA7000B2, 0x0002, 0x4000, {0x80, 0, 0, 0, 0, 0, 0, 0xB2}};
const COM_GUID kCatC = {0xCA7000C3, 0x0003, 0x4000, {0x80, 0, 0, 0, 0, 0, 0, 0xC3}};
const COM_GUID kClassX = {0xC1A55001, 0x0001, 0x4000, {0x80, 0, 0, 0, 0, 0, 0, 0x01}};
const COM_GUID kClassY = {0xC1A55002, 0x0002, 0x4000, {0x80, 0, 0, 0, 0, 0, 0, 0x02}};
const COM_GUID kClassZ = {0xC1A55003, 0x0003, 0x4000, {0x80, 0, 0, 0, 0, 0, 0, 0x03}};

const unsigned long kUntouchedCount = 0xdeadbeef;

template <class T>
T* Sentinel() {
    return reinterpret_cast<T*>(0xdeadbeef);
}

class CategoryTest : public ComponentTest {
protected:
    void SetUp() override {
        ComponentTest::SetUp();
        ASSERT_EQ(m_spCatRegister.CreateInstance(COM_CLSID_CategoryManager), S_OK);
    }

    // The description, or the failing status as a number.
    std::wstring Description(const COM_GUID& catid) const {
        wchar_t* text = nullptr;
        const HRESULT hr = m_spCatRegister->GetCategoryDescription(catid, &text);
        if (FAILED(hr)) return L"failed " + std::to_wstring(static_cast<unsigned>(hr));
        return ::Take(text);
    }

    Ids ClassesOf(const COM_GUID& catid) const {
        Ids result;
        EnumClassesPtr classes;
        EXPECT_EQ(m_spCatRegister->EnumClassesOfCategory(catid, classes.Out()), S_OK);
        COM_GUID* id = nullptr;
        unsigned long fetched = 0;
        while (!classes.IsNull() && classes->Next(1, &id, &fetched) == S_OK && fetched == 1) {
            result.push_back(*id);
            COM_TaskMemFree(id);
        }
        return result;
    }

    unsigned long CategoryCount() const {
        EnumCategoriesPtr categories;
        unsigned long count = kUntouchedCount;
        EXPECT_EQ(m_spCatRegister->EnumCategories(categories.Out()), S_OK);
        if (!categories.IsNull()) categories->get_Count(&count);
        return count;
    }

    CatRegisterPtr m_spCatRegister;
};

}  // namespace

// --- The manager -----------------------------------------------------------

using CategoryManager = CategoryTest;

TEST_F(CategoryManager, ServesItsTwoInterfacesAtDifferentPointersWithOneCount) {
    CatInformationPtr information;
    ASSERT_EQ(information.QueryFrom(m_spCatRegister), S_OK);
    EXPECT_NE(static_cast<void*>(information.Get()), static_cast<void*>(m_spCatRegister.Get()));
    // Two references are held, one through each pointer.
    EXPECT_EQ(information->AddRef(), 3u);
    EXPECT_EQ(m_spCatRegister->Release(), 2u);

    void* other = Sentinel<void>();
    EXPECT_EQ(information->QueryInterface(COM_IID_IRegistry, &other), E_NOINTERFACE);
    EXPECT_EQ(other, nullptr);

    ASSERT_EQ(m_spCatRegister->RegisterCategory(kCatA, L"Tools"), S_OK);
    wchar_t* text = nullptr;
    ASSERT_EQ(information->GetCategoryDescription(kCatA, &text), S_OK);
    EXPECT_STREQ(text, L"Tools");
    COM_SysFreeString(text);
}

TEST_F(CategoryManager, ManagerAndEnumeratorsHoldTheModuleWhileTheyLive) {
    EXPECT_EQ(CanUnloadNow(), S_FALSE);
    EnumCategoriesPtr categories;
    ASSERT_EQ(m_spCatRegister->EnumCategories(categories.Out()), S_OK);
    m_spCatRegister.Reset();
    EXPECT_EQ(CanUnloadNow(), S_FALSE);
    categories.Reset();
    EXPECT_EQ(CanUnloadNow(), S_OK);
}

TEST_F(CategoryManager, IsRegisteredUnderItsProgId) {
    DllRegisterServer();
    COM_GUID clsid = COM_GUID_NULL;
    wchar_t progId[] = L"ZarvoCategoryManager";
    ASSERT_EQ(COM_GetCLSIDFromProgID(progId, &clsid), S_OK);
    EXPECT_EQ(clsid, COM_CLSID_CategoryManager);
}

TEST_F(CategoryManager, ClassJoinsACategoryBeforeTheCategoryIsRegistered) {
    ASSERT_EQ(m_spCatRegister->RegisterClassInCategory(kCatA, kClassX), S_OK);
    ASSERT_EQ(m_spCatRegister->RegisterClassInCategory(kCatA, kClassX), S_OK);
    wchar_t* text = Sentinel<wchar_t>();
    EXPECT_EQ(m_spCatRegister->GetCategoryDescription(kCatA, &text), REGDB_E_INVALIDVALUE);
    EXPECT_EQ(text, Sentinel<wchar_t>());
    EXPECT_EQ(ClassesOf(kCatA), Ids{kClassX});

    ASSERT_EQ(m_spCatRegister->RegisterCategory(kCatA, L"Tools"), S_OK);
    ASSERT_EQ(m_spCatRegister->RegisterCategory(kCatA, L"Instruments"), S_OK);
    EXPECT_EQ(Description(kCatA), L"Instruments");
    EXPECT_EQ(ClassesOf(kCatA), Ids{kClassX});
    EXPECT_EQ(CategoryCount(), 1u);
}

TEST_F(CategoryManager, NullArgumentsAreRefusedBeforeTheRegistryIsTouched) {
    // The category does not exist: a registry lookup would say so instead.
    EXPECT_EQ(m_spCatRegister->GetCategoryDescription(kCatA, nullptr), E_POINTER);
    EXPECT_EQ(m_spCatRegister->RegisterCategory(kCatA, nullptr), E_POINTER);
    EXPECT_EQ(CategoryCount(), 0u);
    EXPECT_EQ(m_spCatRegister->EnumCategories(nullptr), E_POINTER);
    EXPECT_EQ(m_spCatRegister->EnumClassesOfCategory(kCatA, nullptr), E_POINTER);
}

TEST_F(CategoryManager, RemovingACategoryTakesItsMembersAlong) {
    ASSERT_EQ(m_spCatRegister->RegisterCategory(kCatA, L"Tools"), S_OK);
    ASSERT_EQ(m_spCatRegister->RegisterClassInCategory(kCatA, kClassX), S_OK);
    ASSERT_EQ(m_spCatRegister->RegisterClassInCategory(kCatA, kClassY), S_OK);
    ASSERT_EQ(m_spCatRegister->UnRegisterClassInCategory(kCatA, kClassX), S_OK);
    EXPECT_EQ(ClassesOf(kCatA), Ids{kClassY});
    ASSERT_EQ(m_spCatRegister->UnRegisterCategory(kCatA), S_OK);

    COM_IEnumCLSID* classes = Sentinel<COM_IEnumCLSID>();
    EXPECT_EQ(m_spCatRegister->EnumClassesOfCategory(kCatA, &classes), REGDB_E_KEYMISSING);
    EXPECT_EQ(classes, Sentinel<COM_IEnumCLSID>());
    EXPECT_EQ(CategoryCount(), 0u);
    // Joining again starts from an empty category.
    ASSERT_EQ(m_spCatRegister->RegisterClassInCategory(kCatA, kClassZ), S_OK);
    EXPECT_EQ(ClassesOf(kCatA), Ids{kClassZ});
}

TEST_F(CategoryManager, RemovingWhatDoesNotExistGivesTheRegistryCode) {
    EXPECT_EQ(m_spCatRegister->UnRegisterCategory(kCatA), REGDB_E_WRITEREGDB);
    EXPECT_EQ(m_spCatRegister->UnRegisterClassInCategory(kCatA, kClassX), REGDB_E_KEYMISSING);
    wchar_t* text = Sentinel<wchar_t>();
    EXPECT_EQ(m_spCatRegister->GetCategoryDescription(kCatA, &text), REGDB_E_KEYMISSING);
    EXPECT_EQ(text, Sentinel<wchar_t>());
    ASSERT_EQ(m_spCatRegister->RegisterClassInCategory(kCatA, kClassY), S_OK);
    EXPECT_EQ(m_spCatRegister->UnRegisterClassInCategory(kCatA, kClassX), REGDB_E_WRITEREGDB);
    EXPECT_EQ(ClassesOf(kCatA), Ids{kClassY});
}

// --- Category records -------------------------------------------------------

TEST_F(CategoryManager, LongDescriptionIsCutToFitTheRecord) {
    const std::wstring exact(255, L'e');
    const std::wstring longer = std::wstring(255, L'l') + L"-and-then-some";
    ASSERT_EQ(m_spCatRegister->RegisterCategory(kCatA, exact.c_str()), S_OK);
    ASSERT_EQ(m_spCatRegister->RegisterCategory(kCatB, longer.c_str()), S_OK);
    EXPECT_EQ(Description(kCatB), longer);

    EnumCategoriesPtr categories;
    ASSERT_EQ(m_spCatRegister->EnumCategories(categories.Out()), S_OK);
    COM_CATEGORYINFO* records[2] = {};
    unsigned long fetched = 0;
    ASSERT_EQ(categories->Next(2, records, &fetched), S_OK);
    ASSERT_EQ(fetched, 2u);
    EXPECT_EQ(std::wstring(records[0]->szDescription), exact);
    EXPECT_EQ(records[1]->szDescription[255], L'\0');
    EXPECT_EQ(std::wstring(records[1]->szDescription), longer.substr(0, 255));
    for (COM_CATEGORYINFO* record : records) COM_TaskMemFree(record);
}

TEST_F(CategoryManager, RecordsFailAtACategoryWithoutDescriptionAndReadTheCurrentOne) {
    ASSERT_EQ(m_spCatRegister->RegisterCategory(kCatA, L"Before"), S_OK);
    ASSERT_EQ(m_spCatRegister->RegisterClassInCategory(kCatB, kClassX), S_OK);
    EnumCategoriesPtr categories;
    ASSERT_EQ(m_spCatRegister->EnumCategories(categories.Out()), S_OK);
    // Descriptions are read when a record is made, not when the list is.
    ASSERT_EQ(m_spCatRegister->RegisterCategory(kCatA, L"After"), S_OK);

    COM_CATEGORYINFO* records[2] = {};
    records[1] = Sentinel<COM_CATEGORYINFO>();
    unsigned long fetched = kUntouchedCount;
    EXPECT_EQ(categories->Next(2, records, &fetched), REGDB_E_INVALIDVALUE);
    ASSERT_EQ(fetched, 1u);
    EXPECT_EQ(records[0]->catid, kCatA);
    EXPECT_STREQ(records[0]->szDescription, L"After");
    EXPECT_EQ(records[1], Sentinel<COM_CATEGORYINFO>());
    COM_TaskMemFree(records[0]);
}

// --- Both enumerators ---------------------------------------------------------

namespace {

// How a test fills and opens each kind of enumerator.
struct CategoryList {
    using Element = COM_CATEGORYINFO;
    using Ptr = EnumCategoriesPtr;
    static void Prepare(COM_ICatRegister*) {}
    static HRESULT Add(COM_ICatRegister* manager, const COM_GUID& id) {
        return manager->RegisterCategory(id, L"listed");
    }
    static std::wstring ParentKey() { return L"ComponentCategories"; }
    static HRESULT Open(COM_ICatRegister* manager, COM_IEnumCATEGORYINFO** out) {
        return manager->EnumCategories(out);
    }
    static COM_GUID IdOf(const Element* element) { return element->catid; }
};

struct ClassList {
    using Element = COM_GUID;
    using Ptr = EnumClassesPtr;
    static void Prepare(COM_ICatRegister* manager) {
        ASSERT_EQ(manager->RegisterCategory(kCatA, L"holder"), S_OK);
    }
    static HRESULT Add(COM_ICatRegister* manager, const COM_GUID& id) {
        return manager->RegisterClassInCategory(kCatA, id);
    }
    static std::wstring ParentKey() { return L"ComponentCategories\\" + TextOf(kCatA); }
    static HRESULT Open(COM_ICatRegister* manager, COM_IEnumCLSID** out) {
        return manager->EnumClassesOfCategory(kCatA, out);
    }
    static COM_GUID IdOf(const Element* element) { return *element; }
};

template <class List>
class Enumerator : public CategoryTest {
protected:
    using Element = typename List::Element;
    using Ptr = typename List::Ptr;

    void SetUp() override {
        CategoryTest::SetUp();
        List::Prepare(m_spCatRegister);
    }

    // Three names, in this order: kCatA, kCatB, kCatC.
    Ptr OpenThree() {
        for (const COM_GUID* id : {&kCatA, &kCatB, &kCatC})
            EXPECT_EQ(List::Add(m_spCatRegister, *id), S_OK);
        return Open();
    }

    Ptr Open() const {
        Ptr list;
        EXPECT_EQ(List::Open(m_spCatRegister, list.Out()), S_OK);
        return list;
    }

    static unsigned long IndexOf(const Ptr& list) {
        unsigned long index = kUntouchedCount;
        EXPECT_EQ(list->get_Index(&index), S_OK);
        return index;
    }

    // Takes up to `celt` elements, checking that each is a task-memory block
    // of the whole record (under the sanitizer) before freeing it.
    static Ids Take(const Ptr& list, unsigned long celt, HRESULT expected) {
        Element* elements[4] = {};
        unsigned long fetched = kUntouchedCount;
        EXPECT_EQ(list->Next(celt, elements, &fetched), expected);
        Ids ids;
        for (unsigned long i = 0; i < fetched && i < 4; ++i) {
            ids.push_back(List::IdOf(elements[i]));
            std::memset(elements[i], 0x5A, sizeof(Element));
            COM_TaskMemFree(elements[i]);
        }
        return ids;
    }
};

}  // namespace

using EnumeratorKinds = ::testing::Types<CategoryList, ClassList>;
TYPED_TEST_SUITE(Enumerator, EnumeratorKinds);

TYPED_TEST(Enumerator, NextHandsOutASnapshotInOrderAndSaysWhenItRanShort) {
    auto list = this->OpenThree();
    ASSERT_EQ(TypeParam::Add(this->m_spCatRegister, kClassZ), S_OK);
    unsigned long count = kUntouchedCount;
    EXPECT_EQ(list->get_Count(&count), S_OK);
    EXPECT_EQ(count, 3u);

    // Zero asks for nothing and succeeds.
    auto* untouched = Sentinel<typename TypeParam::Element>();
    unsigned long fetched = kUntouchedCount;
    EXPECT_EQ(list->Next(0, &untouched, &fetched), S_OK);
    EXPECT_EQ(fetched, 0u);
    EXPECT_EQ(untouched, Sentinel<typename TypeParam::Element>());

    EXPECT_EQ(this->Take(list, 2, S_OK), (Ids{kCatA, kCatB}));
    EXPECT_EQ(this->Take(list, 2, S_FALSE), Ids{kCatC});
    EXPECT_EQ(this->Take(list, 1, S_FALSE), Ids{});
    EXPECT_EQ(this->IndexOf(list), 3u);

    // A huge count on a short list hands out only what is left.
    ASSERT_EQ(list->set_Index(1), S_OK);
    EXPECT_EQ(this->Take(list, ULONG_MAX, S_FALSE), (Ids{kCatB, kCatC}));

    EXPECT_EQ(list->Next(1, nullptr, &fetched), E_POINTER);
    EXPECT_EQ(list->Next(1, &untouched, nullptr), E_POINTER);
    EXPECT_EQ(list->get_Index(nullptr), E_POINTER);
}

TYPED_TEST(Enumerator, CursorNeverStandsOnTheEnd) {
    auto list = this->OpenThree();
    ASSERT_EQ(list->set_Index(1), S_OK);
    EXPECT_EQ(list->Skip(2), S_FALSE);
    EXPECT_EQ(list->Skip(ULONG_MAX), S_FALSE);
    EXPECT_EQ(list->Skip(ULONG_MAX - 1), S_FALSE);
    EXPECT_EQ(list->set_Index(3), S_FALSE);
    EXPECT_EQ(list->set_Index(ULONG_MAX), S_FALSE);
    EXPECT_EQ(this->IndexOf(list), 1u);

    EXPECT_EQ(list->Skip(1), S_OK);
    EXPECT_EQ(this->IndexOf(list), 2u);
    EXPECT_EQ(list->Reset(), S_OK);
    EXPECT_EQ(this->IndexOf(list), 0u);
    EXPECT_EQ(list->SkipEnd(), S_OK);
    EXPECT_EQ(this->IndexOf(list), 2u);
    EXPECT_EQ(this->Take(list, 1, S_OK), Ids{kCatC});
}

TYPED_TEST(Enumerator, EmptyListLeavesFetchedAloneAndSkipEndWraps) {
    auto list = this->Open();
    auto* element = Sentinel<typename TypeParam::Element>();
    unsigned long fetched = kUntouchedCount;
    EXPECT_EQ(list->Next(1, &element, &fetched), S_FALSE);
    EXPECT_EQ(fetched, kUntouchedCount);
    EXPECT_EQ(element, Sentinel<typename TypeParam::Element>());
    EXPECT_EQ(list->set_Index(0), S_FALSE);
    EXPECT_EQ(list->Skip(0), S_FALSE);
    EXPECT_EQ(list->SkipEnd(), S_OK);
    EXPECT_EQ(this->IndexOf(list), ULONG_MAX);
    EXPECT_EQ(list->Next(1, &element, &fetched), S_FALSE);
    EXPECT_EQ(fetched, kUntouchedCount);
}

TYPED_TEST(Enumerator, CloneKeepsThePositionAndOutlivesItsSource) {
    auto list = this->OpenThree();
    ASSERT_EQ(this->Take(list, 1, S_OK), Ids{kCatA});
    typename TypeParam::Ptr clone;
    ASSERT_EQ(list->Clone(clone.Out()), S_OK);
    EXPECT_EQ(RefCount(clone), 1u);
    EXPECT_EQ(this->Take(clone, 1, S_OK), Ids{kCatB});
    EXPECT_EQ(this->IndexOf(list), 1u);

    // The names are shared: the clone still reads them after its source is
    // gone, and each is freed once.
    list.Reset();
    EXPECT_EQ(this->Take(clone, 1, S_OK), Ids{kCatC});
    ASSERT_EQ(clone->Reset(), S_OK);
    EXPECT_EQ(this->Take(clone, 1, S_OK), Ids{kCatA});
}

TYPED_TEST(Enumerator, NextStopsAtANameThatIsNotAnIdentifier) {
    ASSERT_EQ(TypeParam::Add(this->m_spCatRegister, kCatA), S_OK);
    RegistryPtr registry = Registry();
    ASSERT_EQ(registry->Open(1, TypeParam::ParentKey().c_str()), S_OK);
    ASSERT_EQ(registry->CreateKey(L"NotAnIdentifier", 0), S_OK);
    registry->Close();
    ASSERT_EQ(TypeParam::Add(this->m_spCatRegister, kCatC), S_OK);
    auto list = this->Open();

    // What came before the bad name is handed out and counted.
    EXPECT_EQ(this->Take(list, 3, E_INVALIDARG), Ids{kCatA});
    EXPECT_EQ(this->IndexOf(list), 1u);
    ASSERT_EQ(list->Skip(1), S_OK);
    EXPECT_EQ(this->Take(list, 1, S_OK), Ids{kCatC});
}

// --- Self-registration of a component that declares categories ---------------

namespace {

class CategoryRegistration : public CategoryTest {
protected:
    void SetUp() override {
        CategoryTest::SetUp();
        m_hLibrary = LoadComponent(COMPONENT_testcategories);
        ASSERT_NE(m_hLibrary, nullptr);
    }

    HRESULT Call(const char* entry) const { return CallEntry(m_hLibrary, entry); }

    // Another installation of the class is on record.
    static void AddInstallation(const COM_GUID& clsid) {
        RegistryPtr registry = Registry();
        ASSERT_EQ(registry->Open(1, (L"CLSID\\" + TextOf(clsid) + L"\\InstallCount").c_str()),
                  S_OK);
        ASSERT_EQ(registry->SetValueDWORD(L"", 2), S_OK);
        registry->Close();
    }

    static bool IsRegistered(const COM_GUID& clsid) {
        RegistryPtr registry = Registry();
        const bool found = SUCCEEDED(registry->Open(1, (L"CLSID\\" + TextOf(clsid)).c_str()));
        registry->Close();
        return found;
    }

    void* m_hLibrary = nullptr;
};

}  // namespace

TEST_F(CategoryRegistration, EachClassJoinsItsDeclaredCategoriesUntilItIsRemoved) {
    ASSERT_EQ(Call("DllRegisterServer"), S_OK);
    EXPECT_EQ(ClassesOf(CATID_TestTools), Ids{CLSID_CatWidget});
    EXPECT_EQ(ClassesOf(CATID_TestViewers), (Ids{CLSID_CatWidget, CLSID_CatViewer}));
    // Membership alone gives a category no description.
    EXPECT_EQ(Description(CATID_TestTools),
              L"failed " + std::to_wstring(static_cast<unsigned>(REGDB_E_INVALIDVALUE)));

    ASSERT_EQ(Call("DllUnregisterServer"), S_OK);
    EXPECT_FALSE(IsRegistered(CLSID_CatWidget));
    EXPECT_EQ(ClassesOf(CATID_TestTools), Ids{});
    EXPECT_EQ(ClassesOf(CATID_TestViewers), Ids{});
}

TEST_F(CategoryRegistration, ClassStillInstalledKeepsItsAndEveryLaterClassesMemberships) {
    ASSERT_EQ(Call("DllRegisterServer"), S_OK);
    AddInstallation(CLSID_CatWidget);
    ASSERT_EQ(Call("DllUnregisterServer"), S_OK);

    EXPECT_TRUE(IsRegistered(CLSID_CatWidget));
    EXPECT_FALSE(IsRegistered(CLSID_CatViewer));
    // The viewer itself was removed, yet its membership stays because the
    // widget stands before it in the map.
    EXPECT_EQ(ClassesOf(CATID_TestTools), Ids{CLSID_CatWidget});
    EXPECT_EQ(ClassesOf(CATID_TestViewers), (Ids{CLSID_CatWidget, CLSID_CatViewer}));
}

TEST_F(CategoryRegistration, ClassStillInstalledLetsEarlierClassesLeave) {
    ASSERT_EQ(Call("DllRegisterServer"), S_OK);
    AddInstallation(CLSID_CatViewer);
    ASSERT_EQ(Call("DllUnregisterServer"), S_OK);

    EXPECT_FALSE(IsRegistered(CLSID_CatWidget));
    EXPECT_TRUE(IsRegistered(CLSID_CatViewer));
    EXPECT_EQ(ClassesOf(CATID_TestTools), Ids{});
    EXPECT_EQ(ClassesOf(CATID_TestViewers), Ids{CLSID_CatViewer});
}
