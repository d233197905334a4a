// The interface definition compiler: a declared facility's decoder, malformed
// definitions refused at the right place, and --check's verdicts.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <fstream>
#include <iterator>
#include <map>

#include "idl.h"
#include "idlSample.h"
#include "testSupport.h"

namespace {

// A declared text of any length is handed back whole, code and all.
wchar_t g_longText[2000];
const COM_STATUSTEXT kLongTexts[] = {{static_cast<HRESULT>(0x807A0003u), g_longText}};
const COM_FACILITYINFO kLongFacility = {0x7A, kLongTexts, 1, L"Unknown"};

TEST(IdlGenerated, FacilityDecoderGivesUndeclaredCodesTheGenericTextAndKeepsLongTextsWhole) {
    const std::wstring longText(1999, L'x');
    std::wcscpy(g_longText, longText.c_str());
    COM_CStatusDecoder<&FACILITY_SAMPLE> sample;
    COM_CStatusDecoder<&kLongFacility> longTexts;
    wchar_t* text = nullptr;
    EXPECT_EQ(sample.DecodeHResult(static_cast<HRESULT>(0x807A0009u), 0, &text), S_FALSE);
    EXPECT_EQ(Take(text), L"Unknown status of facility 0x7A [807A0009]");
    EXPECT_EQ(longTexts.DecodeHResult(kLongTexts[0].code, 0, &text), S_OK);
    EXPECT_EQ(Take(text), longText + L" [807A0003]");
}

// Parses `text` as main.idl beside the files of `others`; veltcom.idl is the
// runtime's own.
std::shared_ptr<idl::Definitions> ParseText(const std::string& text, idl::Error& error,
                                            std::map<std::string, std::string> others = {}) {
    std::ifstream runtime(VELTCOM_IDL_PATH);
    others["veltcom.idl"].assign(std::istreambuf_iterator<char>(runtime), {});
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
// An interface I up to its methods.
const std::string kI = kUuid + "interface I : COM_IUnknown { ";

TEST(IdlErrors, MalformedDefinitionsAreRefusedWithMessageAndPlace) {
    const struct {
        std::string text;
        int line, column;
        std::string message;
        std::string file = "main.idl";
    } cases[] = {
        {kUuid + "interface I : COM_IUnknown {}", 3, 30, "expected ';', found end of file"},
        {kUuid + "interface I : IMissing {};", 3, 15, "unknown base interface 'IMissing'"},
        {kUuid + "interface I {};", 3, 13, "interface 'I' must name its base"},
        {kI + "int32 F(); };", 3, 30, "methods return HRESULT"},
        {kI + "HRESULT F([in] BSTR* x); };", 3, 45,
         "parameter 'x' is [in]: write its type as BSTR"},
        {kI + "HRESULT F([out] wstring* x); };", 3, 46, "wstring is for [in] parameters only"},
        {kI + "HRESULT F([out, retval] int32* a, [in] int32 b); };", 3, 40,
         "retval is for the last parameter, [out] only"},
        {kI + "HRESULT F([out, iid_is(q)] void** p); };", 3, 40,
         "iid_is names a GUID parameter of the same method"},
        {kI + "HRESULT F([in] Nothing x); };", 3, 45, "unknown type 'Nothing'"},
        {kI + "HRESULT F(); HRESULT F(); };", 3, 51, "method 'F' is declared twice"},
        {kI + "HRESULT F([in] int32 new); };", 3, 51, "'new' is a C++ keyword"},
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
        // A fault in an imported file is reported in that file.
        {"import \"bad.idl\";", 2, 3, "expected a definition, found 'oops'", "bad.idl"},
    };
    for (const auto& c : cases) {
        idl::Error error;
        EXPECT_EQ(ParseText(kHead + c.text, error, {{"bad.idl", "\n  oops"}}), nullptr) << c.text;
        EXPECT_EQ(error.message, c.message) << c.text;
        EXPECT_EQ(error.place.line, c.line) << c.text;
        EXPECT_EQ(error.place.column, c.column) << c.text;
        EXPECT_EQ(error.file, c.file) << c.text;
    }
}

TEST(IdlCheck, ChangesThatBreakCallersOrImplementersAreTold) {
    const std::string calc = "interface ICalc : COM_IUnknown { ";
    const std::string add = "HRESULT Add([in] int32 a, [out] int32* b); ";
    const std::string sub = "HRESULT Sub([in] int32 a); ";
    const std::string v1 = calc + add + sub + "};\n";
    const struct {
        std::string after;
        std::vector<std::string> breaking, compatible = {};
        std::string uuid = kUuid;
    } cases[] = {
        {v1 + "[uuid(1E3F4A5B-6C7D-4E8F-9A0B-1C2D3E4F5A6B)] interface INew : ICalc {};",
         {},
         {"interface INew: added"}},
        {calc + sub + add + "};",
         {"interface ICalc, slot 1: method Add replaced by Sub",
          "interface ICalc, slot 2: method Sub replaced by Add"}},
        {calc + add + "};", {"interface ICalc, slot 2: method Sub removed"}},
        {calc + "HRESULT Add([in] int64 a, [out] int32* b); " + sub + "};",
         {"interface ICalc, slot 1: method Add changed from ([in] int32, [out] int32*) to "
          "([in] int64, [out] int32*)"}},
        {calc + add + sub + "HRESULT Mul(); };",
         {"interface ICalc, slot 3: method Mul added to a published interface"}},
        {"interface IOther : COM_IUnknown { " + add + sub + "};",
         {"interface ICalc {6B0C3F52-1D7E-4F3A-9C2B-0A1B2C3D4E5F}: the uuid now names IOther"}},
        // A moved uuid is one line, not a removal and an addition.
        {v1,
         {"interface ICalc: uuid 6B0C3F52-1D7E-4F3A-9C2B-0A1B2C3D4E5F became "
          "7B0C3F52-1D7E-4F3A-9C2B-0A1B2C3D4E5F"},
         {},
         "[uuid(7B0C3F52-1D7E-4F3A-9C2B-0A1B2C3D4E5F)]\n"},
    };
    idl::Error error;
    const auto before = ParseText(kHead + kUuid + v1, error);
    ASSERT_NE(before, nullptr) << error.message;
    for (const auto& c : cases) {
        const auto after = ParseText(kHead + c.uuid + c.after, error);
        ASSERT_NE(after, nullptr) << error.message;
        std::vector<std::string> breaking, compatible;
        idl::Compare(*before, *after, breaking, compatible);
        EXPECT_EQ(breaking, c.breaking) << c.after;
        EXPECT_EQ(compatible, c.compatible) << c.after;
    }
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
