// Error-information objects and the process-wide current-error slot.
#include <gtest/gtest.h>

#include <cwchar>

#include "core/coreInternal.h"

namespace {

using ErrorInfoPtr = utlAutoIf<COM_IErrorInfo, &COM_IID_IErrorInfo>;

COM_IErrorInfo* const kUntouched = reinterpret_cast<COM_IErrorInfo*>(0xdeadbeef);

std::wstring Description(COM_IErrorInfo* info) {
    wchar_t* text = nullptr;
    EXPECT_EQ(info->GetDescription(&text), S_OK);
    std::wstring result = text ? std::wstring(text, COM_SysStringLen(text)) : L"<null>";
    COM_SysFreeString(text);
    return result;
}

}  // namespace

TEST(ErrorInfo, FreshObjectReadsZerosAndEmptyTexts) {
    ErrorInfoPtr info;
    ASSERT_EQ(COM_CreateErrorInfo(info.Out()), S_OK);
    int code = 7;
    long line = 7;
    long column = 7;
    EXPECT_EQ(info->GetHRESULT(&code), S_OK);
    EXPECT_EQ(info->GetLineInfo(&line, &column), S_OK);
    EXPECT_EQ(code, 0);
    EXPECT_EQ(line, 0);
    EXPECT_EQ(column, 0);
    wchar_t* location = nullptr;
    EXPECT_EQ(info->GetLocation(&location), S_OK);
    EXPECT_EQ(COM_SysStringLen(location), 0u);
    COM_SysFreeString(location);
}

TEST(ErrorInfo, SettersCopyAndNullOrEmptyKeepsThePreviousText) {
    ErrorInfoPtr info;
    ASSERT_EQ(COM_CreateErrorInfo(info.Out()), S_OK);
    wchar_t text[] = L"first";
    EXPECT_EQ(info->SetDescription(text), S_OK);
    text[0] = L'X';  // the object holds its own copy
    EXPECT_EQ(Description(info), L"first");
    wchar_t empty[] = L"";
    EXPECT_EQ(info->SetDescription(empty), S_OK);
    EXPECT_EQ(info->SetDescription(nullptr), S_OK);
    EXPECT_EQ(Description(info), L"first");

    wchar_t where[] = L"JCOM_API:COM_CreateInstance";
    info->SetLocation(where);
    info->SetLineInfo(12, -3);
    info->SetHRESULT(E_FAIL);
    wchar_t* location = nullptr;
    info->GetLocation(&location);
    EXPECT_EQ(std::wcscmp(location, where), 0);
    COM_SysFreeString(location);
    long line = 0;
    long column = 0;
    int code = 0;
    info->GetLineInfo(&line, &column);
    info->GetHRESULT(&code);
    EXPECT_EQ(line, 12);
    EXPECT_EQ(column, -3);
    EXPECT_EQ(code, E_FAIL);
}

TEST(ErrorInfo, AnswersOnlyItsTwoInterfaces) {
    ErrorInfoPtr info;
    ASSERT_EQ(COM_CreateErrorInfo(info.Out()), S_OK);
    void* out = kUntouched;
    EXPECT_EQ(info->QueryInterface(COM_IID_IUnknown, &out), S_OK);
    EXPECT_EQ(out, static_cast<void*>(info.Get()));
    static_cast<COM_IUnknown*>(out)->Release();
    out = kUntouched;
    EXPECT_EQ(info->QueryInterface(COM_IID_ICreateErrorInfo, &out), E_NOINTERFACE);
    EXPECT_EQ(out, nullptr);
}

TEST(ErrorInfo, ObjectsHoldOneModuleLockWhileAlive) {
    const int before = g_theModule.GetLockCount();
    COM_IErrorInfo* info = nullptr;
    ASSERT_EQ(COM_CreateErrorInfo(&info), S_OK);
    EXPECT_EQ(g_theModule.GetLockCount(), before + 1);
    EXPECT_EQ(info->AddRef(), 2u);
    EXPECT_EQ(g_theModule.GetLockCount(), before + 1);
    EXPECT_EQ(info->Release(), 1u);
    EXPECT_EQ(info->Release(), 0u);
    EXPECT_EQ(g_theModule.GetLockCount(), before);
}

TEST(ErrorInfo, UnservedInterfaceDestroysTheNewObject) {
    const int before = g_theModule.GetLockCount();
    void* out = kUntouched;
    EXPECT_EQ(CErrorInfo::CreateInstance(COM_IID_IRegistry, &out), E_NOINTERFACE);
    EXPECT_EQ(out, nullptr);
    EXPECT_EQ(g_theModule.GetLockCount(), before);
}

TEST(CurrentError, EmptySlotAnswersFalseAndLeavesThePointer) {
    COM_IErrorInfo* out = kUntouched;
    EXPECT_EQ(COM_GetErrorInfo(&out), S_FALSE);
    EXPECT_EQ(out, kUntouched);
}

TEST(CurrentError, ReadingKeepsTheErrorAndHandsOutReferences) {
    ErrorInfoPtr info;
    ASSERT_EQ(COM_CreateErrorInfo(info.Out()), S_OK);
    EXPECT_EQ(COM_SetErrorInfo(info), S_OK);
    // Ours and the slot's.
    EXPECT_EQ(info->AddRef(), 3u);
    info->Release();

    ErrorInfoPtr first;
    ErrorInfoPtr second;
    EXPECT_EQ(COM_GetErrorInfo(first.Out()), S_OK);
    EXPECT_EQ(COM_GetErrorInfo(second.Out()), S_OK);
    EXPECT_EQ(first.Get(), info.Get());
    EXPECT_EQ(second.Get(), info.Get());
    EXPECT_EQ(info->AddRef(), 5u);
    info->Release();

    // Setting the object already held changes no count.
    EXPECT_EQ(COM_SetErrorInfo(info), S_OK);
    EXPECT_EQ(info->AddRef(), 5u);
    info->Release();
}

TEST(CurrentError, ClearingOrSettingNullReleasesTheSlotsReference) {
    ErrorInfoPtr info;
    ASSERT_EQ(COM_CreateErrorInfo(info.Out()), S_OK);
    COM_SetErrorInfo(info);
    EXPECT_EQ(COM_ClearErrorInfo(), S_OK);
    EXPECT_EQ(info->AddRef(), 2u);
    info->Release();
    COM_IErrorInfo* out = kUntouched;
    EXPECT_EQ(COM_GetErrorInfo(&out), S_FALSE);

    COM_SetErrorInfo(info);
    EXPECT_EQ(COM_SetErrorInfo(nullptr), S_OK);
    EXPECT_EQ(info->AddRef(), 2u);
    info->Release();
    EXPECT_EQ(COM_GetErrorInfo(&out), S_FALSE);
    EXPECT_EQ(out, kUntouched);
}

TEST(CurrentError, ReplacingReleasesTheOldError) {
    const int before = g_theModule.GetLockCount();
    COM_IErrorInfo* first = nullptr;
    COM_CreateErrorInfo(&first);
    COM_SetErrorInfo(first);
    first->Release();  // the slot now holds the only reference
    ErrorInfoPtr second;
    COM_CreateErrorInfo(second.Out());
    COM_SetErrorInfo(second);
    EXPECT_EQ(g_theModule.GetLockCount(), before + 1);
    COM_ClearErrorInfo();
}

TEST(Lifecycle, InitializeAndUninitializeDoNothingInAnyOrder) {
    EXPECT_EQ(COM_Uninitialize(), S_OK);
    EXPECT_EQ(COM_Initialize(), S_OK);
    EXPECT_EQ(COM_Initialize(), S_OK);
    EXPECT_EQ(COM_Uninitialize(), S_OK);
    EXPECT_EQ(COM_Uninitialize(), S_OK);
}

namespace {
bool g_handlerCalled = false;
void Handler() { g_handlerCalled = true; }
}  // namespace

TEST(Lifecycle, ExitHandlerIsNeverCalled) {
    COM_RegisterExitHandler(&Handler, 1);
    EXPECT_FALSE(g_handlerCalled);
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
