// Component categories as components see them: the category manager, its
// two enumerators, and category membership written by self-registration.
#include <gtest/gtest.h>

#include <climits>
#include <cstring>

#include "testComponents.h"
#include "testSupport.h"

namespace {

using CatRegisterPtr = utlAutoIf<COM_ICatRegister, &COM_IID_ICatRegister>;
using CatInformationPtr = utlAutoIf<COM_ICatInformation, &COM_IID_ICatInformation>;
using EnumCategoriesPtr = utlAutoIf<COM_IEnumCATEGORYINFO, &COM_IID_IEnumCATEGORYINFO>;
using EnumClassesPtr = utlAutoIf<COM_IEnumCLSID, &COM_IID_IEnumCLSID>;
using Ids = std::vector<COM_GUID>;

// Used as categories and as classes; their key names sort in this order.
const COM_GUID kA = {0xCA7000A1, 0x0001, 0x4000, {0x80, 0, 0, 0, 0, 0, 0, 0xA1}};
const COM_GUID kB = {0xCA7000B2, 0x0002, 0x4000, {0x80, 0, 0, 0, 0, 0, 0, 0xB2}};
const COM_GUID kC = {0xCA7000C3, 0x0003, 0x4000, {0x80, 0, 0, 0, 0, 0, 0, 0xC3}};
const unsigned long kUnwrittenCount = 0xdeadbeef;

COM_GUID IdOf(const COM_GUID* id) { return *id; }
COM_GUID IdOf(const COM_CATEGORYINFO* info) { return info->catid; }
template <class Enum, class Element>
Element ElementOf(HRESULT (Enum::*)(unsigned long, Element**, unsigned long*));

// Takes up to `celt` elements, four at most. Overwriting each whole record
// before freeing it shows, under the sanitizer, that the block is that large.
template <class Enum>
Ids Next(Enum* list, unsigned long celt, HRESULT expected) {
    decltype(ElementOf(&Enum::Next))* elements[4] = {};
    unsigned long fetched = kUnwrittenCount;
    EXPECT_EQ(list->Next(celt, elements, &fetched), expected);
    Ids ids;
    for (auto* element : elements) {
        if (!element) break;
        ids.push_back(IdOf(element));
        std::memset(element, 0x5A, sizeof *element);
        COM_TaskMemFree(element);
    }
    EXPECT_EQ(fetched == kUnwrittenCount ? 0 : fetched, ids.size());
    return ids;
}

template <class Enum>
unsigned long IndexOf(Enum* list) {
    unsigned long index = kUnwrittenCount;
    EXPECT_EQ(list->get_Index(&index), S_OK);
    return index;
}

class CategoryManager : public ComponentTest {
protected:
    void SetUp() override {
        ComponentTest::SetUp();
        ASSERT_EQ(m_spCat.CreateInstance(COM_CLSID_CategoryManager), S_OK);
    }

    Ids ClassesOf(const COM_GUID& catid) const {
        EnumClassesPtr classes;
        EXPECT_EQ(m_spCat->EnumClassesOfCategory(catid, classes.Out()), S_OK);
        return classes.IsNull() ? Ids{} : Next(classes.Get(), 4, S_FALSE);
    }

    // Adds the ids as categories, then lists the categories.
    EnumCategoriesPtr Open(const Ids& ids = {kA, kB, kC}) {
        for (const COM_GUID& id : ids) EXPECT_EQ(m_spCat->RegisterCategory(id, L"listed"), S_OK);
        EnumCategoriesPtr list;
        EXPECT_EQ(m_spCat->EnumCategories(list.Out()), S_OK);
        return list;
    }

    CatRegisterPtr m_spCat;
};

}  // namespace

TEST_F(CategoryManager, InterfacesShareOneCountAndTheManagerAndEnumeratorsHoldTheModule) {
    CatInformationPtr information;
    ASSERT_EQ(information.QueryFrom(m_spCat), S_OK);
    EXPECT_EQ(RefCount(information), 2u);
    information.Reset();
    EXPECT_EQ(CanUnloadNow(), S_FALSE);
    EnumCategoriesPtr categories;
    ASSERT_EQ(m_spCat->EnumCategories(categories.Out()), S_OK);
    m_spCat.Reset();
    EXPECT_EQ(CanUnloadNow(), S_FALSE);
    categories.Reset();
    EXPECT_EQ(CanUnloadNow(), S_OK);
}

TEST_F(CategoryManager, MembershipsAndDescriptionsFollowTheRegistryAndMissingKeysGiveItsCodes) {
    EXPECT_EQ(m_spCat->GetCategoryDescription(kA, nullptr), E_POINTER);
    EXPECT_EQ(m_spCat->UnRegisterCategory(kA), REGDB_E_WRITEREGDB);
    EXPECT_EQ(m_spCat->UnRegisterClassInCategory(kA, kB), REGDB_E_KEYMISSING);
    wchar_t* text = nullptr;
    EXPECT_EQ(m_spCat->GetCategoryDescription(kA, &text), REGDB_E_KEYMISSING);
    // A class joins a category before it is registered.
    for (const COM_GUID& id : {kB, kC}) ASSERT_EQ(m_spCat->RegisterClassInCategory(kA, id), S_OK);
    EXPECT_EQ(m_spCat->UnRegisterClassInCategory(kA, kA), REGDB_E_WRITEREGDB);
    text = Unwritten<wchar_t>();
    EXPECT_EQ(m_spCat->GetCategoryDescription(kA, &text), REGDB_E_INVALIDVALUE);
    EXPECT_EQ(text, Unwritten<wchar_t>());
    // Registering it twice replaces the description and keeps the members.
    ASSERT_EQ(m_spCat->RegisterCategory(kA, L"Tools"), S_OK);
    ASSERT_EQ(m_spCat->RegisterCategory(kA, L"Instruments"), S_OK);
    ASSERT_EQ(m_spCat->GetCategoryDescription(kA, &text), S_OK);
    EXPECT_EQ(Take(text), L"Instruments");
    ASSERT_EQ(m_spCat->UnRegisterClassInCategory(kA, kB), S_OK);
    EXPECT_EQ(ClassesOf(kA), Ids{kC});
    // Its remaining member goes with it.
    ASSERT_EQ(m_spCat->UnRegisterCategory(kA), S_OK);
    COM_IEnumCLSID* classes = Unwritten<COM_IEnumCLSID>();
    EXPECT_EQ(m_spCat->EnumClassesOfCategory(kA, &classes), REGDB_E_KEYMISSING);
    EXPECT_EQ(classes, Unwritten<COM_IEnumCLSID>());
}

TEST_F(CategoryManager, RecordsHoldTheCurrentDescriptionCutToFitAndFailAtOneWithout) {
    const std::wstring longer = std::wstring(255, L'l') + L"-and-then-some";
    ASSERT_EQ(m_spCat->RegisterCategory(kA, L"Before"), S_OK);
    ASSERT_EQ(m_spCat->RegisterCategory(kB, longer.c_str()), S_OK);
    ASSERT_EQ(m_spCat->RegisterClassInCategory(kC, kA), S_OK);
    auto categories = Open({});
    // Descriptions are read when a record is made, not when the list is.
    ASSERT_EQ(m_spCat->RegisterCategory(kA, L"After"), S_OK);

    COM_CATEGORYINFO* records[3] = {nullptr, nullptr, Unwritten<COM_CATEGORYINFO>()};
    unsigned long fetched = kUnwrittenCount;
    EXPECT_EQ(categories->Next(3, records, &fetched), REGDB_E_INVALIDVALUE);
    ASSERT_EQ(fetched, 2u);
    EXPECT_EQ(std::wstring(records[0]->szDescription), L"After");
    EXPECT_EQ(std::wstring(records[1]->szDescription), longer.substr(0, 255));
    EXPECT_EQ(records[2], Unwritten<COM_CATEGORYINFO>());
    for (int i : {0, 1}) COM_TaskMemFree(records[i]);
}

// Both enumerators share their cursor: the category list stands for both.
TEST_F(CategoryManager, NextAndTheCursorWalkASnapshotAndClonesKeepThePosition) {
    auto list = Open();
    Open({COM_CLSID_Registry});  // added after the snapshot
    unsigned long count = kUnwrittenCount;
    EXPECT_EQ(list->get_Count(&count), S_OK);
    EXPECT_EQ(count, 3u);

    EXPECT_EQ(Next(list.Get(), 0, S_OK), Ids{}) << "zero asks for nothing";
    EXPECT_EQ(Next(list.Get(), 2, S_OK), (Ids{kA, kB}));
    EXPECT_EQ(Next(list.Get(), 2, S_FALSE), Ids{kC});
    EXPECT_EQ(Next(list.Get(), 1, S_FALSE), Ids{});
    EXPECT_EQ(IndexOf(list.Get()), 3u);
    // A huge count on a short list hands out only what is left.
    ASSERT_EQ(list->set_Index(1), S_OK);
    EXPECT_EQ(Next(list.Get(), ULONG_MAX, S_FALSE), (Ids{kB, kC}));

    // The cursor never stands on the end.
    ASSERT_EQ(list->set_Index(1), S_OK);
    for (unsigned long n : {2ul, ULONG_MAX, ULONG_MAX - 1}) EXPECT_EQ(list->Skip(n), S_FALSE);
    EXPECT_EQ(list->set_Index(3), S_FALSE);
    EXPECT_EQ(list->set_Index(ULONG_MAX), S_FALSE);
    EXPECT_EQ(IndexOf(list.Get()), 1u);
    EXPECT_EQ(list->Skip(1), S_OK);
    EXPECT_EQ(IndexOf(list.Get()), 2u);
    EXPECT_EQ(list->Reset(), S_OK);
    EXPECT_EQ(IndexOf(list.Get()), 0u);
    EXPECT_EQ(list->SkipEnd(), S_OK);
    EXPECT_EQ(Next(list.Get(), 1, S_OK), Ids{kC});

    // A clone still reads the names after its source is gone; each is freed
    // once.
    ASSERT_EQ(list->Reset(), S_OK);
    ASSERT_EQ(Next(list.Get(), 1, S_OK), Ids{kA});
    EnumCategoriesPtr clone;
    ASSERT_EQ(list->Clone(clone.Out()), S_OK);
    EXPECT_EQ(RefCount(clone), 1u);
    EXPECT_EQ(Next(clone.Get(), 1, S_OK), Ids{kB});
    EXPECT_EQ(IndexOf(list.Get()), 1u);
    list.Reset();
    EXPECT_EQ(Next(clone.Get(), 1, S_OK), Ids{kC});
}

TEST_F(CategoryManager, EmptyListLeavesFetchedAloneAndBothListsStopAtANameThatIsNotAnIdentifier) {
    auto empty = Open({});
    COM_CATEGORYINFO* element = Unwritten<COM_CATEGORYINFO>();
    unsigned long fetched = kUnwrittenCount;
    EXPECT_EQ(empty->Skip(0), S_FALSE);
    EXPECT_EQ(empty->SkipEnd(), S_OK);
    EXPECT_EQ(IndexOf(empty.Get()), ULONG_MAX);
    EXPECT_EQ(empty->Next(1, &element, &fetched), S_FALSE);
    EXPECT_EQ(fetched, kUnwrittenCount);
    EXPECT_EQ(element, Unwritten<COM_CATEGORYINFO>());

    // kA, the bad name and kC, in the category list and in kA's class list.
    ASSERT_EQ(m_spCat->RegisterCategory(kA, L"listed"), S_OK);
    ASSERT_EQ(m_spCat->RegisterClassInCategory(kA, kA), S_OK);
    RegistryPtr registry = Registry();
    for (const std::wstring& parent :
         {std::wstring(L"ComponentCategories"), L"ComponentCategories\\" + TextOf(kA)}) {
        ASSERT_EQ(registry->Open(1, parent.c_str()), S_OK);
        ASSERT_EQ(registry->CreateKey(L"NotAnIdentifier", 0), S_OK);
    }
    ASSERT_EQ(m_spCat->RegisterClassInCategory(kA, kC), S_OK);
    EnumClassesPtr classes;
    ASSERT_EQ(m_spCat->EnumClassesOfCategory(kA, classes.Out()), S_OK);
    auto stopsAtTheBadName = [](auto* list) {
        // What came before the bad name is handed out and counted.
        EXPECT_EQ(Next(list, 3, E_INVALIDARG), Ids{kA});
        EXPECT_EQ(IndexOf(list), 1u);
        ASSERT_EQ(list->Skip(1), S_OK);
        EXPECT_EQ(Next(list, 1, S_OK), Ids{kC});
    };
    stopsAtTheBadName(Open({kC}).Get());
    stopsAtTheBadName(classes.Get());
}

// Self-registration of a component whose widget class stands before its
// viewer class in its map; both declare categories. Unregistered while one
// class is still installed elsewhere (InstallCount 2), that class answers
// S_FALSE and keeps its memberships, and so does every class after it,
// though the viewer's own key goes.
TEST_F(CategoryManager, SelfRegistrationJoinsDeclaredCategoriesUntilTheClassIsRemoved) {
    const struct {
        const COM_GUID* kept;
        Ids tools, viewers;
    } cases[] = {{nullptr, {}, {}},
                 {&CLSID_CatWidget, {CLSID_CatWidget}, {CLSID_CatWidget, CLSID_CatViewer}},
                 {&CLSID_CatViewer, {}, {CLSID_CatViewer}}};
    void* library = LoadComponent(COMPONENT_testcategories);
    RegistryPtr registry = Registry();
    for (const auto& c : cases) {
        SCOPED_TRACE(c.kept ? TextOf(*c.kept) : L"none kept");
        ASSERT_EQ(CallEntry(library, "DllRegisterServer"), S_OK);
        if (c.kept) {
            const std::wstring key = L"CLSID\\" + TextOf(*c.kept) + L"\\InstallCount";
            ASSERT_EQ(registry->Open(1, key.c_str()), S_OK);
            ASSERT_EQ(registry->SetValueDWORD(L"", 2), S_OK);
        }
        ASSERT_EQ(CallEntry(library, "DllUnregisterServer"), S_OK);
        EXPECT_EQ(ClassesOf(CATID_TestTools), c.tools);
        EXPECT_EQ(ClassesOf(CATID_TestViewers), c.viewers);
        // What stayed goes, for the next round.
        ASSERT_EQ(registry->Open(1, L""), S_OK);
        for (const wchar_t* key : {L"CLSID", L"ComponentCategories"}) registry->DeleteKey(key);
    }
}
