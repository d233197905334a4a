// Error-information objects and the process-wide current-error slot.
#include <gtest/gtest.h>

#include <tuple>

#include "core/coreInternal.h"
#include "testSupport.h"

namespace {

using ErrorInfoPtr = utlAutoIf<COM_IErrorInfo, &COM_IID_IErrorInfo>;

COM_IErrorInfo* const kUntouched = Unwritten<COM_IErrorInfo>();

}  // namespace

// A fresh object reads zeros and empty texts; setters copy, and a null or
// empty text keeps the previous one.
TEST(ErrorInfo, FieldsStartEmptyAndSettersCopy) {
    ErrorInfoPtr info;
    ASSERT_EQ(COM_CreateErrorInfo(info.Out()), S_OK);
    int code = 7;
    long line = 7, column = 7;
    wchar_t* location = Unwritten<wchar_t>();
    EXPECT_EQ(info->GetHRESULT(&code), S_OK);
    EXPECT_EQ(info->GetLineInfo(&line, &column), S_OK);
    EXPECT_EQ(info->GetLocation(&location), S_OK);
    EXPECT_EQ(std::make_tuple(code, line, column, Take(location)), std::make_tuple(0, 0L, 0L, std::wstring()));

    wchar_t text[] = L"first", empty[] = L"", where[] = L"JCOM_API:COM_CreateInstance";
    EXPECT_EQ(info->SetDescription(text), S_OK);
    text[0] = L'X';
    EXPECT_EQ(info->SetDescription(empty), S_OK);
    EXPECT_EQ(info->SetDescription(nullptr), S_OK);
    wchar_t* description = Unwritten<wchar_t>();
    EXPECT_EQ(info->GetDescription(&description), S_OK);
    EXPECT_EQ(Take(description), L"first");
    info->SetLocation(where);
    info->SetLineInfo(12, -3);
    info->SetHRESULT(E_FAIL);
    info->GetLocation(&location);
    info->GetLineInfo(&line, &column);
    info->GetHRESULT(&code);
    EXPECT_EQ(std::make_tuple(code, line, column, Take(location)),
              std::make_tuple(E_FAIL, 12L, -3L, std::wstring(where)));
}

// Two interfaces only; each object holds one module lock while alive, and a
// new object asked for an interface it lacks is destroyed again.
TEST(ErrorInfo, AnswersOnlyItsTwoInterfacesAndHoldsOneModuleLock) {
    const int before = g_theModule.GetLockCount();
    COM_IErrorInfo* info = nullptr;
    ASSERT_EQ(COM_CreateErrorInfo(&info), S_OK);
    EXPECT_EQ(g_theModule.GetLockCount(), before + 1);
    void* out = kUntouched;
    EXPECT_EQ(info->QueryInterface(COM_IID_IUnknown, &out), S_OK);
    EXPECT_EQ(out, static_cast<void*>(info));
    EXPECT_EQ(g_theModule.GetLockCount(), before + 1);
    EXPECT_EQ(info->Release(), 1u);
    out = kUntouched;
    EXPECT_EQ(info->QueryInterface(COM_IID_ICreateErrorInfo, &out), E_NOINTERFACE);
    EXPECT_EQ(out, nullptr);
    EXPECT_EQ(info->Release(), 0u);
    EXPECT_EQ(g_theModule.GetLockCount(), before);

    out = kUntouched;
    EXPECT_EQ(CErrorInfo::CreateInstance(COM_IID_IRegistry, &out), E_NOINTERFACE);
    EXPECT_EQ(out, nullptr);
    EXPECT_EQ(g_theModule.GetLockCount(), before);
}

// The slot holds one reference: reading hands out more, setting the object
// it holds changes no count, and clearing, setting null or replacing gives
// the slot's reference back. An empty slot answers S_FALSE and writes nothing.
TEST(CurrentError, TheSlotHoldsOneReference) {
    const int before = g_theModule.GetLockCount();
    COM_IErrorInfo* out = kUntouched;
    EXPECT_EQ(COM_GetErrorInfo(&out), S_FALSE);
    EXPECT_EQ(out, kUntouched);

    ErrorInfoPtr info;
    ASSERT_EQ(COM_CreateErrorInfo(info.Out()), S_OK);
    EXPECT_EQ(COM_SetErrorInfo(info), S_OK);
    EXPECT_EQ(COM_SetErrorInfo(info), S_OK);
    ErrorInfoPtr read;
    EXPECT_EQ(COM_GetErrorInfo(read.Out()), S_OK);
    EXPECT_EQ(read.Get(), info.Get());
    EXPECT_EQ(RefCount(info), 3u);
    read.Reset();

    EXPECT_EQ(COM_ClearErrorInfo(), S_OK);
    EXPECT_EQ(RefCount(info), 1u);
    EXPECT_EQ(COM_GetErrorInfo(&out), S_FALSE);
    COM_SetErrorInfo(info);
    EXPECT_EQ(COM_SetErrorInfo(nullptr), S_OK);
    EXPECT_EQ(RefCount(info), 1u);
    EXPECT_EQ(COM_GetErrorInfo(&out), S_FALSE);
    EXPECT_EQ(out, kUntouched);

    COM_SetErrorInfo(info);
    info.Reset();  // the slot now holds the only reference
    ErrorInfoPtr replacement;
    COM_CreateErrorInfo(replacement.Out());
    COM_SetErrorInfo(replacement);
    EXPECT_EQ(g_theModule.GetLockCount(), before + 1);
    COM_ClearErrorInfo();
}

// Initialize and Uninitialize do nothing in any order; the exit handler is
// never called.
TEST(Lifecycle, InitializeAndUninitializeDoNothingAndNoExitHandlerIsCalled) {
    for (HRESULT hr : {COM_Uninitialize(), COM_Initialize(), COM_Initialize(), COM_Uninitialize(), COM_Uninitialize()})
        EXPECT_EQ(hr, S_OK);
    static bool called = false;
    COM_RegisterExitHandler([] { called = true; }, 1);
    EXPECT_FALSE(called);
}

TEST(SmartPointer, DereferencingNullThrowsWithTheOwnersAddress) {
    ErrorInfoPtr empty;
    try {
        empty->AddRef();
        FAIL() << "no exception";
    } catch (const utlAutoIfBase::XBadPtrException& e) {
        EXPECT_EQ(e.Owner(), static_cast<const void*>(&empty));
    }
}
