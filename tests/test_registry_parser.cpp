// The registry's parser builds, for every document, the very document that
// xerces' own DOM parser builds, and that document takes edits as well.
#include <memory>
#include <sstream>
#include <string>

#include <gtest/gtest.h>
#include <xercesc/dom/DOM.hpp>
#include <xercesc/framework/MemBufInputSource.hpp>
#include <xercesc/sax/HandlerBase.hpp>
#include <xercesc/util/PlatformUtils.hpp>
#include <xercesc/util/XMLUni.hpp>

#include "domDescription.h"
#include "unix/regHelper.h"
#include "unix/regParser.h"

using namespace xercesc;

namespace {

class ParserTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() { XMLPlatformUtils::Initialize(); }
    static void TearDownTestSuite() { XMLPlatformUtils::Terminate(); }
};

struct CParsed {
    std::string description;
    bool failed = false;
};

CParsed Parse(XercesDOMParser& parser, const std::string& text) {
    HandlerBase throwing;
    parser.setErrorHandler(&throwing);
    MemBufInputSource source(reinterpret_cast<const XMLByte*>(text.data()), text.size(), "test", false);
    CParsed parsed;
    try {
        parser.parse(source);
    } catch (const SAXParseException&) {
        parsed.failed = true;
    }
    parsed.description = Described(parser.getDocument());
    return parsed;
}

// With the memory of a small and of a large document alike, and with
// either of xerces' scanners, the second of which leaves its element
// declarations unnumbered.
void ExpectSameDocument(const std::string& text) {
    for (const XMLCh* scanner : {XMLUni::fgIGXMLScanner, XMLUni::fgWFXMLScanner}) {
        XercesDOMParser reference;
        reference.useScanner(scanner);
        const CParsed expected = Parse(reference, text);
        for (bool large : {false, true}) {
            const std::unique_ptr<XercesDOMParser> ours(NewRegistryParser(large));
            ours->useScanner(scanner);
            const CParsed actual = Parse(*ours, text);
            EXPECT_EQ(actual.failed, expected.failed) << text;
            EXPECT_EQ(actual.description, expected.description) << text;
        }
    }
}

std::string Serialized(const DOMNode* node) {
    std::ostringstream out;
    out << node;
    return out.str();
}

}  // namespace

// Documents without a document type are compared by the parser's fuzz target,
// from its seeds on; here what it cannot reach: the second scanner, the
// memory of a large document for small ones, and an external subset.
TEST_F(ParserTest, BuildsWhatXercesBuildsForDocumentsWithADocumentType) {
    ExpectSameDocument("<!DOCTYPE a [<!ENTITY e 'x<b k=\"v\"/>y'><!ATTLIST b d CDATA 'def' id ID #IMPLIED>]>"
                       "<a><b id='i1'/>&e;<c/></a>");
    ExpectSameDocument("<!DOCTYPE a SYSTEM 'missing.dtd'><a/>");
    ExpectSameDocument("<a><b></a>");
}

TEST_F(ParserTest, KeepsEveryElementsOwnNameAmongManyNames) {
    std::string document = "<root>";
    for (int i = 0; i < 3000; ++i) {
        const std::string name = "_" + std::to_string(i % 1700) + "-N";
        document += "<" + name + " default = \"" + std::to_string(i) + "\"><Same/></" + name + ">";
    }
    document += "</root>";
    ExpectSameDocument(document);
}

// Edits go through the document's own methods, which find the links the
// parser made: removing, inserting and freeing must leave a document equal
// to the one xerces' own parser would have given after the same edits.
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
        ASSERT_FALSE(Parse(parser, text).failed);
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
        const std::string actual = Described(document) + Serialized(document);
        if (own)
            EXPECT_EQ(actual, expected) << (own == 2 ? "large" : "small");
        else
            expected = actual;
    }
}
