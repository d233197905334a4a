// The one-line descriptions that the exception classes write to a stream.
#include <gtest/gtest.h>

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

// Each class's label and what follows it: the COM code in bare lower-case
// hex, the system's text or, without one, the number again in decimal.
TEST(Exceptions, EachClassWritesItsLabelAndDetail) {
    const std::pair<std::wstring, std::wstring> cases[] = {
        {Describe(CVXMemoryException()), L"Memory Exception"},
        {Describe(CVXRangeException()), L"Range Exception"},
        {Describe(CVXComException(E_FAIL)), L"COM Exception80004005"},
        {Describe(CVXComException(0x8067000A)), L"COM Exception8067000a"},
        {Describe(CVXComException(S_OK)), L"COM Exception0"},
        {Describe(CVXSystemException(2)), L"System Exception2: " + SystemText(2)},
        {Describe(CVXSystemException(-1)), L"System Exception-1: Unknown Exception-1"},
    };
    for (const auto& c : cases) EXPECT_EQ(c.first, c.second);
    EXPECT_EQ(CVXSystemException(2).SystemError(), 2);
    EXPECT_STREQ(CVXException::s_rgModule, "");
}

// The operator dispatches through the base and returns the stream; the COM
// code leaves the stream in hex with its case flag kept, and the system
// number in the label follows the stream's base while the text's is decimal.
TEST(Exceptions, TheStreamOperatorChainsAndFollowsTheStreamsFlags) {
    std::wostringstream out;
    try {
        throw CVXRangeException();
    } catch (const CVXException& e) {
        EXPECT_EQ(&(out << e), &out);
    }
    out << L'|' << CVXComException(E_FAIL) << 255 << L' ' << std::uppercase << CVXComException(0x8067000A)
        << L'|' << CVXSystemException(4711);
    EXPECT_EQ(out.str(), L"Range Exception|COM Exception80004005ff COM Exception8067000A|"
                         L"System Exception1267: Unknown Exception4711");
}
