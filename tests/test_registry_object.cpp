// The registry object: where its file lives, the exact file each change
// leaves, its status codes, and what an unusable file does to the process.
//
// The object lives once per process, so each test needs a process of its
// own; ctest runs them that way.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <cstdlib>
#include <new>
#include <string>
#include <vector>

#include "registry/regRegistry.h"
#include "testSupport.h"

namespace {

typedef std::vector<std::wstring> Names;

wchar_t* const kUntouchedText = reinterpret_cast<wchar_t*>(0xdeadbeef);
const unsigned int kUntouchedNumber = 0xdeadbeef;

const std::string kDeclaration = "<?xml version='1.0' encoding='ISO-8859-1' ?>";
const std::string kDefaultFile = kDeclaration +
                                 "<Software><Quorvane><Version><ApplicationData/><Classes>"
                                 "<CLSID/><ComponentCategories/><Moniker/></Classes></Version>"
                                 "</Quorvane></Software>";

// The file after a save, with `clsid` as the content of the CLSID key.
std::string SavedWithClsid(const std::string& clsid) {
    const std::string key = clsid.empty() ? "<CLSID/>" : "<CLSID>" + clsid + "</CLSID>";
    return kDeclaration + "\n<Software><Quorvane><Version><ApplicationData/><Classes>" + key +
           "<ComponentCategories/><Moniker/></Classes></Version></Quorvane></Software>";
}

std::string Item(const std::string& name, const std::string& type, const std::string& value) {
    return "<item name = \"" + name + "\" type = \"" + type + "\" value = \"" + value + "\"/>";
}

std::string Assertion(const std::string& handlerSlot) {
    return "virtual void DOMErrorHandler::" + handlerSlot +
           "\\(const xercesc_3_2::SAXParseException&\\): Assertion `.*' failed";
}

class RegistryObject : public TempDirTest {
protected:
    void SetUp() override {
        TempDirTest::SetUp();
        if (s_bCreated) GTEST_SKIP() << "the registry object lives once per process: run alone";
    }

    HRESULT Create() {
        s_bCreated = true;
        void* out = reinterpret_cast<void*>(0xdeadbeef);
        const HRESULT hr = CXMLRegistry::CreateInstance(COM_IID_IRegistry, &out);
        if (SUCCEEDED(hr)) {
            m_reg.Attach(static_cast<COM_IRegistry*>(out));
        } else {
            EXPECT_EQ(out, nullptr);
        }
        return hr;
    }

    void OpenClsid() {
        ASSERT_EQ(Create(), S_OK);
        ASSERT_EQ(m_reg->Open(1, L"CLSID"), S_OK);
    }

    // Loads the file and makes one change, for whatever stops the process.
    void LoadAndChange() {
        if (Create() != S_OK) return;
        m_reg->Open(4, L"");
        m_reg->CreateKey(L"Change", 0);
    }

    std::string File() const { return ReadFile("Registry.XML"); }

    std::wstring String(const wchar_t* name) {
        wchar_t* value = nullptr;
        EXPECT_EQ(m_reg->GetValueString(name, &value), S_OK) << name;
        const std::wstring text = value ? value : L"(null)";
        COM_SysFreeString(value);
        return text;
    }

    Names Enumerated(HRESULT (COM_IRegistry::*enumerate)(COM_IEnumBSTR**)) {
        utlAutoIf<COM_IEnumBSTR, &COM_IID_IEnumBSTR> e;
        EXPECT_EQ((m_reg.Get()->*enumerate)(e.Out()), S_OK);
        Names names;
        wchar_t* name = nullptr;
        unsigned long fetched = 0;
        while (!e.IsNull() && e->Next(1, &name, &fetched) == S_OK) {
            names.push_back(name ? name : L"(null)");
            COM_SysFreeString(name);
        }
        return names;
    }

    utlAutoIf<COM_IRegistry, &COM_IID_IRegistry> m_reg;
    static bool s_bCreated;
};

bool RegistryObject::s_bCreated = false;

TEST_F(RegistryObject, AMissingFileIsCreatedInComlibAndAllCallersShareOneObject) {
    ASSERT_EQ(mkdir(PathOf("lib").c_str(), 0755), 0);
    setenv("COMLIB", PathOf("lib").c_str(), 1);
    ASSERT_EQ(Create(), S_OK);
    EXPECT_EQ(ReadFile("lib/Registry.XML"), kDefaultFile);

    utlAutoIf<COM_IRegistry, &COM_IID_IRegistry> second;
    ASSERT_EQ(CXMLRegistry::CreateInstance(COM_IID_IRegistry, second.OutVoid()), S_OK);
    EXPECT_EQ(second.Get(), m_reg.Get());
    const int locks = g_theModule.GetLockCount();
    EXPECT_EQ(m_reg->AddRef(), 1u);
    EXPECT_EQ(g_theModule.GetLockCount(), locks + 1);
    EXPECT_EQ(m_reg->Release(), 1u);
    EXPECT_EQ(g_theModule.GetLockCount(), locks);
    void* out = reinterpret_cast<void*>(0xdeadbeef);
    EXPECT_EQ(CXMLRegistry::CreateInstance(COM_IID_IEnumBSTR, &out), E_NOINTERFACE);
    EXPECT_EQ(out, nullptr);
    EXPECT_EQ(CXMLRegistry::CreateInstance(COM_IID_IRegistry, nullptr), E_POINTER);
}

TEST_F(RegistryObject, WithoutComlibTheFileIsFoundInTheWorkingDirectory) {
    unsetenv("COMLIB");
    ASSERT_EQ(mkdir(PathOf("cwd").c_str(), 0755), 0);
    ASSERT_EQ(chdir(PathOf("cwd").c_str()), 0);
    ASSERT_EQ(Create(), S_OK);
    EXPECT_EQ(ReadFile("cwd/Registry.XML"), kDefaultFile);
    EXPECT_NE(access(PathOf("Registry.XML").c_str(), F_OK), 0);
}

TEST_F(RegistryObject, UnusableLocationsFailWithoutLeavingAnObject) {
    ASSERT_EQ(mkdir(PathOf("Registry.XML").c_str(), 0755), 0);
    EXPECT_EQ(Create(), E_FAIL);
    setenv("COMLIB", (m_dir + "/" + std::string(PATH_MAX, 'a')).c_str(), 1);
    EXPECT_EQ(Create(), E_FAIL);
    setenv("COMLIB", PathOf("missing").c_str(), 1);
    EXPECT_EQ(Create(), REGDB_E_WRITEREGDB);
    // A lone byte above 0x7F is no character in the C locale.
    setenv("COMLIB", "\xE9", 1);
    EXPECT_THROW(Create(), std::bad_alloc);

    setenv("COMLIB", PathOf("lib").c_str(), 1);
    ASSERT_EQ(mkdir(PathOf("lib").c_str(), 0755), 0);
    EXPECT_EQ(Create(), S_OK);
}

TEST_F(RegistryObject, OpenTakesHivesOneToFiveThatTheDocumentHolds) {
    ASSERT_EQ(Create(), S_OK);
    EXPECT_EQ(m_reg->Open(0, L""), E_INVALIDARG);
    EXPECT_EQ(m_reg->Open(6, L""), E_INVALIDARG);
    EXPECT_EQ(m_reg->Open(1, nullptr), E_INVALIDARG);
    EXPECT_EQ(m_reg->Open(2, L""), REGDB_E_KEYMISSING);
    EXPECT_EQ(m_reg->Open(3, L""), REGDB_E_KEYMISSING);
    ASSERT_EQ(m_reg->Open(4, L""), S_OK);
    EXPECT_EQ(Enumerated(&COM_IRegistry::EnumKeys), Names{L"Version"});
    ASSERT_EQ(m_reg->Open(5, L""), S_OK);
    EXPECT_EQ(Enumerated(&COM_IRegistry::EnumKeys), Names{});
    // A missing subkey leaves the hive's root open.
    EXPECT_EQ(m_reg->Open(1, L"Nowhere"), REGDB_E_KEYMISSING);
    EXPECT_EQ(Enumerated(&COM_IRegistry::EnumKeys),
              (Names{L"CLSID", L"ComponentCategories", L"Moniker"}));
}

TEST_F(RegistryObject, WithoutAnOpenKeyAndWithNullArgumentsNothingIsTouched) {
    ASSERT_EQ(Create(), S_OK);
    for (int closed = 0; closed < 2; ++closed) {
        wchar_t* text = kUntouchedText;
        unsigned int number = kUntouchedNumber;
        COM_IEnumBSTR* e = nullptr;
        EXPECT_EQ(m_reg->OpenKey(L"CLSID"), REGDB_E_KEYMISSING);
        EXPECT_EQ(m_reg->CreateKey(L"A", 1), REGDB_E_KEYMISSING);
        EXPECT_EQ(m_reg->DeleteKey(L"CLSID"), REGDB_E_KEYMISSING);
        EXPECT_EQ(m_reg->SetValueString(L"v", L"x"), REGDB_E_KEYMISSING);
        EXPECT_EQ(m_reg->SetValueDWORD(L"v", 1), REGDB_E_KEYMISSING);
        EXPECT_EQ(m_reg->GetValueString(L"v", &text), REGDB_E_KEYMISSING);
        EXPECT_EQ(m_reg->GetValueDWORD(L"v", &number), REGDB_E_KEYMISSING);
        EXPECT_EQ(m_reg->DeleteValue(L""), REGDB_E_KEYMISSING);
        EXPECT_EQ(m_reg->EnumKeys(&e), REGDB_E_KEYMISSING);
        EXPECT_EQ(text, kUntouchedText);
        EXPECT_EQ(number, kUntouchedNumber);
        ASSERT_EQ(m_reg->Open(1, L"CLSID"), S_OK);
        EXPECT_EQ(m_reg->Close(), S_OK);
    }
    ASSERT_EQ(m_reg->Open(1, L"CLSID"), S_OK);
    unsigned int number = kUntouchedNumber;
    EXPECT_EQ(m_reg->OpenKey(nullptr), E_POINTER);
    EXPECT_EQ(m_reg->CreateKey(nullptr, 1), E_POINTER);
    EXPECT_EQ(m_reg->DeleteKey(nullptr), E_POINTER);
    EXPECT_EQ(m_reg->SetValueString(nullptr, L"x"), E_POINTER);
    EXPECT_EQ(m_reg->SetValueString(L"v", nullptr), E_POINTER);
    EXPECT_EQ(m_reg->SetValueDWORD(nullptr, 1), E_POINTER);
    EXPECT_EQ(m_reg->GetValueString(nullptr, nullptr), E_POINTER);
    EXPECT_EQ(m_reg->GetValueDWORD(nullptr, &number), E_POINTER);
    EXPECT_EQ(m_reg->GetValueDWORD(L"v", nullptr), E_POINTER);
    EXPECT_EQ(m_reg->DeleteValue(nullptr), E_POINTER);
    EXPECT_EQ(m_reg->EnumValues(nullptr), E_POINTER);
    EXPECT_EQ(number, kUntouchedNumber);
    EXPECT_EQ(File(), kDefaultFile);
}

TEST_F(RegistryObject, ValuesAreSavedEscapedReplacedInPlaceAndReadBackWhole) {
    OpenClsid();
    ASSERT_EQ(m_reg->CreateKey(L"My Key", 1), S_OK);
    ASSERT_EQ(m_reg->SetValueString(L"my name", L"<a & \"b\" 'c'>"), S_OK);
    ASSERT_EQ(m_reg->SetValueString(L"max", L"string first"), S_OK);
    ASSERT_EQ(m_reg->SetValueString(L"", L"default"), S_OK);
    ASSERT_EQ(m_reg->SetValueDWORD(L"max", 4294967295u), S_OK);
    EXPECT_EQ(File(),
              SavedWithClsid("<My_Key default = \"default\">" +
                             Item("my_name", "string", "&lt;a &amp; &quot;b&quot; 'c'&gt;") +
                             Item("max", "dword", "4294967295") + "</My_Key>"));

    ASSERT_EQ(m_reg->Close(), S_OK);
    ASSERT_EQ(m_reg->Open(1, L"CLSID\\My Key"), S_OK);
    EXPECT_EQ(String(L"my name"), L"<a & \"b\" 'c'>");
    EXPECT_EQ(String(L""), L"default");
    unsigned int number = kUntouchedNumber;
    ASSERT_EQ(m_reg->GetValueDWORD(L"max", &number), S_OK);
    EXPECT_EQ(number, 4294967295u);
    EXPECT_EQ(Enumerated(&COM_IRegistry::EnumKeys), (Names{L"item", L"item"}));
    EXPECT_EQ(Enumerated(&COM_IRegistry::EnumValues), (Names{L"max", L"(null)"}));
}

TEST_F(RegistryObject, ReadingTheWrongTypeOrAMissingValueWritesNothing) {
    OpenClsid();
    ASSERT_EQ(m_reg->SetValueString(L"s", L"12"), S_OK);
    ASSERT_EQ(m_reg->SetValueDWORD(L"d", 12), S_OK);
    wchar_t* text = kUntouchedText;
    unsigned int number = kUntouchedNumber;
    EXPECT_EQ(m_reg->GetValueDWORD(L"s", &number), REGDB_E_INVALIDVALUE);
    EXPECT_EQ(m_reg->GetValueDWORD(L"", &number), REGDB_E_INVALIDVALUE);
    EXPECT_EQ(m_reg->GetValueString(L"d", &text), REGDB_E_INVALIDVALUE);
    EXPECT_EQ(m_reg->GetValueString(L"missing", &text), REGDB_E_INVALIDVALUE);
    EXPECT_EQ(text, kUntouchedText);
    EXPECT_EQ(number, kUntouchedNumber);
    // A null value pointer asks only whether the string value is there.
    EXPECT_EQ(m_reg->GetValueString(L"s", nullptr), S_OK);
    EXPECT_EQ(m_reg->GetValueString(L"d", nullptr), REGDB_E_INVALIDVALUE);
}

TEST_F(RegistryObject, KeysAreCreatedOpenedAndDeletedRelativeToTheCurrentKey) {
    OpenClsid();
    ASSERT_EQ(m_reg->CreateKey(L"A\\B", 0), S_OK);
    ASSERT_EQ(m_reg->CreateKey(L"C", 2), S_OK);
    ASSERT_EQ(m_reg->SetValueString(L"at", L"clsid"), S_OK);
    ASSERT_EQ(m_reg->CreateKey(L"A\\D", 1), S_OK);
    ASSERT_EQ(m_reg->SetValueString(L"at", L"d"), S_OK);
    EXPECT_EQ(File(), SavedWithClsid("<A><B/><D>" + Item("at", "string", "d") + "</D></A><C/>" +
                                     Item("at", "string", "clsid")));

    ASSERT_EQ(m_reg->Open(1, L"CLSID"), S_OK);
    EXPECT_EQ(m_reg->OpenKey(L"A\\X"), REGDB_E_KEYMISSING);
    ASSERT_EQ(m_reg->DeleteValue(L"at"), S_OK);
    ASSERT_EQ(m_reg->DeleteKey(L"A"), S_OK);
    const std::string after = SavedWithClsid("<C/>");
    EXPECT_EQ(File(), after);
    EXPECT_EQ(m_reg->DeleteKey(L"A"), REGDB_E_WRITEREGDB);
    EXPECT_EQ(m_reg->DeleteValue(L"at"), REGDB_E_WRITEREGDB);
    EXPECT_EQ(m_reg->DeleteValue(L""), S_OK);
    EXPECT_EQ(File(), after);
}

TEST_F(RegistryObject, NamesAndTextTheFileCannotCarryAreRefused) {
    OpenClsid();
    for (const wchar_t* path : {L"{brace}", L"1digit", L"New\\{x}", L"ctl\x01", L"New\\\\B", L""})
        EXPECT_EQ(m_reg->CreateKey(path, 1), E_UNEXPECTED) << path;
    EXPECT_EQ(m_reg->SetValueString(L"v", L"bell\a"), E_INVALIDARG);
    EXPECT_EQ(m_reg->SetValueString(L"b\x01", L"x"), E_INVALIDARG);
    EXPECT_EQ(File(), kDefaultFile);
    // Nothing half made waits in memory for the next save.
    ASSERT_EQ(m_reg->SetValueString(L"v", L"tab\tok"), S_OK);
    EXPECT_EQ(File(), SavedWithClsid(Item("v", "string", "tab\tok")));
}

TEST_F(RegistryObject, HandEditedValuesReadAsTheRulesSay) {
    WriteFile("Registry.XML", kDeclaration +
                                  "<Software><Quorvane><Version><ApplicationData default='d' "
                                  "other='o'><item name='abc' type='dword' value='abc'/>"
                                  "<item name='trail' type='dword' value=' -1abc'/>"
                                  "<item name='accent' type='dword' value='&#233;7'/>"
                                  "</ApplicationData></Version></Quorvane></Software>");
    ASSERT_EQ(Create(), S_OK);
    ASSERT_EQ(m_reg->Open(5, L""), S_OK);
    unsigned int abc = 1, trail = 1, accent = 1;
    EXPECT_EQ(m_reg->GetValueDWORD(L"abc", &abc), S_OK);
    EXPECT_EQ(m_reg->GetValueDWORD(L"trail", &trail), S_OK);
    EXPECT_EQ(m_reg->GetValueDWORD(L"accent", &accent), S_OK);
    EXPECT_EQ(abc, 0u);
    EXPECT_EQ(trail, 0xFFFFFFFFu);
    EXPECT_EQ(accent, 0u);
    // The default value is there, but not alone.
    EXPECT_EQ(m_reg->GetValueString(L"", nullptr), REGDB_E_INVALIDVALUE);
}

TEST_F(RegistryObject, AHandIndentedFileGainsLineFeedsAroundItsTextNodes) {
    WriteFile("Registry.XML", kDeclaration +
                                  "\n<Software>\n  <Quorvane>\n    <Version>\n      <Classes>"
                                  "\n        <CLSID/>\n      </Classes>\n    </Version>\n"
                                  "  </Quorvane>\n</Software>\n");
    OpenClsid();
    ASSERT_EQ(m_reg->CreateKey(L"New", 0), S_OK);
    EXPECT_EQ(File(), kDeclaration +
                          "\n<Software>\n\n  \n<Quorvane>\n\n    \n<Version>\n\n      \n"
                          "<Classes>\n\n        \n<CLSID><New/></CLSID>\n\n      \n</Classes>"
                          "\n\n    \n</Version>\n\n  \n</Quorvane>\n\n\n</Software>");
}

TEST_F(RegistryObject, TheFileIsReadOnceAndAFailedWriteIsMadeUpByTheNext) {
    OpenClsid();
    ASSERT_EQ(unlink(PathOf("Registry.XML").c_str()), 0);
    ASSERT_EQ(mkdir(PathOf("Registry.XML").c_str(), 0755), 0);
    EXPECT_EQ(m_reg->SetValueString(L"first", L"1"), REGDB_E_WRITEREGDB);
    EXPECT_EQ(String(L"first"), L"1");

    ASSERT_EQ(rmdir(PathOf("Registry.XML").c_str()), 0);
    WriteFile("Registry.XML", "changed by someone else");
    ASSERT_EQ(m_reg->SetValueString(L"second", L"2"), S_OK);
    EXPECT_EQ(File(), SavedWithClsid(Item("first", "string", "1") + Item("second", "string", "2")));
}

TEST_F(RegistryObject, TheWrittenFileIsWellFormedXmlForOtherTools) {
    const char xmllint[] = "/usr/bin/xmllint";
    ASSERT_EQ(access(xmllint, X_OK), 0) << xmllint << " is missing: install libxml2-utils";
    WriteFile("Registry.XML", kDeclaration +
                                  "<!--kept--><Software><Quorvane><?tool data?><Version>"
                                  "<![CDATA[raw]]><ApplicationData/></Version></Quorvane>"
                                  "</Software>");
    ASSERT_EQ(Create(), S_OK);
    ASSERT_EQ(m_reg->Open(5, L""), S_OK);
    ASSERT_EQ(m_reg->CreateKey(L"My Key\\_0123ABCD-ABCD-abcd-0123-456789ABCDEF_", 1), S_OK);
    ASSERT_EQ(m_reg->SetValueString(L"", L"<default> & \"quoted\""), S_OK);
    ASSERT_EQ(m_reg->SetValueString(L"text", L"it's <b> & \"c\""), S_OK);
    ASSERT_EQ(m_reg->SetValueDWORD(L"number", 7), S_OK);
    ASSERT_EQ(m_reg->CreateKey(L"{not a name}", 0), E_UNEXPECTED);
    const std::string command = std::string(xmllint) + " --noout " + PathOf("Registry.XML");
    EXPECT_EQ(std::system(command.c_str()), 0) << File();
}

TEST_F(RegistryObject, AMalformedOrEmptyFileStopsTheProcessAndStaysAsItWas) {
    const std::string malformed = kDeclaration + "<Software><Quorvane>";
    WriteFile("Registry.XML", malformed);
    EXPECT_DEATH(LoadAndChange(), Assertion("fatalError"));
    EXPECT_EQ(File(), malformed);
    WriteFile("Registry.XML", "");
    EXPECT_DEATH(LoadAndChange(), Assertion("fatalError"));
    EXPECT_EQ(File(), "");
}

TEST_F(RegistryObject, AFileDrawingOnlyAWarningStopsTheProcess) {
    // Single bytes that claim to be UTF-16 draw a warning and nothing worse.
    const std::string file = "<?xml version='1.0' encoding='UTF-16' ?><Software/>";
    WriteFile("Registry.XML", file);
    EXPECT_DEATH(LoadAndChange(), Assertion("warning"));
    EXPECT_EQ(File(), file);
}

TEST_F(RegistryObject, AFileWithADocumentTypeLoadsButCannotBeSaved) {
    // Named other than the root: a document type named Software would be
    // found first on the way to every hive, and no hive would open.
    WriteFile("Registry.XML", kDeclaration + "<!DOCTYPE Registry><Software><Quorvane/></Software>");
    EXPECT_DEATH(LoadAndChange(),
                 "std::ostream& operator<<\\(std::ostream&, const xercesc_3_2::DOMNode\\*\\): "
                 "Assertion `.*' failed");
}

}  // namespace
