// The registry document in memory: tree operations, the writer's exact
// bytes, and the name enumerators.
#include <gtest/gtest.h>

#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include <xercesc/dom/DOM.hpp>
#include <xercesc/framework/MemBufInputSource.hpp>
#include <xercesc/parsers/XercesDOMParser.hpp>
#include <xercesc/util/PlatformUtils.hpp>
#include <xercesc/util/XMLString.hpp>

#include "registry/regRegistry.h"
#include "unix/regErrorHandler.h"
#include "unix/regHelper.h"

using xercesc::DOMNode;

namespace {

typedef utlAutoIf<COM_IEnumBSTR, &COM_IID_IEnumBSTR> EnumPtr;
typedef std::vector<std::wstring> Names;

DOMNode* const kUntouched = reinterpret_cast<DOMNode*>(0xdeadbeef);
const std::wstring kNull = L"(null)";
const std::string kDeclaration = "<?xml version='1.0' encoding='ISO-8859-1' ?>\n";

std::string Written(const DOMNode* node) {
    std::ostringstream out;
    out << node;
    return out.str();
}

std::string Transcoded(const XMLCh* text) {
    char* bytes = xercesc::XMLString::transcode(text);
    std::string out(bytes);
    xercesc::XMLString::release(&bytes);
    return out;
}

// The rest of an enumerator's names, a null slot as kNull.
Names Remaining(COM_IEnumBSTR* e) {
    Names names;
    wchar_t* name = nullptr;
    unsigned long fetched = 0;
    while (e->Next(1, &name, &fetched) == S_OK) {
        names.push_back(name ? name : kNull);
        COM_SysFreeString(name);
    }
    return names;
}

unsigned long IndexOf(COM_IEnumBSTR* e) {
    unsigned long index = 0xdeadbeef;
    EXPECT_EQ(e->get_Index(&index), S_OK);
    return index;
}

class RegistryDocument : public ::testing::Test {
protected:
    static void SetUpTestSuite() { xercesc::XMLPlatformUtils::Initialize(); }
    static void TearDownTestSuite() { xercesc::XMLPlatformUtils::Terminate(); }
    void TearDown() override { m_parser.reset(); }

    // Parses the text; its root element is where paths start.
    xercesc::DOMDocument* Load(const std::string& text) {
        m_parser.reset(new xercesc::XercesDOMParser);
        m_parser->setErrorHandler(&m_handler);
        xercesc::MemBufInputSource source(reinterpret_cast<const XMLByte*>(text.data()),
                                          text.size(), "REGISTRY", false);
        m_parser->parse(source);
        m_doc = m_parser->getDocument();
        m_root = m_doc->getDocumentElement();
        return m_doc;
    }

    std::string Tree() const { return Written(m_root); }

    DOMNode* Key(const XMLCh* path) const {
        DOMNode* found = nullptr;
        return ResolveKey(m_root, path, &found) ? found : nullptr;
    }

    Names Enumerated(const std::string& text, int kind) {
        Load(text);
        EnumPtr e;
        EXPECT_EQ(CreateEnumerator(m_root, kind, e.Out()), S_OK);
        unsigned long count = 0;
        EXPECT_EQ(e->get_Count(&count), S_OK);
        Names names = Remaining(e);
        EXPECT_EQ(names.size(), count);
        return names;
    }

    std::unique_ptr<xercesc::XercesDOMParser> m_parser;
    DOMErrorHandler m_handler;
    xercesc::DOMDocument* m_doc = nullptr;
    DOMNode* m_root = nullptr;
};

TEST_F(RegistryDocument, KeyNamesAreEscapedAndOnlyLegalElementNamesCreatable) {
    EXPECT_EQ(EscapeKey(L"My Key\U0001F600"), RegString(u"My_Key\uF600"));
    EXPECT_EQ(NarrowTo16(L"a b"), RegString(u"a b"));
    EXPECT_TRUE(IsCreatablePath(u"CLSID\\_0123ABCD-ABCD-abcd-0123-456789ABCDEF_\\a.b-c"));
    for (const XMLCh* path : {u"", u"{x}", u"1a", u"A\\", u"\\A", u"A\\\\B", u"c\u0001"})
        EXPECT_FALSE(IsCreatablePath(path));
    EXPECT_FALSE(IsStorableText(u"bell\u0007"));
    EXPECT_TRUE(IsStorableText(u"\t\n\r<&>\u00e9"));
}

TEST_F(RegistryDocument, PathsMatchTheFirstChildOfAnyTypeAndEmptyPiecesNothing) {
    Load("<r>text<A n='1'><B/></A><A n='2'/></r>");
    DOMNode* found = kUntouched;
    ASSERT_EQ(ResolveKey(m_root, u"A\\B", &found), 1);
    EXPECT_EQ(RegString(found->getNodeName()), u"B");
    ASSERT_EQ(FindKey(m_root, u"#text", &found), 1);
    EXPECT_EQ(found->getNodeType(), DOMNode::TEXT_NODE);
    for (const XMLCh* path : {u"", u"A\\", u"\\A", u"A\\\\B", u"a", u"r", u"A\\B\\C"}) {
        found = kUntouched;
        EXPECT_EQ(ResolveKey(m_root, path, &found), 0);
        EXPECT_EQ(found, kUntouched);
    }
}

TEST_F(RegistryDocument, CreateKeyMakesEachMissingLevelOnceAndLeavesBadNamesToTheDom) {
    Load("<r/>");
    DOMNode* created = nullptr;
    ASSERT_EQ(CreateKey(m_doc, m_root, u"A\\B\\C", &created), 1);
    DOMNode* again = nullptr;
    EXPECT_EQ(CreateKey(m_doc, m_root, u"A\\B\\C", &again), 1);
    EXPECT_EQ(again, created);
    EXPECT_EQ(CreateKey(m_doc, m_root, u"A\\D", &again), 1);
    EXPECT_EQ(Tree(), "<r><A><B><C/></B><D/></A></r>");

    created = kUntouched;
    EXPECT_THROW(CreateKey(m_doc, m_root, u"{x}", &created), xercesc::DOMException);
    EXPECT_EQ(created, kUntouched);
}

TEST_F(RegistryDocument, DeleteKeyTakesTheWholeSubtreeAndAMissChangesNothing) {
    Load("<r><A><B><item name='v' type='string' value='1'/></B></A><C/></r>");
    EXPECT_EQ(DeleteKey(m_root, u"C\\X"), 0);
    EXPECT_EQ(DeleteKey(m_root, u""), 0);
    EXPECT_EQ(DeleteKey(m_root, u"A"), 1);
    EXPECT_EQ(Tree(), "<r><C/></r>");
}

TEST_F(RegistryDocument, ValuesAreAppendedThenReplacedWhereTheyStand) {
    Load("<r><item name='a' type='string' value='1' extra='e'/><S/></r>");
    EXPECT_EQ(SetValue(m_doc, m_root, u"b", u"string", u"2"), 1);
    EXPECT_EQ(SetValue(m_doc, m_root, u"a", u"dword", u"9"), 1);
    EXPECT_EQ(Tree(),
              "<r><item name = \"a\" type = \"dword\" value = \"9\"/><S/>"
              "<item name = \"b\" type = \"string\" value = \"2\"/></r>");
    RegString type, value;
    ASSERT_EQ(GetValue(m_root, u"a", type, value), 1);
    EXPECT_EQ(type + u"=" + value, u"dword=9");
    EXPECT_EQ(GetValue(m_root, u"A", type, value), 0);
}

TEST_F(RegistryDocument, ReadingSkipsValuesWithoutExactlyNameTypeAndValue) {
    Load(
        "<r><item name='x' type='string' value='1' extra='e'/><item name='y' value='1' z='2'/>"
        "<item name='x' type='string' value='2'/><item name='x' type='string' value='3'/></r>");
    RegString type, value;
    EXPECT_EQ(GetValue(m_root, u"y", type, value), 0);
    ASSERT_EQ(GetValue(m_root, u"x", type, value), 1);
    EXPECT_EQ(value, u"2");
    // Deletion sees the first x, fourth attribute and all, and only that one.
    EXPECT_EQ(DeleteValue(m_doc, m_root, u"x"), 1);
    ASSERT_EQ(GetValue(m_root, u"x", type, value), 1);
    EXPECT_EQ(value, u"2");
    EXPECT_EQ(DeleteValue(m_doc, m_root, u"none"), 0);
}

TEST_F(RegistryDocument, TheDefaultValueIsAnAttributeReadBackOnlyWhenAlone) {
    Load("<r><K/>text</r>");
    DOMNode* key = Key(u"K");
    EXPECT_EQ(SetValue(m_doc, key, u"", u"dword", u"first"), 1);
    EXPECT_EQ(SetValue(m_doc, key, u"", u"dword", u"second"), 1);
    EXPECT_EQ(Written(key), "<K default = \"second\"/>");
    RegString type, value;
    ASSERT_EQ(GetValue(key, u"", type, value), 1);
    EXPECT_EQ(type + u"=" + value, u"string=second");

    static_cast<xercesc::DOMElement*>(key)->setAttribute(u"other", u"o");
    EXPECT_EQ(GetValue(key, u"", type, value), 0);
    EXPECT_EQ(DeleteValue(m_doc, key, u""), 1);
    EXPECT_EQ(DeleteValue(m_doc, key, u""), 1);
    EXPECT_EQ(Written(key), "<K other = \"o\"/>");

    DOMNode* text = Key(u"#text");
    EXPECT_EQ(GetValue(text, u"", type, value), 0);
    EXPECT_EQ(SetValue(m_doc, text, u"", u"string", u"v"), 0);
    EXPECT_EQ(DeleteValue(m_doc, text, u""), 0);
}

TEST_F(RegistryDocument, TheDefaultDocumentIsWrittenBackOnOneLine) {
    const std::string body =
        "<Software><Quorvane><Version><ApplicationData/><Classes><CLSID/><ComponentCategories/>"
        "<Moniker/></Classes></Version></Quorvane></Software>";
    EXPECT_EQ(std::string(CXMLRegistry::s_rgcDefaultRegistry),
              "<?xml version='1.0' encoding='ISO-8859-1' ?>" + body);
    EXPECT_EQ(Written(Load(CXMLRegistry::s_rgcDefaultRegistry)), kDeclaration + body);
}

TEST_F(RegistryDocument, OnlyAttributeValuesAreEscapedAndTheApostropheNever) {
    Load(
        "<K default='&gt;&apos;'><!--c & d--><![CDATA[<raw>]]><?tool some data?>x &lt; y"
        "<item name='n' type='string' value='&lt;&amp;&quot;'/></K>");
    EXPECT_EQ(Tree(),
              "<K default = \"&gt;'\"><!--c & d-->\n<![CDATA[<raw>]]>\n<?tool some data?>\n"
              "\nx < y\n<item name = \"n\" type = \"string\" value = \"&lt;&amp;&quot;\"/></K>");

    std::ostringstream raw, escaped, bad;
    raw << u"<a & \"b\" 'c'>";
    outputContent(escaped, u"<a & \"b\" 'c'>", true);
    bad << static_cast<const XMLCh*>(nullptr);
    EXPECT_EQ(raw.str(), "<a & \"b\" 'c'>");
    EXPECT_EQ(escaped.str(), "&lt;a &amp; &quot;b&quot; 'c'&gt;");
    EXPECT_TRUE(bad.bad());
    EXPECT_EQ(bad.str(), "");
}

TEST_F(RegistryDocument, NonAsciiTextIsWrittenAsTheTranscoderRendersIt) {
    Load("<K v='&#233;&lt;'>caf&#233; &#8364;</K>");
    EXPECT_EQ(Tree(), "<K v = \"" + Transcoded(u"\u00e9") + "&lt;\">\n" +
                          Transcoded(u"caf\u00e9 \u20ac") + "\n</K>");
}

TEST_F(RegistryDocument, LongTextsAndLargeDocumentsComeOutWhole) {
    const std::string longValue(100000, 'v');
    std::string text = "<r a='" + longValue + "&lt;'>";
    std::string expected = "<r a = \"" + longValue + "&lt;\">";
    for (int i = 0; i < 5000; ++i) {
        text += "<key" + std::to_string(i) + " d='x'/>";
        expected += "<key" + std::to_string(i) + " d = \"x\"/>";
    }
    Load(text + "<t>" + longValue + "</t></r>");
    EXPECT_EQ(Tree(), expected + "<t>\n" + longValue + "\n</t></r>");
}

TEST_F(RegistryDocument, ANodeTypeWithoutWrittenFormStopsTheProcessInEveryBuild) {
    Load("<!DOCTYPE r><r a='1'/>");
    const char* message =
        "std::ostream& operator<<\\(std::ostream&, const xercesc_3_2::DOMNode\\*\\): "
        "Assertion `.*' failed";
    EXPECT_DEATH(Written(m_doc), message);
    EXPECT_DEATH(Written(static_cast<xercesc::DOMElement*>(m_root)->getAttributeNode(u"a")),
                 message);
}

TEST_F(RegistryDocument, KeysAreAllElementChildrenAndOtherChildrenCountAsNullSlots) {
    EXPECT_EQ(Enumerated("<k>\n<A/><item name='v' type='string' value='1'/><!--c--><B/></k>", 0),
              (Names{L"A", L"item", L"B", kNull, kNull}));
    EXPECT_EQ(Enumerated("<k/>", 0), Names{});
}

TEST_F(RegistryDocument, ValuesLandInTheSlotOfTheirNameAttributesPosition) {
    EXPECT_EQ(Enumerated("<k><item name='a' type='string' value='1'/>"
                         "<item name='b' type='dword' value='2'/><item name='c' type='x' value=''/>"
                         "<item name='d' type='string'/></k>",
                         1),
              (Names{L"c", kNull, kNull, kNull}));
    // Attributes stand in name order: "a" comes before "name".
    EXPECT_EQ(Enumerated("<k><item a='1' name='v' z='2'/><S/></k>", 1), (Names{kNull, L"v"}));
    EXPECT_EQ(Enumerated("<k><item a='1' name='v' z='2'/></k>", 1), Names{kNull});
}

EnumPtr MakeEnum(std::vector<const wchar_t*> names) {
    wchar_t** items = new wchar_t*[names.size()];
    for (size_t i = 0; i < names.size(); ++i)
        items[i] = COM_SysAllocString(names[i]);
    EnumPtr e;
    EXPECT_EQ(CRegEnumItems::CreateInstance(COM_IID_IEnumBSTR, e.OutVoid(),
                                            static_cast<unsigned int>(names.size()), items, 0),
              S_OK);
    return e;
}

TEST(RegistryEnumItems, NextSaysWhetherItFilledTheRequest) {
    EnumPtr e = MakeEnum({L"a", L"b", L"c"});
    wchar_t* names[3] = {};
    unsigned long fetched = 0xdeadbeef;
    EXPECT_EQ(e->Next(0, names, &fetched), S_OK);
    EXPECT_EQ(fetched, 0u);
    EXPECT_EQ(e->Next(2, names, &fetched), S_OK);
    EXPECT_EQ(fetched, 2u);
    EXPECT_EQ(e->Next(2, names + 2, &fetched), S_FALSE);
    EXPECT_EQ(fetched, 1u);
    EXPECT_STREQ(names[2], L"c");
    for (wchar_t* name : names)
        COM_SysFreeString(name);
    EXPECT_EQ(e->Next(1, nullptr, &fetched), E_POINTER);
    EXPECT_EQ(e->Next(1, names, nullptr), E_POINTER);
    EXPECT_EQ(e->get_Index(nullptr), E_POINTER);
}

TEST(RegistryEnumItems, SetIndexAnswersSFalseWhenItMovesAndSOkAtTheEnd) {
    EnumPtr e = MakeEnum({L"a", L"b"});
    EXPECT_EQ(e->set_Index(1), S_FALSE);
    EXPECT_EQ(Remaining(e), Names{L"b"});
    EXPECT_EQ(e->set_Index(5), S_OK);
    EXPECT_EQ(IndexOf(e), 2u);
}

TEST(RegistryEnumItems, SkipHasNoBoundAndWrapsAt32Bits) {
    EnumPtr e = MakeEnum({L"a", L"b"});
    EXPECT_EQ(e->Skip(5), S_OK);
    EXPECT_EQ(IndexOf(e), 5u);
    EXPECT_EQ(Remaining(e), Names{});
    EXPECT_EQ(e->Skip(0xFFFFFFFCul), S_OK);
    EXPECT_EQ(IndexOf(e), 1u);
    EXPECT_EQ(e->SkipEnd(), S_OK);
    EXPECT_EQ(IndexOf(e), 2u);
    EXPECT_EQ(e->Reset(), S_OK);
    EXPECT_EQ(Remaining(e), (Names{L"a", L"b"}));
}

TEST(RegistryEnumItems, CloneKeepsThePositionAndOwnsCopies) {
    EnumPtr e = MakeEnum({L"a", nullptr, L"c"});
    EXPECT_EQ(e->set_Index(1), S_FALSE);
    EnumPtr clone;
    ASSERT_EQ(e->Clone(clone.Out()), S_OK);
    e.Reset();
    EXPECT_EQ(IndexOf(clone), 1u);
    EXPECT_EQ(Remaining(clone), (Names{kNull, L"c"}));
}

TEST(RegistryEnumItems, HoldsTheModuleWhileAliveAndAnswersOnlyItsInterfaces) {
    const int locks = g_theModule.GetLockCount();
    EnumPtr e = MakeEnum({L"a"});
    EXPECT_EQ(g_theModule.GetLockCount(), locks + 1);
    void* out = reinterpret_cast<void*>(0xdeadbeef);
    EXPECT_EQ(e->QueryInterface(COM_IID_IRegistry, &out), E_NOINTERFACE);
    EXPECT_EQ(out, nullptr);
    EXPECT_EQ(e->QueryInterface(COM_IID_IUnknown, &out), S_OK);
    static_cast<COM_IUnknown*>(out)->Release();
    e.Reset();
    EXPECT_EQ(g_theModule.GetLockCount(), locks);
}

}  // namespace
