// The one-line descriptions that the exception classes write to a stream.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <ios>
#include <sstream>
#include <string>

#include "comBase.h"
#include "comException.h"
#include "testSupport.h"

namespace {

std::wstring Describe(const CVXException& e) {
    std::wostringstream out;
    out << e;
    return out.str();
}

}  // namespace

TEST(Exceptions, MemoryAndRangeWriteTheirLabelAlone) {
    EXPECT_EQ(Describe(CVXMemoryException()), L"Memory Exception");
    EXPECT_EQ(Describe(CVXRangeException()), L"Range Exception");
}

TEST(Exceptions, ComExceptionAppendsTheCodeInBareLowerCaseHex) {
    EXPECT_EQ(Describe(CVXComException(E_FAIL)), L"COM Exception80004005");
    EXPECT_EQ(Describe(CVXComException(0x8067000A)), L"COM Exception8067000a");
    EXPECT_EQ(Describe(CVXComException(S_OK)), L"COM Exception0");
}

TEST(Exceptions, ComExceptionLeavesTheStreamInHexAndKeepsItsCaseFlag) {
    std::wostringstream out;
    out << CVXComException(E_FAIL) << 255 << L' ' << std::uppercase << CVXComException(0x8067000A);
    EXPECT_EQ(out.str(), L"COM Exception80004005ff COM Exception8067000A");
}

TEST(Exceptions, SystemExceptionAppendsTheSystemsText) {
    const CVXSystemException e(2);
    EXPECT_EQ(e.SystemError(), 2);
    EXPECT_EQ(Describe(e), L"System Exception2: " + SystemText(2));
}

TEST(Exceptions, SystemExceptionWithoutSystemTextRepeatsTheNumberInDecimal) {
    EXPECT_EQ(Describe(CVXSystemException(-1)), L"System Exception-1: Unknown Exception-1");
    // The label's number follows the stream's base; the text's is always decimal.
    std::wostringstream out;
    out << std::hex << CVXSystemException(4711);
    EXPECT_EQ(out.str(), L"System Exception1267: Unknown Exception4711");
}

TEST(Exceptions, StreamOperatorDispatchesThroughTheBaseAndReturnsTheStream) {
    std::wostringstream out;
    try {
        throw CVXRangeException();
    } catch (const CVXException& e) {
        std::wostream& result = out << e;
        EXPECT_EQ(&result, &out);
    }
    out << L'|' << CVXMemoryException();
    EXPECT_EQ(out.str(), L"Range Exception|Memory Exception");
}

TEST(Exceptions, RuntimeModuleNameIsEmpty) { EXPECT_STREQ(CVXException::s_rgModule, ""); }
