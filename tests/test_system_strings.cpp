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

// Null is a valid empty string. Lengths, prefixes, terminators and contents
// of strings made from random texts and counts, and the refusal of counts far
// beyond 31 bits, are checked by the system-string fuzz target.
TEST(SystemStrings, NullIsEmptyAndThePrefixHoldsTheByteLengthOfEveryCharacterCopied) {
    EXPECT_EQ(COM_SysAllocString(nullptr), nullptr);
    EXPECT_EQ(COM_SysStringLen(nullptr), 0u);
    EXPECT_EQ(COM_SysStringByteLen(nullptr), 0u);
    EXPECT_EQ(COM_SysFreeString(nullptr), 1);
    const wchar_t text[] = {L'a', L'\0', L'b'};
    wchar_t* s = COM_SysAllocStringLen(text, 3);
    ASSERT_NE(s, nullptr);
    EXPECT_EQ(Prefix(s), 12u);
    EXPECT_EQ(std::wmemcmp(s, text, 3), 0);
    COM_SysFreeString(s);
}

// The counts just beyond the largest block, and those whose size wraps.
TEST(SystemStrings, SizesBeyondThirtyOneBitsAreRefused) {
    EXPECT_EQ(COM_SysAllocStringLen(nullptr, 536870909), nullptr);
    EXPECT_EQ(COM_SysAllocStringLen(nullptr, ~0UL / 4 + 1), nullptr);
    EXPECT_EQ(COM_SysAllocStringByteLen(nullptr, 0x7FFFFFF4), nullptr);
    EXPECT_EQ(COM_SysAllocStringByteLen(nullptr, ~0UL - 2), nullptr);
}

// A refused re-allocation leaves the string as it was; a null string is
// re-allocated like any other.
TEST(SystemStrings, ReAllocationRefusesEmptyNullAndOversizedRequests) {
    wchar_t* s = COM_SysAllocString(L"old");
    EXPECT_EQ(COM_SysReAllocStringLen(&s, L"x", ~0UL), 0);
    EXPECT_EQ(COM_SysReAllocString(&s, nullptr), 0);
    EXPECT_EQ(COM_SysReAllocStringLen(&s, L"abc", 0), 0);
    EXPECT_EQ(COM_SysReAllocString(nullptr, L"abc"), 0);
    EXPECT_EQ(std::wcscmp(s, L"old"), 0);
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

    long allocs = -1, frees = -1;  // nothing is ever counted
    EXPECT_EQ(COM_GetSysStats(&allocs, &frees), S_OK);
    EXPECT_EQ(std::make_pair(allocs, frees), std::make_pair(0L, 0L));
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
