// The veltcom tool's conventions and its commands that register, list,
// create and decode, run as a user runs them: the built tool in a temporary
// directory with a registry of its own.
#include <regex>

#include "shared_tool_support.h"

namespace {

using ToolConventions = ToolTest;
using ToolRegister = ToolTest;
using ToolClasses = ToolTest;
using ToolCreate = ToolTest;
using ToolDecode = ToolTest;
using ToolCategories = ToolTest;

TEST_F(ToolConventions, HelpExistsForEveryCommandAndGoesToStdout) {
    const std::string global = RunOk({"--help"}).out;
    for (const char* command : {"register", "unregister", "classes", "create", "reg query",
                                "reg set", "reg delete", "reg export", "decode", "categories",
                                "check"})
        EXPECT_TRUE(Contains(global, std::string("  ") + command)) << command << global;
    const std::vector<std::vector<std::string>> helps = {
        {"help"}, {"-h"}, {"register", "--help"}, {"unregister", "-h"}, {"classes", "--help"},
        {"create", "--help"}, {"reg", "--help"}, {"reg", "query", "--help"}, {"reg", "set", "-h"},
        {"help", "reg", "delete"}, {"reg", "export", "--help"}, {"decode", "--help"},
        {"categories", "--help"}, {"help", "check"}};
    for (const auto& args : helps)
        EXPECT_TRUE(Contains(RunOk(args).out, "Usage: veltcom")) << ::testing::PrintToString(args);
    EXPECT_EQ(RegistryFile(), "") << "help must not open the registry";
}

TEST_F(ToolConventions, UsageErrorsExitWithTwoBeforeTouchingTheRegistry) {
    const std::vector<std::vector<std::string>> cases = {
        {}, {"frobnicate"}, {"reg"}, {"reg", "move", "user", "x"}, {"classes", "extra"},
        {"create"}, {"create", "a", "b"}, {"decode"}, {"decode", "0xZZ"},
        {"decode", "0x123456789"}, {"decode", "4294967296"}, {"decode", "-2147483649"},
        {"decode", "12abc"}, {"reg", "query", "9"}, {"reg", "query", "nowhere"},
        {"reg", "set", "user", "k", "n"}, {"reg", "set", "user", "k", "n", "abc", "--dword"},
        {"reg", "set", "user", "k", "n", "4294967296", "--dword"},
        {"reg", "set", "user", "1bad", "n", "v"}, {"reg", "delete", "user"},
        {"reg", "delete", "user", ""}, {"classes", "--dword"}, {"check", "--verbose"},
        {"--registry"}, {"categories", "not-an-identifier"}, {"help", "nothing"}};
    for (const auto& args : cases) {
        const ToolRun run = Run(args);
        EXPECT_TRUE(Failed(run, 2, "0x80070057", "One or more arguments are invalid") &&
                    run.out.empty()) << ::testing::PrintToString(args) << run;
    }
    EXPECT_EQ(RegistryFile(), "") << "no registry made";
}

TEST_F(ToolConventions, EveryCommandGivesJsonThatParsesBackWithValuesEscaped) {
    // Each listing is read back in its command's own test; these change the registry.
    CopyComponent(COMPONENT_testcounter);
    for (const auto& args : std::vector<std::vector<std::string>>{
             {"register", "libtestcounter.so"}, {"unregister", "libtestcounter.so"},
             {"reg", "set", "user", "k", "n", "v"}, {"reg", "delete", "user", "k"}})
        RunJson(args);

    // Character references put a tab, a line end, a quote, a backslash and a
    // non-ASCII character into a value; JSON escapes the first four.
    WriteFile("Registry.XML",
              HandMadeRegistry("<CLSID/>", "<User><K><item name=\"odd\" type=\"string\" "
                                           "value=\"a&quot;b\\c&#9;d&#10;e &#233;\"/></K></User>"));
    const std::string json = RunJson({"reg", "query", "user", "K"});
    EXPECT_TRUE(Contains(json, R"("name":"odd","type":"string","data":"a\"b\\c\td\ne )"
                               "\xC3\xA9\"")) << json;
}

TEST_F(ToolRegister, RegistersAndUnregistersALibrary) {
    CopyComponent(COMPONENT_testcounter);
    ToolRun run = RunOk({"register", "libtestcounter.so"});
    EXPECT_TRUE(Contains(run.out, "registry file: " + PathOf("Registry.XML") +
                                      "\nregistered libtestcounter.so: 0x00000000 OK status")) << run;
    EXPECT_TRUE(Contains(run.out, "\n  Test.Counter: libtestcounter.so\n")) << run;
    EXPECT_TRUE(Contains(RegistryFile(), Text(CLSID_Counter)));

    // A library outside the working directory is opened by its path; the
    // name it registers is its own file name.
    RunOk({"register", COMPONENT_testcounter});
    EXPECT_TRUE(Contains(RegistryFile(), "<InstallCount default = \"2\"/>"));

    run = RunOk({"unregister", "./libtestcounter.so"});
    EXPECT_TRUE(Contains(run.out, "unregistered ./libtestcounter.so: 0x00000000")) << run;
    EXPECT_TRUE(Contains(RunJson({"unregister", "libtestcounter.so"}),
                         R"("classes":[{"progId":"Test.Counter","inprocServer32":"libtestcounter.so"}])"));
    EXPECT_FALSE(Contains(RegistryFile(), Text(CLSID_Counter)));
}

TEST_F(ToolRegister, SomeClassFailingIsAFailureAndSaysSo) {
    // No classes hive: every class registration fails, which the runtime's
    // RegisterServer reports only as S_FALSE.
    WriteFile("Registry.XML", "<Software><Quorvane><Version><ApplicationData/></Version>"
                              "</Quorvane></Software>");
    CopyComponent(COMPONENT_testcounter);
    EXPECT_TRUE(Failed(Run({"register", "libtestcounter.so"}), 1, "0x00000001",
                       "some class failed to register"));
    const std::string json = RunJson({"register", "libtestcounter.so"}, 1);
    EXPECT_TRUE(Contains(json, R"("ok":false,"code":"0x00000001")")) << json;

    // Unregistering a library that was never registered fails alike.
    WriteFile("Registry.XML", HandMadeRegistry("<CLSID/>"));
    EXPECT_TRUE(Failed(Run({"unregister", "libtestcounter.so"}), 1, "0x00000001",
                       "some class failed to unregister"));
}

TEST_F(ToolRegister, MissingLibrariesAndBorrowedEntryPointsAreErrors) {
    CopyComponent(COMPONENT_testcounter);
    CopyComponent(COMPONENT_testfaulty);
    const ToolRun run = Run({"register", "nosuch.so", "libtestcounter.so"});
    EXPECT_TRUE(Failed(run, 1, "0x800401F8", "nosuch.so"));
    EXPECT_TRUE(Contains(run.out, "registered libtestcounter.so")) << "the other one all the same";

    // The faulty component defines no DllRegisterServer; the one the loader
    // finds through its dependencies is the runtime's, which must not run.
    EXPECT_TRUE(
        Failed(Run({"register", "libtestfaulty.so"}), 1, "0x800401F9", "DllRegisterServer"));
    EXPECT_FALSE(Contains(RegistryFile(), "libveltcom.so"));
}

TEST_F(ToolClasses, ListsEveryClassWithItsEntriesAndShowsMissingOnesAsMissing) {
    ToolRun run = RunOk({"classes"});
    EXPECT_TRUE(Contains(run.out, "no classes registered")) << run;
    EXPECT_TRUE(Contains(RunJson({"classes"}), "\"classes\":[]"));

    RegisterWithTool(COMPONENT_testcounter);
    RegisterWithTool(COMPONENT_testcounter);
    run = RunOk({"classes"});
    EXPECT_TRUE(std::regex_search(run.out, std::regex(Text(CLSID_Counter) + " +Test.Counter +"
                                                      "libtestcounter.so +2 +Test counter\n")))
        << run;
    std::string json = RunJson({"classes"});
    EXPECT_TRUE(Contains(json, "\"classes\":[{\"clsid\":\"" + Text(CLSID_Counter) +
                                   R"(","progid":"Test.Counter","inprocServer32":)"
                                   R"("libtestcounter.so","installCount":2,"displayName":)"
                                   R"("Test counter","description":"Counts calls"}])")) << json;

    const std::string bare = "_5A1E0009-0000-4000-8000-0000000000A9_";
    WriteFile("Registry.XML", HandMadeRegistry("<CLSID><" + bare + "><InstallCount default="
                                               "\"many\"/></" + bare + "></CLSID>"));
    json = RunJson({"classes"});
    EXPECT_TRUE(Contains(json, "{\"clsid\":\"" + bare + R"(","progid":null,"inprocServer32":null,)"
                                   R"("installCount":null,"displayName":null)")) << json;
}

TEST_F(ToolCreate, CreatesByProgIdOrIdentifierAndListsTheRuntimeInterfaces) {
    RegisterWithTool(COMPONENT_testcounter);
    const ToolRun run = RunOk({"create", "Test.Counter"});
    EXPECT_EQ(run.out, "created " + Text(CLSID_Counter) +
                           " (Test.Counter)\nruntime interfaces it answers:\n  COM_IID_IUnknown\n");

    // Braces name the same class as the runtime's underscores.
    std::string json = RunJson({"create", "{" + Text(CLSID_Counter).substr(1, 36) + "}"});
    EXPECT_TRUE(Contains(json, "{\"clsid\":\"" + Text(CLSID_Counter) +
                                   R"(","progid":"Test.Counter","created":true,)"
                                   R"("interfaces":["COM_IID_IUnknown"]})"))
        << json;
    // A built-in class needs no registration.
    json = RunJson({"create", Text(COM_CLSID_CategoryManager)});
    EXPECT_TRUE(Contains(json, R"("interfaces":["COM_IID_IUnknown","COM_IID_ICatRegister",)"
                               R"("COM_IID_ICatInformation"])"))
        << json;
}

TEST_F(ToolCreate, FailuresGiveTheCodeItsTextAndTheErrorInformation) {
    const ToolRun run = Run({"create", Text(CLSID_Counter)});
    EXPECT_TRUE(Failed(run, 1, "0x80040111", "CoClass not available"));
    EXPECT_TRUE(Contains(run.err, "\"" + Text(CLSID_Counter) + "\" at JCOM_API:COM_CreateInstance"))
        << run;
    EXPECT_TRUE(Failed(Run({"create", "No.Such.ProgID"}), 1, "0x80040111", "No.Such.ProgID"));

    // Registered, but its library has gone from the working directory.
    RegisterWithTool(COMPONENT_testcounter);
    ASSERT_EQ(unlink(PathOf("libtestcounter.so").c_str()), 0);
    EXPECT_TRUE(Failed(Run({"create", "Test.Counter"}), 1, "0x800401F8", "libtestcounter.so"));
    const std::string json = RunJson({"create", "Test.Counter"}, 1);
    EXPECT_TRUE(Contains(json, R"("created":false,"code":"0x800401F8")")) << json;
    EXPECT_TRUE(Contains(json, "JCOM_API:COM_CreateInstance")) << json;

    // A factory that fails, and one that reports success without a factory:
    // the second makes the runtime throw, which must not end the tool.
    CopyComponent(COMPONENT_testfaulty);
    for (const COM_GUID* id : {&CLSID_FailingFactory, &CLSID_NullFactory})
        ASSERT_EQ(Run({"reg", "set", "classes", "CLSID\\" + Text(*id) + "\\InprocServer32", "",
                       "libtestfaulty.so"}).exitCode, 0);
    EXPECT_TRUE(Failed(Run({"create", Text(CLSID_FailingFactory)}), 1, "0x80040110",
                       "Can't aggregate this object"));
    EXPECT_TRUE(
        Failed(Run({"create", Text(CLSID_NullFactory)}), 1, "0x80004003", "no class factory"));
}

TEST_F(ToolDecode, AcceptsHexDecimalAndNegativeCodes) {
    const ToolRun run = RunOk({"decode", "0x80004001", "2147500033", "-2147467263"});
    const std::string line = "0x80004001  Method not implemented [80004001]\n";
    EXPECT_EQ(run.out, line + line + line);

    // Facility 98 is the system's own text, without the bracketed code.
    const std::string json = RunJson({"decode", "0", "0x80620002", "0x80630001"});
    for (const char* code :
         {R"("value":0,"facility":0,"source":"table","text":"OK status [       0]")",
          R"("facility":98,"source":"system","text":"No such file or directory")",
          R"("value":-2140995583,"facility":99,"source":"table",)"
          R"("text":"Unknown error [80630001]")"})
        EXPECT_TRUE(Contains(json, code)) << code << "\n" << json;
    EXPECT_EQ(RegistryFile(), "") << "the table needs no registry";
}

TEST_F(ToolDecode, HigherFacilitiesAreDecodedByTheRegisteredDecoder) {
    // Without the runtime's own registration there is no hresult binder.
    EXPECT_TRUE(Failed(Run({"decode", "0x80680001"}), 1, "0x80040111", "binder is not registered"));

    RunOk({"register", "libveltcom.so"});
    RegisterWithTool(COMPONENT_testplaindecoder);
    const ToolRun run = Run({"decode", "0x80680001", "0x806F0005"});
    EXPECT_EQ(run.out, "0x80680001  plain decoder: code 80680001, flags 0\n");
    EXPECT_TRUE(Failed(run, 1, "0x80040111", "hresult:6F"));
    EXPECT_TRUE(Contains(run.err, "no decoder is registered")) << run;

    const std::string json = RunJson({"decode", "0x80680001", "0x806F0005"}, 1);
    EXPECT_TRUE(Contains(json, R"("source":"decoder")")) << json;
    EXPECT_TRUE(Contains(json, R"("facility":111,"error":{"code":"0x80040111")")) << json;
}

TEST_F(ToolCategories, ListsCategoriesAndTheClassesOfOne) {
    RegisterWithTool(COMPONENT_testcategories);
    const std::string tools = Text(CATID_TestTools), viewers = Text(CATID_TestViewers);
    ASSERT_EQ(Run({"reg", "set", "classes", "ComponentCategories\\" + tools, "", "Test tools"})
                  .exitCode, 0);

    ToolRun run = RunOk({"categories"});
    EXPECT_TRUE(Contains(run.out, tools + "  Test tools  (1 class)")) << run;
    // The component never described this one: listed, not a failure.
    EXPECT_TRUE(Contains(run.out, viewers + "  (no description)  (2 classes)")) << run;
    std::string json = RunJson({"categories"});
    EXPECT_TRUE(Contains(json, R"("description":"Test tools")")) << json;
    EXPECT_TRUE(Contains(json, R"("description":null)")) << json;

    run = RunOk({"categories", viewers});
    EXPECT_TRUE(Contains(run.out, Text(CLSID_CatWidget) + "  Test.CatWidget")) << run;
    EXPECT_TRUE(Contains(run.out, Text(CLSID_CatViewer) + "  Test.CatViewer")) << run;
    json = RunJson({"categories", viewers});
    EXPECT_TRUE(Contains(json, R"("registered":true)")) << json;

    EXPECT_TRUE(
        Failed(Run({"categories", Text(CLSID_Counter)}), 1, "0x80040152", "no category"));
}

}  // namespace
