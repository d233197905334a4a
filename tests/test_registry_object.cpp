// The registry object: where its file lives, the exact file each change
// leaves, its status codes, and what an unusable file does to the process.
//
// The object lives once per process, so each test needs a process of its
// own; ctest runs them that way.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <chrono>
#include <climits>
#include <cstdlib>
#include <functional>
#include <new>
#include <string>
#include <thread>
#include <vector>

#include "registry/regRegistry.h"
#include "testSupport.h"

namespace {

typedef std::vector<std::wstring> Names;
const unsigned int kUntouched = 0xdeadbeef;
const std::string kDeclaration = "<?xml version='1.0' encoding='ISO-8859-1' ?>";

// The file after a save, with `clsid` as the content of the CLSID key; the
// file first written has no line feed after the declaration.
std::string Saved(const std::string& clsid, const char* afterDeclaration = "\n") {
    const std::string key = clsid.empty() ? "<CLSID/>" : "<CLSID>" + clsid + "</CLSID>";
    return kDeclaration + afterDeclaration + "<Software><Quorvane><Version><ApplicationData/><Classes>" + key +
           "<ComponentCategories/><Moniker/></Classes></Version></Quorvane></Software>";
}
const std::string kDefaultFile = Saved("", "");

std::string Item(const std::string& name, const std::string& type, const std::string& value) {
    return "<item name = \"" + name + "\" type = \"" + type + "\" value = \"" + value + "\"/>";
}

std::string Assertion(const std::string& slot) {
    return "virtual void DOMErrorHandler::" + slot + "\\(const xercesc_3_2::SAXParseException&\\): Assertion `.*' failed";
}

class RegistryObject : public TempDirTest {
protected:
    void SetUp() override {
        TempDirTest::SetUp();
        if (s_bCreated) GTEST_SKIP() << "the registry object lives once per process: run alone";
    }

    HRESULT Create() {
        s_bCreated = true;
        void* out = Unwritten<void>();
        const HRESULT hr = CXMLRegistry::CreateInstance(COM_IID_IRegistry, &out);
        if (SUCCEEDED(hr)) m_reg.Attach(static_cast<COM_IRegistry*>(out));
        EXPECT_TRUE(SUCCEEDED(hr) || out == nullptr);
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
        wchar_t* value = Unwritten<wchar_t>();
        EXPECT_EQ(m_reg->GetValueString(name, &value), S_OK) << name;
        return Take(value);
    }

    Names Enumerated(HRESULT (COM_IRegistry::*enumerate)(COM_IEnumBSTR**)) {
        utlAutoIf<COM_IEnumBSTR, &COM_IID_IEnumBSTR> e;
        EXPECT_EQ((m_reg.Get()->*enumerate)(e.Out()), S_OK);
        Names names;
        wchar_t* name = nullptr;
        unsigned long fetched = 0;
        while (!e.IsNull() && e->Next(1, &name, &fetched) == S_OK) names.push_back(name ? Take(name) : L"(null)");
        return names;
    }

    RegistryPtr m_reg;
    static bool s_bCreated;
};

bool RegistryObject::s_bCreated = false;

// Unusable locations fail without leaving an object behind; then a missing
// file is made in COMLIB, and every caller shares the one object.
TEST_F(RegistryObject, UnusableLocationsFailAndAMissingFileIsMadeInComlib) {
    ASSERT_EQ(mkdir(PathOf("Registry.XML").c_str(), 0755), 0);
    EXPECT_EQ(Create(), E_FAIL);
    setenv("COMLIB", (m_dir + "/" + std::string(PATH_MAX, 'a')).c_str(), 1);
    EXPECT_EQ(Create(), E_FAIL);
    setenv("COMLIB", PathOf("missing").c_str(), 1);
    EXPECT_EQ(Create(), REGDB_E_WRITEREGDB);
    setenv("COMLIB", "\xE9", 1);  // a lone byte above 0x7F is no character in the C locale
    EXPECT_THROW(Create(), std::bad_alloc);
    setenv("COMLIB", PathOf("lib").c_str(), 1);
    ASSERT_EQ(mkdir(PathOf("lib").c_str(), 0755), 0);
    ASSERT_EQ(Create(), S_OK);
    EXPECT_EQ(ReadFile("lib/Registry.XML"), kDefaultFile);
    EXPECT_EQ(Registry().Get(), m_reg.Get());
    const int locks = g_theModule.GetLockCount();
    EXPECT_EQ(m_reg->AddRef(), 1u);
    EXPECT_EQ(g_theModule.GetLockCount(), locks + 1);
    EXPECT_EQ(m_reg->Release(), 1u);
    EXPECT_EQ(g_theModule.GetLockCount(), locks);
    void* out = Unwritten<void>();
    EXPECT_EQ(CXMLRegistry::CreateInstance(COM_IID_IEnumBSTR, &out), E_NOINTERFACE);
    EXPECT_EQ(out, nullptr);
    EXPECT_EQ(CXMLRegistry::CreateInstance(COM_IID_IRegistry, nullptr), E_POINTER);
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
    EXPECT_EQ(m_reg->Open(1, L"Nowhere"), REGDB_E_KEYMISSING);  // leaves the hive's root open
    EXPECT_EQ(Enumerated(&COM_IRegistry::EnumKeys), (Names{L"CLSID", L"ComponentCategories", L"Moniker"}));
}

TEST_F(RegistryObject, WithoutAnOpenKeyAndWithNullArgumentsNothingIsTouched) {
    ASSERT_EQ(Create(), S_OK);
    wchar_t* text = Unwritten<wchar_t>();
    unsigned int number = kUntouched;
    COM_IEnumBSTR* e = nullptr;
    // Each call with a missing key, then with null arguments.
    const std::vector<std::pair<std::function<HRESULT()>, std::function<HRESULT()>>> calls = {
        {[&] { return m_reg->OpenKey(L"CLSID"); }, [&] { return m_reg->OpenKey(nullptr); }},
        {[&] { return m_reg->CreateKey(L"A", 1); }, [&] { return m_reg->CreateKey(nullptr, 1); }},
        {[&] { return m_reg->DeleteKey(L"CLSID"); }, [&] { return m_reg->DeleteKey(nullptr); }},
        {[&] { return m_reg->SetValueString(L"v", L"x"); }, [&] { return m_reg->SetValueString(nullptr, L"x"); }},
        {[&] { return m_reg->SetValueDWORD(L"v", 1); }, [&] { return m_reg->SetValueString(L"v", nullptr); }},
        {[&] { return m_reg->GetValueString(L"v", &text); }, [&] { return m_reg->SetValueDWORD(nullptr, 1); }},
        {[&] { return m_reg->GetValueDWORD(L"v", &number); }, [&] { return m_reg->GetValueString(nullptr, nullptr); }},
        {[&] { return m_reg->DeleteValue(L""); }, [&] { return m_reg->GetValueDWORD(nullptr, &number); }},
        {[&] { return m_reg->EnumKeys(&e); }, [&] { return m_reg->GetValueDWORD(L"v", nullptr); }},
        {[&] { return m_reg->EnumValues(&e); }, [&] { return m_reg->DeleteValue(nullptr); }},
        {[&] { return m_reg->GetValueString(L"v", nullptr); }, [&] { return m_reg->EnumValues(nullptr); }},
    };
    for (int closed = 0; closed < 2; ++closed) {
        for (const auto& call : calls) EXPECT_EQ(call.first(), REGDB_E_KEYMISSING) << &call - &calls[0];
        ASSERT_EQ(m_reg->Open(1, L"CLSID"), S_OK);
        EXPECT_EQ(m_reg->Close(), S_OK);
    }
    ASSERT_EQ(m_reg->Open(1, L"CLSID"), S_OK);
    for (const auto& call : calls) EXPECT_EQ(call.second(), E_POINTER) << &call - &calls[0];
    EXPECT_EQ(text, Unwritten<wchar_t>());
    EXPECT_EQ(number, kUntouched);
    EXPECT_EQ(File(), kDefaultFile);
}

// The wrong type or a missing value writes nothing; a null value pointer
// asks only whether the string value is there.
TEST_F(RegistryObject, TheWrongTypeOrAMissingValueWritesNothing) {
    OpenClsid();
    ASSERT_EQ(m_reg->SetValueString(L"my text", L"t"), S_OK);
    ASSERT_EQ(m_reg->SetValueString(L"", L"default"), S_OK);
    ASSERT_EQ(m_reg->SetValueDWORD(L"my number", 7), S_OK);
    wchar_t* text = Unwritten<wchar_t>();
    unsigned int number = kUntouched;
    EXPECT_EQ(m_reg->GetValueDWORD(L"my text", &number), REGDB_E_INVALIDVALUE);
    EXPECT_EQ(m_reg->GetValueDWORD(L"", &number), REGDB_E_INVALIDVALUE);
    EXPECT_EQ(m_reg->GetValueString(L"my number", &text), REGDB_E_INVALIDVALUE);
    EXPECT_EQ(m_reg->GetValueString(L"missing", &text), REGDB_E_INVALIDVALUE);
    EXPECT_EQ(text, Unwritten<wchar_t>());
    EXPECT_EQ(number, kUntouched);
    EXPECT_EQ(m_reg->GetValueString(L"my text", nullptr), S_OK);
    EXPECT_EQ(m_reg->GetValueString(L"my number", nullptr), REGDB_E_INVALIDVALUE);
    ASSERT_EQ(m_reg->GetValueDWORD(L"my number", &number), S_OK);
    EXPECT_EQ(number, 7u);
}

TEST_F(RegistryObject, KeysAreCreatedOpenedAndDeletedRelativeToTheCurrentKey) {
    OpenClsid();
    ASSERT_EQ(m_reg->CreateKey(L"A\\B", 0), S_OK);
    ASSERT_EQ(m_reg->CreateKey(L"C", 2), S_OK);
    ASSERT_EQ(m_reg->SetValueString(L"at", L"clsid"), S_OK);
    ASSERT_EQ(m_reg->CreateKey(L"A\\D", 1), S_OK);
    ASSERT_EQ(m_reg->SetValueString(L"at", L"d"), S_OK);
    EXPECT_EQ(File(), Saved("<A><B/><D>" + Item("at", "string", "d") + "</D></A><C/>" + Item("at", "string", "clsid")));
    ASSERT_EQ(m_reg->Open(1, L"CLSID"), S_OK);
    EXPECT_EQ(m_reg->OpenKey(L"A\\X"), REGDB_E_KEYMISSING);
    ASSERT_EQ(m_reg->DeleteValue(L"at"), S_OK);
    ASSERT_EQ(m_reg->DeleteKey(L"A"), S_OK);
    EXPECT_EQ(File(), Saved("<C/>"));
    EXPECT_EQ(m_reg->DeleteKey(L"A"), REGDB_E_WRITEREGDB);
    EXPECT_EQ(m_reg->DeleteValue(L"at"), REGDB_E_WRITEREGDB);
    EXPECT_EQ(m_reg->DeleteValue(L""), S_OK);
    EXPECT_EQ(File(), Saved("<C/>"));
}

// Names and text the file cannot carry are refused, and nothing half made
// waits in memory for the next save: text that UTF-16 cannot carry, and a
// key name beyond one byte a character. A character above U+FFFF is stored
// as a surrogate pair, written as one character reference, and read back as
// the one character.
TEST_F(RegistryObject, NamesAndTextTheFileCannotCarryAreRefused) {
    OpenClsid();
    for (const wchar_t* path : {L"{brace}", L"1digit", L"New\\{x}", L"ctl\x01", L"New\\\\B", L"", L"A\\", L"\\A"})
        EXPECT_EQ(m_reg->CreateKey(path, 1), E_UNEXPECTED) << path;
    for (const wchar_t* path : {L"K\U0001F600", L"K\u4e2d", L"New\\Deeper\u0100"})
        EXPECT_EQ(m_reg->CreateKey(path, 1), E_INVALIDARG) << path;
    for (const wchar_t* text : {L"bell\a", L"b\x01", L"\xD800", L"\xD800\xDC00", L"\xDFFF", L"\x110000", L"\x7FFFFFFF",
                                L"\uFFFE", L"\uFFFF"}) {
        EXPECT_EQ(m_reg->SetValueString(L"v", text), E_INVALIDARG) << std::hex << unsigned(text[0]);
        EXPECT_EQ(m_reg->SetValueString(text, L"v"), E_INVALIDARG) << std::hex << unsigned(text[0]);
    }
    EXPECT_EQ(File(), kDefaultFile);
    ASSERT_EQ(m_reg->SetValueString(L"smile \U0001F600", L"a\U0001F600b\U0010FFFF\t"), S_OK);
    EXPECT_EQ(File(), Saved(Item("smile_&#128512;", "string", "a&#128512;b&#1114111;&#9;")));
    EXPECT_EQ(String(L"smile \U0001F600"), L"a\U0001F600b\U0010FFFF\t");
}

// A number's text edited by hand reads as its leading ASCII reads with strtol.
TEST_F(RegistryObject, HandEditedNumbersReadAsTheirLeadingDigits) {
    const std::pair<std::string, unsigned int> cases[] = {{"abc", 0}, {" -1abc", 0xFFFFFFFFu}, {"&#233;7", 0}};
    std::string items;
    for (const auto& c : cases) items += Item("n" + std::to_string(&c - cases), "dword", c.first);
    WriteFile("Registry.XML", Saved(items));
    OpenClsid();
    for (const auto& c : cases) {
        unsigned int number = 1;
        EXPECT_EQ(m_reg->GetValueDWORD((L"n" + std::to_wstring(&c - cases)).c_str(), &number), S_OK);
        EXPECT_EQ(number, c.second) << c.first;
    }
}

// Each change is made to the file as it is on disk at that moment, even one
// edited by hand a moment ago.
TEST_F(RegistryObject, ChangesApplyToTheFileAsItIsNow) {
    OpenClsid();
    ASSERT_EQ(m_reg->CreateKey(L"Mine", 1), S_OK);
    WriteFile("Registry.XML", Saved("<Mine/>" + Item("theirs", "string", "t")));
    ASSERT_EQ(m_reg->SetValueString(L"mine", L"m"), S_OK);
    EXPECT_EQ(File(), Saved("<Mine>" + Item("mine", "string", "m") + "</Mine>" + Item("theirs", "string", "t")));

    // Nothing is ever written into a key another process removed.
    WriteFile("Registry.XML", Saved(""));
    EXPECT_EQ(m_reg->SetValueString(L"orphan", L"o"), REGDB_E_KEYMISSING);
    EXPECT_EQ(File(), Saved(""));
}

// Keys with many children are looked up through an index: what it finds is
// what a scan in document order finds, through every kind of change.
TEST_F(RegistryObject, LookupsAmongManyChildrenFindTheFirstOfTheNameThroughEveryChange) {
    std::string many;
    for (int i = 0; i < 100; ++i) many += "<K" + std::to_string(i) + " default = \"" + std::to_string(i) + "\"/>";
    WriteFile("Registry.XML", Saved(many + "<Dup default = \"first\"/><Dup default = \"second\"/>"));
    OpenClsid();
    auto defaultOf = [this](const wchar_t* path) {
        EXPECT_EQ(m_reg->Open(1, L"CLSID"), S_OK);
        return m_reg->OpenKey(path) == S_OK ? String(L"") : std::wstring(L"<missing>");
    };
    EXPECT_EQ(defaultOf(L"K99"), L"99");
    EXPECT_EQ(defaultOf(L"Dup"), L"first");

    ASSERT_EQ(m_reg->Open(1, L"CLSID"), S_OK);
    ASSERT_EQ(m_reg->DeleteKey(L"Dup"), S_OK);
    EXPECT_EQ(defaultOf(L"Dup"), L"second");
    ASSERT_EQ(m_reg->Open(1, L"CLSID"), S_OK);
    ASSERT_EQ(m_reg->DeleteKey(L"K5"), S_OK);
    EXPECT_EQ(defaultOf(L"K5"), L"<missing>");
    ASSERT_EQ(m_reg->Open(1, L"CLSID"), S_OK);
    ASSERT_EQ(m_reg->CreateKey(L"K5", 1), S_OK);
    ASSERT_EQ(m_reg->SetValueString(L"", L"again"), S_OK);
    EXPECT_EQ(defaultOf(L"K5"), L"again");
    ASSERT_EQ(m_reg->Open(1, L"CLSID"), S_OK);
    ASSERT_EQ(m_reg->CreateKey(L"Dup", 0), S_OK);
    EXPECT_EQ(defaultOf(L"Dup"), L"second") << "a new key of a name already there comes after it";

    // Another process's file: only its keys are found. Written by hand, it
    // is noticed once the interval of trusting the save counter has passed.
    WriteFile("Registry.XML", Saved("<Dup default = \"theirs\"/>" + many));
    std::this_thread::sleep_for(std::chrono::milliseconds(CRegistryFile::s_nRecheckMilliseconds + 20));
    EXPECT_EQ(defaultOf(L"Dup"), L"theirs");
    EXPECT_EQ(defaultOf(L"K5"), L"5");
}

// A document type loads, but the writer has no form for it. What the parser
// refuses stays on disk as it was.
TEST_F(RegistryObject, AMalformedEmptyWarningOnlyOrUnwritableFileStopsTheProcess) {
    const std::string writer =
        "std::ostream& operator<<\\(std::ostream&, const xercesc_3_2::DOMNode\\*\\): Assertion `.*' failed";
    // Single bytes that claim to be UTF-16 draw a warning and nothing worse.
    const std::pair<std::string, std::string> files[] = {
        {kDeclaration + "<Software><Quorvane>", Assertion("fatalError")},
        {"", Assertion("fatalError")},
        {"<?xml version='1.0' encoding='UTF-16' ?><Software/>", Assertion("warning")},
        {kDeclaration + "<!DOCTYPE Registry><Software><Quorvane/></Software>", writer}};
    for (const auto& file : files) {
        WriteFile("Registry.XML", file.first);
        EXPECT_DEATH(LoadAndChange(), file.second);
        EXPECT_TRUE(file.second == writer || File() == file.first) << File();
    }
}

}  // namespace
