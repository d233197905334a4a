// System strings and task memory: the block layout is a binary contract that
// components read directly, so the bytes are checked, not only the results.
#include <gtest/gtest.h>

#include <cstring>

#include "core/coreInternal.h"

namespace {

uint64_t Prefix(const wchar_t* s) {
    uint64_t prefix;
    std::memcpy(&prefix, reinterpret_cast<const unsigned char*>(s) - 8, sizeof prefix);
    return prefix;
}

wchar_t* const kUntouched = reinterpret_cast<wchar_t*>(0xdeadbeef);

}  // namespace

// Null is a valid empty string.
TEST(SystemStrings, PrefixHoldsByteLengthAndZeroFollowsTheCharacters) {
    EXPECT_EQ(COM_SysAllocString(nullptr), nullptr);
    EXPECT_EQ(COM_SysStringLen(nullptr), 0u);
    EXPECT_EQ(COM_SysStringByteLen(nullptr), 0u);
    EXPECT_EQ(COM_SysFreeString(nullptr), 1);
    wchar_t* s = COM_SysAllocString(L"abc");
    ASSERT_NE(s, nullptr);
    EXPECT_EQ(Prefix(s), 12u);
    EXPECT_EQ(COM_SysStringLen(s), 3u);
    EXPECT_EQ(COM_SysStringByteLen(s), 12u);
    EXPECT_EQ(s[3], L'\0');
    EXPECT_EQ(std::wmemcmp(s, L"abc", 3), 0);
    EXPECT_EQ(COM_SysFreeString(s), 1);

    wchar_t* empty = COM_SysAllocString(L"");
    ASSERT_NE(empty, nullptr);
    EXPECT_EQ(Prefix(empty), 0u);
    EXPECT_EQ(empty[0], L'\0');
    COM_SysFreeString(empty);
}

TEST(SystemStrings, LengthVariantCopiesEmbeddedZerosAndAcceptsNullSource) {
    const wchar_t text[] = {L'a', L'\0', L'b'};
    wchar_t* s = COM_SysAllocStringLen(text, 3);
    ASSERT_NE(s, nullptr);
    EXPECT_EQ(COM_SysStringLen(s), 3u);
    EXPECT_EQ(s[2], L'b');
    EXPECT_EQ(s[3], L'\0');
    COM_SysFreeString(s);

    wchar_t* blank = COM_SysAllocStringLen(nullptr, 5);
    ASSERT_NE(blank, nullptr);
    EXPECT_EQ(Prefix(blank), 20u);
    EXPECT_EQ(blank[5], L'\0');
    COM_SysFreeString(blank);
}

TEST(SystemStrings, ByteLengthStringHasOneZeroByteAtRoundedEnd) {
    const unsigned char bytes[] = {1, 2, 3, 4, 5, 6};
    wchar_t* s = COM_SysAllocStringByteLen(bytes, 6);
    ASSERT_NE(s, nullptr);
    EXPECT_EQ(Prefix(s), 6u);
    EXPECT_EQ(COM_SysStringByteLen(s), 6u);
    EXPECT_EQ(COM_SysStringLen(s), 1u);
    const unsigned char* payload = reinterpret_cast<const unsigned char*>(s);
    EXPECT_EQ(std::memcmp(payload, bytes, 6), 0);
    EXPECT_EQ(payload[8], 0);
    COM_SysFreeString(s);

    // A multiple of four gets its zero directly after the data.
    const unsigned char four[] = {9, 9, 9, 9};
    wchar_t* t = COM_SysAllocStringByteLen(four, 4);
    ASSERT_NE(t, nullptr);
    EXPECT_EQ(reinterpret_cast<const unsigned char*>(t)[4], 0);
    EXPECT_EQ(COM_SysStringLen(t), 1u);
    COM_SysFreeString(t);
}

TEST(SystemStrings, SizesBeyondThirtyOneBitsAreRefused) {
    EXPECT_EQ(COM_SysAllocStringLen(nullptr, 536870909), nullptr);
    EXPECT_EQ(COM_SysAllocStringLen(nullptr, ~0UL), nullptr);
    EXPECT_EQ(COM_SysAllocStringLen(nullptr, ~0UL / 4 + 1), nullptr);
    EXPECT_EQ(COM_SysAllocStringByteLen(nullptr, 0x7FFFFFF4), nullptr);
    EXPECT_EQ(COM_SysAllocStringByteLen(nullptr, ~0UL), nullptr);
    EXPECT_EQ(COM_SysAllocStringByteLen(nullptr, ~0UL - 2), nullptr);
}

TEST(SystemStrings, ReAllocationRefusesEmptyNullAndOversizedRequests) {
    wchar_t* s = COM_SysAllocString(L"old");
    wchar_t* before = s;
    EXPECT_EQ(COM_SysReAllocStringLen(&s, L"x", ~0UL), 0);
    EXPECT_EQ(COM_SysReAllocString(&s, L""), 0);
    EXPECT_EQ(COM_SysReAllocString(&s, nullptr), 0);
    EXPECT_EQ(COM_SysReAllocStringLen(&s, L"abc", 0), 0);
    EXPECT_EQ(COM_SysReAllocString(nullptr, L"abc"), 0);
    EXPECT_EQ(s, before);
    EXPECT_EQ(std::wcscmp(s, L"old"), 0);

    EXPECT_EQ(COM_SysReAllocString(&s, L"newer"), 1);
    EXPECT_EQ(COM_SysStringLen(s), 5u);
    EXPECT_EQ(std::wcscmp(s, L"newer"), 0);
    COM_SysFreeString(s);

    wchar_t* fromNull = nullptr;
    EXPECT_EQ(COM_SysReAllocStringLen(&fromNull, L"abcdef", 2), 1);
    EXPECT_EQ(COM_SysStringLen(fromNull), 2u);
    EXPECT_EQ(fromNull[2], L'\0');
    COM_SysFreeString(fromNull);
}

TEST(TaskMemory, SuccessIsZeroAndFailureIsOneWithNullStoredAndNothingIsCounted) {
    void* p = kUntouched;
    EXPECT_EQ(COM_TaskMemAlloc(64, &p), 0);
    EXPECT_NE(p, nullptr);
    EXPECT_EQ(COM_TaskMemFree(p), 0);

    p = kUntouched;
    EXPECT_EQ(COM_TaskMemAlloc(~0UL, &p), 1);
    EXPECT_EQ(p, nullptr);
    EXPECT_EQ(COM_TaskMemAlloc(16, nullptr), 1);
    EXPECT_EQ(COM_TaskMemFree(nullptr), 0);

    // The statistics stay at zero whatever is allocated.
    for (int i = 0; i < 10; ++i) COM_SysFreeString(COM_SysAllocString(L"count me"));
    long allocs = -1;
    long frees = -1;
    EXPECT_EQ(COM_GetSysStats(&allocs, &frees), S_OK);
    EXPECT_EQ(allocs, 0);
    EXPECT_EQ(frees, 0);
    EXPECT_EQ(COM_ResetSysStats(), S_OK);
}

// Exactly count characters; a terminator inside the count ends the
// conversion and zeros fill the rest; an invalid sequence throws bad_alloc.
TEST(TextConversion, A2wStrYieldsExactlyCountCharactersOrThrows) {
    EXPECT_EQ(a2wStr("abc", 3, 0), L"abc");
    EXPECT_EQ(a2wStr("abc", 0, 0), L"");
    EXPECT_EQ(a2wStr("abcdef", 2, 0), L"ab");
    EXPECT_EQ(a2wStr("ab", 4, 0), std::wstring(L"ab\0\0", 4));
    ASSERT_NE(setlocale(LC_CTYPE, "C.UTF-8"), nullptr);
    EXPECT_EQ(a2wStr("\xC3\xA9", 2, 0), std::wstring(L"\u00E9\0", 2));
    EXPECT_THROW(a2wStr("\xFF\xFE", 2, 0), std::bad_alloc);
    setlocale(LC_CTYPE, "C");
}

TEST(StatusException, NegativeValuesThrowTheBareInt) {
    EXPECT_NO_THROW(COM_HRESULT_EXCEPTION hr(0));
    EXPECT_NO_THROW(COM_HRESULT_EXCEPTION hr(1));
    try {
        COM_HRESULT_EXCEPTION hr = S_FALSE;
        EXPECT_EQ(static_cast<HRESULT>(hr), S_FALSE);
        hr = E_FAIL;
        FAIL() << "assigning a failure did not throw";
    } catch (int thrown) {
        EXPECT_EQ(thrown, -2147467259);
    }
    EXPECT_THROW(COM_HRESULT_EXCEPTION hr(E_FAIL), int);
}
