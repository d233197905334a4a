// The registry document in memory: tree operations, the writer's exact
// bytes, and the name enumerators.
#include <gtest/gtest.h>

#include <memory>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include <xercesc/dom/DOM.hpp>
#include <xercesc/framework/MemBufInputSource.hpp>
#include <xercesc/parsers/XercesDOMParser.hpp>
#include <xercesc/util/PlatformUtils.hpp>

#include "registry/regRegistry.h"
#include "testSupport.h"
#include "unix/regErrorHandler.h"
#include "unix/regHelper.h"
#include "unix/regSaved.h"

using xercesc::DOMNode;

namespace {

typedef utlAutoIf<COM_IEnumBSTR, &COM_IID_IEnumBSTR> EnumPtr;
typedef std::vector<std::wstring> Names;
const std::wstring kNull = L"(null)";

std::string Written(const DOMNode* node) {
    std::ostringstream out;
    out << node;
    return out.str();
}

// The rest of an enumerator's names, a null slot as kNull.
Names Remaining(COM_IEnumBSTR* e) {
    Names names;
    wchar_t* name = nullptr;
    unsigned long fetched = 0;
    while (e->Next(1, &name, &fetched) == S_OK) names.push_back(name ? Take(name) : kNull);
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
    void Load(const std::string& text) {
        m_parser.reset(new xercesc::XercesDOMParser);
        m_parser->setErrorHandler(&m_handler);
        xercesc::MemBufInputSource source(reinterpret_cast<const XMLByte*>(text.data()), text.size(),
                                          "REGISTRY", false);
        m_parser->parse(source);
        m_doc = m_parser->getDocument();
        m_root = m_doc->getDocumentElement();
    }

    std::string Tree() const { return Written(m_root); }

    // Saves as the registry does: true when the bytes are those a fresh write
    // gives. What the image such a save appends shows, fuzz_image checks.
    ::testing::AssertionResult Save() {
        CWritten written;
        if (!WriteDocument(m_doc, RegistryImage::kHeaderSize, written))
            return ::testing::AssertionFailure() << "not written";
        if (written.bytes != Written(m_doc)) return ::testing::AssertionFailure() << "bytes differ";
        return ::testing::AssertionSuccess();
    }

    // The value as "type=value", or "-" on a miss.
    std::u16string Value(const DOMNode* key, const XMLCh* name) const {
        RegString type, value;
        return GetValue(key, name, type, value) ? type + u"=" + value : u"-";
    }

    Names Enumerated(const std::string& text, int kind) {
        Load(text);
        EnumPtr e;
        unsigned int listed = 0;
        wchar_t** items = ListNames(m_root, kind, listed);
        EXPECT_EQ(CRegEnumItems::CreateInstance(COM_IID_IEnumBSTR, e.OutVoid(), listed, items, 0),
                  S_OK);
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

TEST_F(RegistryDocument, PathsMatchTheFirstChildOfAnyTypeAndEmptyPiecesNothing) {
    Load("<r>text<A n='1'><B/></A><A n='2'/></r>");
    DOMNode* const untouched = Unwritten<DOMNode>();
    DOMNode* found = untouched;
    ASSERT_EQ(ResolveKey(m_root, u"A\\B", &found), 1);
    EXPECT_EQ(RegString(found->getNodeName()), u"B");
    ASSERT_EQ(FindKey(m_root, u"#text", &found), 1);
    EXPECT_EQ(found->getNodeType(), DOMNode::TEXT_NODE);
    for (const XMLCh* path : {u"", u"A\\", u"\\A", u"A\\\\B", u"a", u"r", u"A\\B\\C"}) {
        found = untouched;
        EXPECT_EQ(ResolveKey(m_root, path, &found), 0);
        EXPECT_EQ(found, untouched);
        EXPECT_EQ(DeleteKey(m_root, path), 0);
    }
}

TEST_F(RegistryDocument, ValuesAreReplacedWhereTheyStandAndReadOnlyWithExactlyThreeAttributes) {
    Load("<r><item name='a' type='string' value='1' extra='e'/><S/><item name='x' type='string' value='1' "
         "extra='e'/><item name='y' value='1' z='2'/><item name='x' type='string' value='2'/></r>");
    EXPECT_EQ(Value(m_root, u"x"), u"string=2");
    EXPECT_EQ(Value(m_root, u"y"), u"-");
    EXPECT_EQ(DeleteValue(m_doc, m_root, u"x"), 1);  // the first x, fourth attribute and all
    EXPECT_EQ(Value(m_root, u"x"), u"string=2");
    EXPECT_EQ(DeleteValue(m_doc, m_root, u"none"), 0);
    EXPECT_EQ(SetValue(m_doc, m_root, u"b", u"string", u"3"), 1);
    EXPECT_EQ(SetValue(m_doc, m_root, u"a", u"dword", u"9"), 1);
    EXPECT_EQ(Tree(), "<r><item name = \"a\" type = \"dword\" value = \"9\"/><S/>"
                      "<item name = \"y\" value = \"1\" z = \"2\"/><item name = \"x\" type = \"string\" "
                      "value = \"2\"/><item name = \"b\" type = \"string\" value = \"3\"/></r>");
    EXPECT_EQ(Value(m_root, u"a"), u"dword=9");
    EXPECT_EQ(Value(m_root, u"A"), u"-");
}

TEST_F(RegistryDocument, TheDefaultValueIsAnAttributeReadBackOnlyWhenAlone) {
    Load("<r><K/>text</r>");
    DOMNode* key = m_root->getFirstChild();
    EXPECT_EQ(SetValue(m_doc, key, u"", u"dword", u"first"), 1);
    EXPECT_EQ(SetValue(m_doc, key, u"", u"dword", u"second"), 1);
    EXPECT_EQ(Written(key), "<K default = \"second\"/>");
    EXPECT_EQ(Value(key, u""), u"string=second");
    static_cast<xercesc::DOMElement*>(key)->setAttribute(u"other", u"o");
    EXPECT_EQ(Value(key, u""), u"-");
    EXPECT_EQ(DeleteValue(m_doc, key, u""), 1);
    EXPECT_EQ(DeleteValue(m_doc, key, u""), 1);
    EXPECT_EQ(Written(key), "<K other = \"o\"/>");
    DOMNode* text = key->getNextSibling();
    EXPECT_EQ(Value(text, u""), u"-");
    EXPECT_EQ(SetValue(m_doc, text, u"", u"string", u"v"), 0);
    EXPECT_EQ(DeleteValue(m_doc, text, u""), 0);
}

TEST_F(RegistryDocument, OnlyAttributeValuesAreEscapedAndTheApostropheNever) {
    Load("<K default='&gt;&apos;'><!--c & d--><![CDATA[<raw>]]><?tool some data?>x &lt; y"
         "<item name='n' type='string' value='&lt;&amp;&quot;'/></K>");
    EXPECT_EQ(Tree(), "<K default = \"&gt;'\"><!--c & d-->\n<![CDATA[<raw>]]>\n<?tool some data?>\n"
                      "\nx < y\n<item name = \"n\" type = \"string\" value = \"&lt;&amp;&quot;\"/></K>");
    std::ostringstream raw, escaped, bad;
    raw << u"<a & \"b\" 'c'>";
    outputContent(escaped, u"<a & \"b\" 'c'>", true);
    bad << static_cast<const XMLCh*>(nullptr);
    EXPECT_EQ(raw.str(), "<a & \"b\" 'c'>");
    EXPECT_EQ(escaped.str(), "&lt;a &amp; &quot;b&quot; 'c'&gt;");
    EXPECT_TRUE(bad.bad() && bad.str().empty());
}

// Bytes that match the file's ISO-8859-1 declaration: one byte up to U+00FF,
// a character reference above it.
TEST_F(RegistryDocument, NonAsciiAndLongTextsComeOutWhole) {
    Load("<K v='&#233;&lt;&#8364;&#x1F600;'>caf&#233; &#8364;</K>");
    EXPECT_EQ(Tree(), "<K v = \"\xE9&lt;&#8364;&#128512;\">\ncaf\xE9 &#8364;\n</K>");
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

// A save reuses the bytes of unchanged subtrees: after any sequence of
// changes, anywhere under keys wide enough to have their children's bytes
// kept, and after a save that failed on unwritable text, it writes exactly
// what a fresh write gives.
TEST_F(RegistryDocument, SavesWithKeptSubtreesWriteWhatAFreshWriteGives) {
    std::string text = "<r><Wide>";
    for (int i = 0; i < 60; ++i) {
        text += "<K" + std::to_string(i) + " default = \"" + std::to_string(i) + "\">";
        if (i == 45)
            for (int j = 0; j < 40; ++j) text += "<N" + std::to_string(j) + "/>";
        text += "<item name = \"v\" type = \"string\" value = \"x\"/></K" + std::to_string(i) + ">";
    }
    Load(text + "</Wide></r>");
    SavedSubtrees::Attach(m_doc);
    ASSERT_TRUE(Save());
    // The memory of a freed key comes back as the next key made, in the
    // place the freed one had.
    DOMNode* key = nullptr;
    ASSERT_TRUE(DeleteKey(m_root, u"Wide\\K59"));
    ASSERT_TRUE(CreateKey(m_doc, m_root, u"Wide\\Fresh", &key));
    ASSERT_TRUE(Save());
    ASSERT_TRUE(DeleteKey(m_root, u"Wide\\K45\\N3"));
    ASSERT_TRUE(Save());

    std::mt19937 random(12345);
    auto pick = [&](int n) { return std::to_string(random() % n); };
    auto keyPath = [&]() -> std::u16string {
        std::string path = "Wide\\K" + pick(64);
        if (random() % 2) path += "\\N" + pick(44);
        return std::u16string(path.begin(), path.end());
    };
    for (int step = 0; step < 600; ++step) {
        const std::u16string path = keyPath();
        const XMLCh* name = random() % 3 ? u"v" : u"";
        switch (random() % 5) {
        case 0: CreateKey(m_doc, m_root, path.c_str(), &key); break;
        case 1: DeleteKey(m_root, path.c_str()); break;
        case 2:
            if (ResolveKey(m_root, path.c_str(), &key)) DeleteValue(m_doc, key, name);
            break;
        default:
            if (ResolveKey(m_root, path.c_str(), &key)) {
                const std::string value = "s" + std::to_string(step);
                SetValue(m_doc, key, name, u"string", std::u16string(value.begin(), value.end()).c_str());
            }
        }
        ASSERT_TRUE(Save()) << "step " << step;
    }

    ASSERT_TRUE(CreateKey(m_doc, m_root, u"Wide\\K50\\Bad", &key));
    SetValue(m_doc, key, u"v", u"string", u"\xD800");
    CWritten written;
    written.bytes = "as it was";
    EXPECT_FALSE(WriteDocument(m_doc, RegistryImage::kHeaderSize, written));
    EXPECT_EQ(written.bytes, "as it was");
    DeleteValue(m_doc, key, u"v");
    EXPECT_TRUE(Save());
    SavedSubtrees::Attach(nullptr);
}

// Keys are all element children, other children count as null slots; a
// value lands in the slot of its name attribute's position, and attributes
// stand in name order ("a" before "name").
TEST_F(RegistryDocument, EnumeratorsHaveASlotPerChildAndPlaceValuesByAttributePosition) {
    EXPECT_EQ(Enumerated("<k>\n<A/><item name='v' type='string' value='1'/><!--c--><B/></k>", 0),
              (Names{L"A", L"item", L"B", kNull, kNull}));
    EXPECT_EQ(Enumerated("<k/>", 0), Names{});
    EXPECT_EQ(Enumerated("<k><item name='a' type='string' value='1'/><item name='b' type='dword' value='2'/>"
                         "<item name='c' type='x' value=''/><item name='d' type='string'/></k>", 1),
              (Names{L"c", kNull, kNull, kNull}));
    EXPECT_EQ(Enumerated("<k><item a='1' name='v' z='2'/><S/></k>", 1), (Names{kNull, L"v"}));
    EXPECT_EQ(Enumerated("<k><item a='1' name='v' z='2'/></k>", 1), Names{kNull});
}

EnumPtr MakeEnum(std::vector<const wchar_t*> names) {
    wchar_t** items = new wchar_t*[names.size()];
    for (size_t i = 0; i < names.size(); ++i) items[i] = COM_SysAllocString(names[i]);
    EnumPtr e;
    EXPECT_EQ(CRegEnumItems::CreateInstance(COM_IID_IEnumBSTR, e.OutVoid(), unsigned(names.size()), items, 0), S_OK);
    return e;
}

// Next says whether it filled the request; set_Index answers S_FALSE when
// it moves and S_OK at the end; Skip has no bound and wraps at 32 bits; a
// clone keeps the position and owns copies; objects hold the module.
TEST(RegistryEnumItems, CodesPositionsAndClones) {
    const int locks = g_theModule.GetLockCount();
    EnumPtr e = MakeEnum({L"a", nullptr, L"c"});
    EXPECT_EQ(g_theModule.GetLockCount(), locks + 1);
    void* out = Unwritten<void>();
    EXPECT_EQ(e->QueryInterface(COM_IID_IRegistry, &out), E_NOINTERFACE);
    EXPECT_EQ(out, nullptr);
    ASSERT_EQ(e->QueryInterface(COM_IID_IUnknown, &out), S_OK);
    static_cast<COM_IUnknown*>(out)->Release();
    wchar_t* names[3] = {};
    unsigned long fetched = 0xdeadbeef;
    EXPECT_EQ(e->Next(0, names, &fetched), S_OK);
    EXPECT_EQ(fetched, 0u);
    EXPECT_EQ(e->Next(2, names, &fetched), S_OK);
    EXPECT_EQ(fetched, 2u);
    EXPECT_EQ(e->Next(2, names + 2, &fetched), S_FALSE);
    EXPECT_EQ(fetched, 1u);
    EXPECT_EQ(Take(names[0]) + L"," + Take(names[1]) + L"," + Take(names[2]), L"a,,c");
    EXPECT_EQ(e->Next(1, nullptr, &fetched), E_POINTER);
    EXPECT_EQ(e->Next(1, names, nullptr), E_POINTER);
    EXPECT_EQ(e->get_Index(nullptr), E_POINTER);

    EXPECT_EQ(e->set_Index(1), S_FALSE);
    EnumPtr clone;
    ASSERT_EQ(e->Clone(clone.Out()), S_OK);
    EXPECT_EQ(e->set_Index(5), S_OK);
    EXPECT_EQ(IndexOf(e), 3u);
    EXPECT_EQ(e->Skip(3), S_OK);
    EXPECT_EQ(IndexOf(e), 6u);
    EXPECT_EQ(Remaining(e), Names{});
    EXPECT_EQ(e->Skip(0xFFFFFFFCul), S_OK);
    EXPECT_EQ(IndexOf(e), 2u);
    EXPECT_EQ(e->SkipEnd(), S_OK);
    EXPECT_EQ(IndexOf(e), 3u);
    EXPECT_EQ(e->Reset(), S_OK);
    EXPECT_EQ(Remaining(e), (Names{L"a", kNull, L"c"}));
    e.Reset();
    EXPECT_EQ(IndexOf(clone), 1u);
    EXPECT_EQ(Remaining(clone), (Names{kNull, L"c"}));
    clone.Reset();
    EXPECT_EQ(g_theModule.GetLockCount(), locks);
}

}  // namespace
