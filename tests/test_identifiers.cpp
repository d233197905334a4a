// The identifier text form: registry keys written by other components are
// found by comparing these texts. The identifier fuzz target checks the
// written form, its read-back and the refusal of malformed text against its
// own model; here the texts that must be read though no writer makes them.
#include <gtest/gtest.h>

#include "core/coreInternal.h"

namespace {

const COM_GUID kSample = {0x0123ABCD, 0xABCD, 0xABCD, {0x01, 0x23, 0x45, 0x67, 0x89, 0xAB, 0xCD, 0xEF}};
const COM_GUID kSentinel = {0xdeadbeef, 0xdead, 0xbeef, {1, 1, 1, 1, 1, 1, 1, 1}};

}  // namespace

// Any case, anything after the closing underscore, and a character whose low
// byte is a digit (U+0141 reads as 'A').
TEST(IdentifierText, ReadsAnyCaseTrailingTextAndDigitsByTheirLowByte) {
    for (const wchar_t* text : {L"_0123ABCD-ABCD-ABCD-0123-456789ABCDEF_",
                                L"_0123abcd-abcd-abcd-0123-456789abcdef_",
                                L"_0123ABCD-ABCD-abcd-0123-456789ABCDEF_xyz",
                                L"_0123ABCD-ABCD-abcd-0123-456789\u0141BCDEF_"}) {
        COM_GUID id = kSentinel;
        EXPECT_EQ(COM_StringToCLSID(text, &id), S_OK) << text;
        EXPECT_TRUE(id == kSample) << text;
    }
}

// Malformed text is refused in the fuzz target, whose seeds hold one of each
// kind; here null arguments and generation, which is not supported.
TEST(IdentifierText, NullArgumentsAndGenerationAreRejectedAndLeaveTheOutputAlone) {
    COM_GUID id = kSentinel;
    EXPECT_EQ(COM_StringToCLSID(L"_0123ABCD-ABCD-abcd-0123-456789ABCDEF_", nullptr), E_POINTER);
    EXPECT_EQ(COM_StringToCLSID(nullptr, &id), E_POINTER);
    EXPECT_EQ(COM_CLSIDToString(kSample, nullptr), E_POINTER);
    EXPECT_EQ(COM_GenerateCLSID(&id), E_NOTIMPL);
    EXPECT_TRUE(id == kSentinel);
}

TEST(Identifiers, ComparisonCoversAllSixteenBytes) {
    for (size_t i = 0; i < sizeof(COM_GUID); ++i) {
        COM_GUID other = kSample;
        reinterpret_cast<unsigned char*>(&other)[i] ^= 0x80;
        EXPECT_TRUE(kSample != other && !(kSample == other)) << "byte " << i;
    }
}
