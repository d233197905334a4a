// The interface definition compiler: a header generated from a definition
// gives every method its own slot and a working interface map; malformed
// definitions are refused at the right place; --check's verdicts.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <fstream>
#include <map>
#include <sstream>

#include "idl.h"
#include "idlSample.h"
#include "testSupport.h"

namespace {

// Each method records which one ran, so a method reached through the wrong
// slot shows.
class CCalc : public COM_CImplements<CCalc, ICalcMore, ISeparate> {
public:
    HRESULT Add(int32_t a, int32_t b, int32_t* sum) override { return Mark(1, *sum = a + b); }
    HRESULT Label(const wchar_t*, wchar_t** label) override { return Mark(2, *label = nullptr); }
    HRESULT Scale(double* value, SampleMode mode) override { return Mark(3, *value *= mode); }
    HRESULT Move(const SamplePoint& from, SamplePoint* to) override {
        return Mark(4, (*to = from).x);
    }
    HRESULT Find(const COM_GUID& iid, void** object) override {
        return Mark(5, QueryInterface(iid, object));
    }
    HRESULT Pair(ICalc* other, ICalc** same) override { return Mark(6, (*same = other)->AddRef()); }
    HRESULT Flags(bool on, uint64_t mask, int8_t* small) override {
        return Mark(7, *small = static_cast<int8_t>(on ? mask : 0));
    }
    HRESULT Ping() override { return Mark(8, 0); }
    int last = 0;

private:
    template <class T>
    HRESULT Mark(int slot, T) {
        last = slot;
        return S_OK;
    }
};

TEST(IdlGenerated, EverySlotReachesItsMethodAndTheMapAnswersBasesWithOneIdentity) {
    ICalcMore* more = nullptr;
    ASSERT_EQ(CCalc::CreateInstance(IID_ICalcMore, reinterpret_cast<void**>(&more)), S_OK);
    CCalc* object = static_cast<CCalc*>(more);
    int32_t sum = 0;
    double value = 2;
    SamplePoint to{}, from{3, 0.5, IID_ICalc};
    void* found = nullptr;
    ICalc* same = nullptr;
    int8_t small = 0;
    wchar_t* label = nullptr;
    ISeparate* separate = nullptr;
    const std::pair<int, std::function<HRESULT()>> calls[] = {
        {1, [&] { return more->Add(2, 3, &sum); }},
        {2, [&] { return more->Label(L"x", &label); }},
        {3, [&] { return more->Scale(&value, SampleSafe); }},
        {4, [&] { return more->Move(from, &to); }},
        {5, [&] { return more->Find(IID_ISeparate, reinterpret_cast<void**>(&separate)); }},
        {6, [&] { return more->Pair(more, &same); }},
        {7, [&] { return more->Flags(true, 0x41, &small); }},
        {8, [&] { return separate->Ping(); }},
    };
    for (const auto& [slot, call] : calls) {
        EXPECT_EQ(call(), S_OK) << slot;
        EXPECT_EQ(object->last, slot);
    }
    EXPECT_EQ(sum, 5);
    EXPECT_EQ(value, 10);
    EXPECT_EQ(to.id, IID_ICalc);
    EXPECT_EQ(small, 0x41);

    // The base interface, and COM_IUnknown the same from every interface.
    void* base = nullptr;
    COM_IUnknown* identity1 = nullptr;
    COM_IUnknown* identity2 = nullptr;
    EXPECT_EQ(more->QueryInterface(IID_ICalc, &base), S_OK);
    EXPECT_EQ(base, static_cast<ICalc*>(more));
    more->QueryInterface(COM_IID_IUnknown, reinterpret_cast<void**>(&identity1));
    separate->QueryInterface(COM_IID_IUnknown, reinterpret_cast<void**>(&identity2));
    EXPECT_EQ(identity1, identity2);
    EXPECT_EQ(more->QueryInterface(COM_IID_IErrorInfo, &found), E_NOINTERFACE);
    EXPECT_EQ(found, nullptr);
    for (COM_IUnknown* p :
         {static_cast<COM_IUnknown*>(static_cast<ICalc*>(base)), identity1, identity2,
          static_cast<COM_IUnknown*>(same), static_cast<COM_IUnknown*>(separate)})
        p->Release();
    EXPECT_EQ(more->Release(), 0u);
}

TEST(IdlGenerated, DeclaredFacilityDecodesItsCodes) {
    COM_IDecodeHResult* decoder = nullptr;
    ASSERT_EQ(COM_CStatusDecoder<&FACILITY_SAMPLE>::CreateInstance(
                  COM_IID_IDecodeHResult, reinterpret_cast<void**>(&decoder)),
              S_OK);
    const struct {
        HRESULT code;
        HRESULT result;
        const wchar_t* text;
    } cases[] = {
        {SAMPLE_E_BROKEN, S_OK, L"It broke [807A0002]"},
        {SAMPLE_S_AGAIN, S_OK, L"Done before [  7A0001]"},
        {static_cast<HRESULT>(0x807A0009u), S_FALSE, L"Unknown status of facility 0x7A [807A0009]"},
    };
    for (const auto& c : cases) {
        wchar_t* text = nullptr;
        EXPECT_EQ(decoder->DecodeHResult(c.code, 0, &text), c.result);
        EXPECT_STREQ(text, c.text);
        COM_SysFreeString(text);
    }
    decoder->Release();
}

// A declared text of any length is handed back whole, code and all.
wchar_t g_longText[2000];
const COM_STATUSTEXT kLongTexts[] = {{static_cast<HRESULT>(0x807A0003u), g_longText}};
const COM_FACILITYINFO kLongFacility = {0x7A, kLongTexts, 1, L"Unknown"};

TEST(IdlGenerated, DeclaredTextsOfAnyLengthAreDecodedWhole) {
    const std::wstring declared(1999, L'x');
    std::wcscpy(g_longText, declared.c_str());
    COM_CStatusDecoder<&kLongFacility> decoder;
    wchar_t* text = nullptr;
    EXPECT_EQ(decoder.DecodeHResult(kLongTexts[0].code, 0, &text), S_OK);
    EXPECT_EQ(Take(text), declared + L" [807A0003]");
}

// Parses `text` as main.idl beside the files of `others`; veltcom.idl is the
// runtime's own.
std::shared_ptr<idl::Definitions> ParseText(const std::string& text, idl::Error& error,
                                            std::map<std::string, std::string> others = {}) {
    std::ifstream runtime(VELTCOM_IDL_PATH);
    std::stringstream runtimeText;
    runtimeText << runtime.rdbuf();
    others["veltcom.idl"] = runtimeText.str();
    const idl::Resolver resolve = [&](const std::string& name, const std::string&) {
        return others.count(name) ? name : "";
    };
    const idl::Reader read = [&](const std::string& path, std::string& out) {
        out = others[path];
        return true;
    };
    return idl::Parse("main.idl", text, resolve, read, error);
}

const std::string kHead = "import \"veltcom.idl\";\n";
const std::string kUuid = "[uuid(6B0C3F52-1D7E-4F3A-9C2B-0A1B2C3D4E5F)]\n";

TEST(IdlErrors, MalformedDefinitionsAreRefusedWithMessageAndPlace) {
    const struct {
        std::string text;
        int line, column;
        std::string message;
    } cases[] = {
        {kUuid + "interface I : COM_IUnknown {}", 3, 30, "expected ';', found end of file"},
        {kUuid + "interface I : IMissing {};", 3, 15, "unknown base interface 'IMissing'"},
        {kUuid + "interface I {};", 3, 13, "interface 'I' must name its base"},
        {kUuid + "interface I : COM_IUnknown { int32 F(); };", 3, 30, "methods return HRESULT"},
        {kUuid + "interface I : COM_IUnknown { HRESULT F([out] int32 x); };", 3, 46,
         "parameter 'x' is [out]: write its type as int32*"},
        {kUuid + "interface I : COM_IUnknown { HRESULT F([in] BSTR* x); };", 3, 45,
         "parameter 'x' is [in]: write its type as BSTR"},
        {kUuid + "interface I : COM_IUnknown { HRESULT F([out] wstring* x); };", 3, 46,
         "wstring is for [in] parameters only"},
        {kUuid + "interface I : COM_IUnknown { HRESULT F([out, retval] int32* a, [in] int32 b); };",
         3, 40, "retval is for the last parameter, [out] only"},
        {kUuid + "interface I : COM_IUnknown { HRESULT F([out, iid_is(q)] void** p); };", 3, 40,
         "iid_is names a GUID parameter of the same method"},
        {kUuid + "interface I : COM_IUnknown { HRESULT F([in] Nothing x); };", 3, 45,
         "unknown type 'Nothing'"},
        {kUuid + "interface I : COM_IUnknown { HRESULT F(); HRESULT F(); };", 3, 51,
         "method 'F' is declared twice"},
        {kUuid + "interface I : COM_IUnknown { HRESULT F([in] int32 new); };", 3, 51,
         "'new' is a C++ keyword"},
        {kUuid + "interface COM_IErrorInfo : COM_IUnknown {};", 3, 11,
         "'COM_IErrorInfo' is already declared as an interface"},
        {kUuid + "interface I : COM_IUnknown {};\n[uuid(6b0c3f52-1d7e-4f3a-9c2b-0a1b2c3d4e5f)] "
                 "interface J;",
         4, 2, "uuid 6B0C3F52-1D7E-4F3A-9C2B-0A1B2C3D4E5F already identifies 'I'"},
        {"\n[uuid(12)] interface J;", 3, 7, "a uuid is written as 8-4-4-4-12 hexadecimal digits"},
        {"[uuid(1E3F4A5B-6C7D-4E8F-9A0B-1C2D3E4F5A6B), progid(\"P\")]\ncoclass C { interface "
         "ICalc; };",
         3, 23, "unknown interface 'ICalc'"},
        {kUuid + "coclass C { };", 3, 1, "coclass 'C' needs a progid attribute"},
        {"\nfacility F = 0x800 { };", 3, 14, "facility number 0x800 is out of range"},
        {"\nfacility F = 1 { error A = 1, \"a\"; error B = 1, \"b\"; };", 3, 46,
         "status 1 is already 'A'"},
        {kUuid + "category C; /* open", 3, 13, "unterminated comment"},
        {kUuid + "category C; const wstring S = \"x\n", 3, 31, "unterminated string"},
        {kUuid + "category C; $", 3, 13, "unexpected character '$'"},
    };
    for (const auto& c : cases) {
        idl::Error error;
        EXPECT_EQ(ParseText(kHead + c.text, error), nullptr) << c.text;
        EXPECT_EQ(error.message, c.message) << c.text;
        EXPECT_EQ(error.place.line, c.line) << c.text;
        EXPECT_EQ(error.place.column, c.column) << c.text;
        EXPECT_EQ(error.file, "main.idl");
    }
    // A fault in an imported file is reported in that file.
    idl::Error error;
    EXPECT_EQ(ParseText("import \"bad.idl\";", error, {{"bad.idl", "\n  oops"}}), nullptr);
    EXPECT_EQ(error.file, "bad.idl");
    EXPECT_EQ(error.place.line, 2);
    EXPECT_EQ(error.message, "expected a definition, found 'oops'");
}

TEST(IdlCheck, ChangesThatBreakCallersOrImplementersAreTold) {
    const std::string v1 =
        "interface ICalc : COM_IUnknown { HRESULT Add([in] int32 a, [out] int32* b);"
        " HRESULT Sub([in] int32 a); };\n";
    const struct {
        std::string after;
        std::vector<std::string> breaking;
    } cases[] = {
        {v1, {}},
        {v1 + "[uuid(1E3F4A5B-6C7D-4E8F-9A0B-1C2D3E4F5A6B)] interface INew : ICalc {};", {}},
        {"interface ICalc : COM_IUnknown { HRESULT Sub([in] int32 a);"
         " HRESULT Add([in] int32 a, [out] int32* b); };",
         {"interface ICalc, slot 1: method Add replaced by Sub",
          "interface ICalc, slot 2: method Sub replaced by Add"}},
        {"interface ICalc : COM_IUnknown { HRESULT Add([in] int32 a, [out] int32* b); };",
         {"interface ICalc, slot 2: method Sub removed"}},
        {"interface ICalc : COM_IUnknown { HRESULT Add([in] int64 a, [out] int32* b);"
         " HRESULT Sub([in] int32 a); };",
         {"interface ICalc, slot 1: method Add changed from ([in] int32, [out] int32*) to "
          "([in] int64, [out] int32*)"}},
        {"interface ICalc : COM_IUnknown { HRESULT Add([in] int32 a, [out] int32* b);"
         " HRESULT Sub([in] int32 a); HRESULT Mul(); };",
         {"interface ICalc, slot 3: method Mul added to a published interface"}},
        {"interface IOther : COM_IUnknown { HRESULT Add([in] int32 a, [out] int32* b);"
         " HRESULT Sub([in] int32 a); };",
         {"interface ICalc {6B0C3F52-1D7E-4F3A-9C2B-0A1B2C3D4E5F}: the uuid now names IOther"}},
    };
    idl::Error error;
    const auto before = ParseText(kHead + kUuid + v1, error);
    ASSERT_NE(before, nullptr) << error.message;
    for (const auto& c : cases) {
        const auto after = ParseText(kHead + kUuid + c.after, error);
        ASSERT_NE(after, nullptr) << error.message;
        std::vector<std::string> breaking, compatible;
        idl::Compare(*before, *after, breaking, compatible);
        EXPECT_EQ(breaking, c.breaking) << c.after;
    }
    // A moved uuid is one line, not a removal and an addition.
    const auto moved = ParseText(
        "import \"veltcom.idl\";\n[uuid(7B0C3F52-1D7E-4F3A-9C2B-0A1B2C3D4E5F)]\n" + v1, error);
    std::vector<std::string> breaking, compatible;
    idl::Compare(*before, *moved, breaking, compatible);
    EXPECT_EQ(breaking,
              std::vector<std::string>{"interface ICalc: uuid 6B0C3F52-1D7E-4F3A-9C2B-"
                                       "0A1B2C3D4E5F became 7B0C3F52-1D7E-4F3A-9C2B-0A1B2C3D4E5F"});
    EXPECT_TRUE(compatible.empty());
}

class IdlCompiler : public TempDirTest {
protected:
    // Runs veltcom-idl in the test's directory; its exit status.
    int Run(const std::string& args) {
        const std::string command = "'" VELTCOM_IDL_COMPILER "' " + args + " >out 2>err";
        const int status = std::system(command.c_str());
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
};

TEST_F(IdlCompiler, FindsTheRuntimeDefinitionsAloneAndReportsFaultsWithTheLineAndACaret) {
    WriteFile("good.idl", kHead + kUuid + "interface ICalc : COM_IUnknown { HRESULT F(); };\n");
    EXPECT_EQ(Run("-o . good.idl"), 0) << ReadFile("err");
    EXPECT_NE(ReadFile("good.h").find("#include <veltcom.h>"), std::string::npos);

    WriteFile("bad.idl", kHead + kUuid +
                             "interface ICalc : COM_IUnknown {\n\tHRESULT F([out] int32 x);\n};\n");
    EXPECT_EQ(Run("bad.idl"), 1);
    EXPECT_EQ(ReadFile("err"),
              "bad.idl:4:18: error: parameter 'x' is [out]: write its type as int32*\n"
              "\tHRESULT F([out] int32 x);\n"
              "\t                ^\n");

    WriteFile("moved.idl", kHead + kUuid + "interface ICalc : COM_IUnknown { HRESULT G(); };\n");
    EXPECT_EQ(Run("--check good.idl moved.idl"), 1);
    EXPECT_EQ(ReadFile("out"), "incompatible: interface ICalc, slot 1: method F replaced by G\n");
    EXPECT_EQ(Run("--check good.idl good.idl"), 0);
    EXPECT_EQ(Run("--check good.idl"), 2);
}

}  // namespace
