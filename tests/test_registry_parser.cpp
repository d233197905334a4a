// The registry's parser builds the very document that xerces' own DOM parser
// builds (its fuzz target compares the two on any bytes, with either of
// xerces' scanners), and that document takes edits as well.
#include <memory>
#include <sstream>
#include <string>

#include <gtest/gtest.h>
#include <xercesc/dom/DOM.hpp>
#include <xercesc/framework/MemBufInputSource.hpp>
#include <xercesc/util/PlatformUtils.hpp>

#include "unix/regHelper.h"
#include "unix/regParser.h"

using namespace xercesc;

namespace {

class ParserTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() { XMLPlatformUtils::Initialize(); }
    static void TearDownTestSuite() { XMLPlatformUtils::Terminate(); }
};

}  // namespace

// Edits go through the document's own methods, which find the links the
// parser made: removing, inserting and freeing must leave a document equal
// to the one xerces' own parser would have given after the same edits. A
// parser whose links differ from xerces' is never used: the runtime checks
// a sample at its first parse and falls back to xerces' own.
TEST_F(ParserTest, DirectlyBuiltDocumentTakesEdits) {
    const std::string text = "<a><b k='1'/><c k='2'><d/></c><e/>tail</a>";
    std::string expected;
    for (int own = 0; own < 3; ++own) {
        XercesDOMParser reference;
        const std::unique_ptr<XercesDOMParser> ours(NewRegistryParser(own == 2));
        XercesDOMParser& parser = own ? *ours : reference;
#ifdef VELTCOM_DIRECT_DOM
        // Against the release it was written for, the direct builder serves.
        ASSERT_NE(dynamic_cast<CRegistryParser*>(ours.get()), nullptr);
#endif
        MemBufInputSource source(reinterpret_cast<const XMLByte*>(text.data()), text.size(), "test", false);
        parser.parse(source);
        ASSERT_EQ(parser.getErrorCount(), 0u);
        DOMDocument* document = parser.getDocument();
        DOMElement* root = document->getDocumentElement();
        DOMNode* c = root->getFirstChild()->getNextSibling();
        root->removeChild(c)->release();
        root->insertBefore(document->createElement(u"f"), root->getFirstChild());
        // Enough new nodes that the document takes more memory for them.
        for (int i = 0; i < 2000; ++i) root->appendChild(document->createElement(u"g"));
        DOMElement* b = static_cast<DOMElement*>(root->getFirstChild()->getNextSibling());
        b->removeAttribute(u"k");
        b->setAttribute(u"m", u"n");
        root->removeChild(root->getLastChild()->getPreviousSibling())->release();
        std::ostringstream actual;
        actual << document;
        if (own)
            EXPECT_EQ(actual.str(), expected) << (own == 2 ? "large" : "small");
        else
            expected = actual.str();
    }
}
