// The veltcom tool's conventions and its commands that register, list,
// create and decode, run as a user runs them: the built tool in a temporary
// directory with a registry of its own.
#include "shared_tool_support.h"

namespace {

using ToolConventions = ToolTest;
using ToolCommands = ToolTest;

// Help, for the whole tool or one command, and every usage error: the JSON
// of each command is checked as it runs (ToolTest::Run).
TEST_F(ToolConventions, HelpGoesToStdoutAndUsageErrorsExitWithTwoBeforeTouchingTheRegistry) {
    std::vector<Case> cases;
    for (const auto& args : std::vector<std::vector<std::string>>{
             {"--help"}, {"help"}, {"-h"}, {"reg", "--help"}, {"reg", "set", "-h"},
             {"help", "reg", "delete"}, {"help", "check"}, {"unregister", "-h"}})
        cases.push_back({args, 0, {"Usage: veltcom"}});
    for (const auto& args : std::vector<std::vector<std::string>>{
             {}, {"frobnicate"}, {"reg"}, {"reg", "move", "user", "x"}, {"classes", "extra"},
             {"create"}, {"create", "a", "b"}, {"decode"}, {"decode", "0xZZ"},
             {"decode", "0x123456789"}, {"decode", "4294967296"}, {"decode", "-2147483649"},
             {"decode", "12abc"}, {"reg", "query", "9"}, {"reg", "query", "nowhere"},
             {"reg", "set", "user", "k", "n"}, {"reg", "set", "user", "k", "n", "abc", "--dword"},
             {"reg", "set", "user", "k", "n", "4294967296", "--dword"},
             // Text the registry file would not read back as given.
             {"reg", "set", "user", "1bad", "n", "v"}, {"reg", "set", "user", "K\\item", "n", "v"},
             {"reg", "set", "user", "K", "n", "caf\xC3\xA9"},
             {"reg", "set", "user", "K", "two\nlines", "v"}, {"reg", "delete", "user"},
             {"reg", "delete", "user", ""}, {"classes", "--dword"}, {"check", "--verbose"},
             {"--registry"}, {"categories", "not-an-identifier"}, {"help", "nothing"}})
        cases.push_back({args, 2, {}, {"0x80070057", "One or more arguments are invalid"}});
    Expect(cases);
    EXPECT_EQ(RegistryFile(), "") << "neither help nor a usage error opens the registry";
}

// register, classes, create and unregister on one registry, in turn.
TEST_F(ToolCommands, RegisterListCreateAndUnregister) {
    CopyComponent(COMPONENT_testcounter);
    CopyComponent(COMPONENT_testfaulty);
    const std::string counter = Text(CLSID_Counter);
    const std::string bare = "_5A1E0009-0000-4000-8000-0000000000A9_";
    Expect({
        {{"classes"}, 0, {"no classes registered"}},
        {{"create", counter, "--json"}, 1,
         {R"("created":false,"code":"0x80040111")", "JCOM_API:COM_CreateInstance"},
         {"0x80040111", "CoClass not available",
          "\"" + counter + "\" at JCOM_API:COM_CreateInstance"}},
        {{"create", "No.Such.ProgID"}, 1, {}, {"0x80040111", "No.Such.ProgID"}},
        {{"register", "libtestcounter.so"}, 0,
         {"registry file: " + PathOf("Registry.XML") +
              "\nregistered libtestcounter.so: 0x00000000 OK status",
          "\n  Test.Counter: libtestcounter.so\n"}},
        // A library outside the working directory is opened by its path; the
        // name it registers is its own file name.
        {{"register", COMPONENT_testcounter}, 0},
        {{"classes"}, 0,
         {"\n" + counter + "  Test.Counter  libtestcounter.so  2      Test counter\n"}},
        {{"classes", "--json"}, 0,
         {"\"classes\":[{\"clsid\":\"" + counter +
          R"(","progid":"Test.Counter","inprocServer32":"libtestcounter.so","installCount":2,)"
          R"("displayName":"Test counter","description":"Counts calls"}])"}},
        {{"create", "Test.Counter"}, 0,
         {"created " + counter + " (Test.Counter)\nruntime interfaces it answers:\n"
          "  COM_IID_IUnknown\n"}},
        // Braces name the same class as the runtime's underscores.
        {{"create", "{" + counter.substr(1, 36) + "}", "--json"}, 0,
         {"{\"clsid\":\"" + counter + R"(","progid":"Test.Counter","created":true,)"
          R"("interfaces":["COM_IID_IUnknown"]})"}},
        {{"unregister", "./libtestcounter.so"}, 0, {"unregistered ./libtestcounter.so: 0x00000000"}},
        {{"unregister", "libtestcounter.so", "--json"}, 0,
         {R"("classes":[{"progId":"Test.Counter","inprocServer32":"libtestcounter.so"}])"}},
        // A class key without entries is listed with nulls, and alone.
        {{"reg", "set", "classes", "CLSID\\" + bare + "\\InstallCount", "", "many"}, 0},
        {{"classes", "--json"}, 0,
         {"\"classes\":[{\"clsid\":\"" + bare + R"(","progid":null,"inprocServer32":null,)"
          R"("installCount":null,"displayName":null,"description":null}])"}},
        // One library missing: the other one is registered all the same.
        {{"register", "nosuch.so", "libtestcounter.so"}, 1, {"registered libtestcounter.so"},
         {"0x800401F8", "nosuch.so"}},
        // The faulty component defines no DllRegisterServer; the one the
        // loader finds through its dependencies is the runtime's, which must
        // not run.
        {{"register", "libtestfaulty.so"}, 1, {"registry file: "}, {"0x800401F9", "DllRegisterServer"}},
    });
    EXPECT_FALSE(Contains(RegistryFile(), "libveltcom.so"));
    // A library that reports success without a factory makes the runtime
    // throw, which must not end the tool.
    RunOk({"reg", "set", "classes", "CLSID\\" + Text(CLSID_NullFactory) + "\\InprocServer32", "",
           "libtestfaulty.so"});
    Expect({{{"create", Text(CLSID_NullFactory)}, 1, {}, {"0x80004003", "no class factory"}}});

    // No classes hive: every class registration fails, which the runtime's
    // RegisterServer reports only as S_FALSE.
    WriteFile("Registry.XML", "<Software><Quorvane><Version><ApplicationData/></Version>"
                              "</Quorvane></Software>");
    Expect({{{"register", "libtestcounter.so"}, 1, {"registry file: "},
             {"0x00000001", "some class failed to register"}}});
}

TEST_F(ToolCommands, DecodeAcceptsHexDecimalAndNegativeCodesAndAsksTheRegisteredDecoder) {
    const std::string line = "0x80004001  Method not implemented [80004001]\n";
    Expect({
        {{"decode", "0x80004001", "2147500033", "-2147467263"}, 0, {line + line + line}},
        // Facility 98 is the system's own text, without the bracketed code.
        {{"decode", "0", "0x80620002", "0x80630001", "--json"}, 0,
         {R"("value":0,"facility":0,"source":"table","text":"OK status [       0]")",
          R"("facility":98,"source":"system","text":"No such file or directory")",
          R"("value":-2140995583,"facility":99,"source":"table",)"
          R"("text":"Unknown error [80630001]")"}},
        // Without the runtime's own registration there is no hresult binder.
        {{"decode", "0x80680001"}, 1, {}, {"0x80040111", "binder is not registered"}},
    });

    RunOk({"register", "libveltcom.so"});
    RegisterWithTool(COMPONENT_testplaindecoder);
    Expect({{{"decode", "0x80680001", "0x806F0005", "--json"}, 1,
             {R"("source":"decoder","text":"plain decoder: code 80680001, flags 0")",
              R"("facility":111,"error":{"code":"0x80040111")"},
             {"0x80040111", "hresult:6F", "no decoder is"}}});
}

TEST_F(ToolCommands, CategoriesListsCategoriesAndTheClassesOfOne) {
    RegisterWithTool(COMPONENT_testcategories);
    const std::string tools = Text(CATID_TestTools), viewers = Text(CATID_TestViewers);
    RunOk({"reg", "set", "classes", "ComponentCategories\\" + tools, "", "Test tools"});
    Expect({
        // The component never described the viewers: listed, not a failure.
        {{"categories"}, 0,
         {tools + "  Test tools  (1 class)", viewers + "  (no description)  (2 classes)"}},
        {{"categories", viewers}, 0,
         {Text(CLSID_CatWidget) + "  Test.CatWidget", Text(CLSID_CatViewer) + "  Test.CatViewer"}},
        {{"categories", viewers, "--json"}, 0, {R"("registered":true)"}},
        {{"categories", Text(CLSID_Counter)}, 1, {}, {"0x80040152", "no category"}},
    });
}

}  // namespace
