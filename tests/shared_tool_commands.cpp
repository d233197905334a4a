// The veltcom tool's conventions and its commands that register, list,
// create and decode, run as a user runs them: the built tool in a temporary
// directory with a registry of its own.
#include <regex>

#include "shared_tool_support.h"

namespace {

using ToolConventions = ToolTest;
using ToolCommands = ToolTest;

TEST_F(ToolConventions, HelpExistsForEveryCommandAndGoesToStdout) {
    const std::string global = RunOk({"--help"}).out;
    for (const char* command : {"register", "unregister", "classes", "create", "reg query",
                                "reg set", "reg delete", "reg export", "decode", "categories",
                                "check"})
        EXPECT_TRUE(Contains(global, std::string("  ") + command)) << command << global;
    std::vector<Case> helps;
    for (const auto& args : std::vector<std::vector<std::string>>{
             {"help"}, {"-h"}, {"register", "--help"}, {"unregister", "-h"}, {"classes", "--help"},
             {"create", "--help"}, {"reg", "--help"}, {"reg", "query", "--help"},
             {"reg", "set", "-h"}, {"help", "reg", "delete"}, {"reg", "export", "--help"},
             {"decode", "--help"}, {"categories", "--help"}, {"help", "check"}})
        helps.push_back({args, 0, {"Usage: veltcom"}});
    // Every usage error exits with 2 before the registry is touched.
    for (const auto& args : std::vector<std::vector<std::string>>{
             {}, {"frobnicate"}, {"reg"}, {"reg", "move", "user", "x"}, {"classes", "extra"},
             {"create"}, {"create", "a", "b"}, {"decode"}, {"decode", "0xZZ"},
             {"decode", "0x123456789"}, {"decode", "4294967296"}, {"decode", "-2147483649"},
             {"decode", "12abc"}, {"reg", "query", "9"}, {"reg", "query", "nowhere"},
             {"reg", "set", "user", "k", "n"}, {"reg", "set", "user", "k", "n", "abc", "--dword"},
             {"reg", "set", "user", "k", "n", "4294967296", "--dword"},
             {"reg", "set", "user", "1bad", "n", "v"}, {"reg", "delete", "user"},
             {"reg", "delete", "user", ""}, {"classes", "--dword"}, {"check", "--verbose"},
             {"--registry"}, {"categories", "not-an-identifier"}, {"help", "nothing"}})
        helps.push_back({args, 2, {}, {"0x80070057", "One or more arguments are invalid"}});
    Expect(helps);
    EXPECT_EQ(RegistryFile(), "") << "neither help nor a usage error opens the registry";
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
    Expect({{{"reg", "query", "user", "K", "--json"}, 0,
             {R"("name":"odd","type":"string","data":"a\"b\\c\td\ne )" "\xC3\xA9\""}}});
}

TEST_F(ToolCommands, RegisterAndUnregister) {
    CopyComponent(COMPONENT_testcounter);
    CopyComponent(COMPONENT_testfaulty);
    const std::string counter = Text(CLSID_Counter);
    Expect({
        {{"register", "libtestcounter.so"}, 0,
         {"registry file: " + PathOf("Registry.XML") +
              "\nregistered libtestcounter.so: 0x00000000 OK status",
          "\n  Test.Counter: libtestcounter.so\n"}},
        // A library outside the working directory is opened by its path; the
        // name it registers is its own file name.
        {{"register", COMPONENT_testcounter}, 0, {}},
    });
    EXPECT_TRUE(Contains(RegistryFile(), "<InstallCount default = \"2\"/>")) << RegistryFile();
    Expect({
        {{"unregister", "./libtestcounter.so"}, 0, {"unregistered ./libtestcounter.so: 0x00000000"}},
        {{"unregister", "libtestcounter.so", "--json"}, 0,
         {R"("classes":[{"progId":"Test.Counter","inprocServer32":"libtestcounter.so"}])"}},
    });
    EXPECT_FALSE(Contains(RegistryFile(), counter));
    Expect({
        // One library missing: the other one is registered all the same.
        {{"register", "nosuch.so", "libtestcounter.so"}, 1, {"registered libtestcounter.so"},
         {"0x800401F8", "nosuch.so"}},
        // The faulty component defines no DllRegisterServer; the one the
        // loader finds through its dependencies is the runtime's, which must
        // not run.
        {{"register", "libtestfaulty.so"}, 1, {"registry file: "}, {"0x800401F9", "DllRegisterServer"}},
    });
    EXPECT_FALSE(Contains(RegistryFile(), "libveltcom.so"));

    // No classes hive: every class registration fails, which the runtime's
    // RegisterServer reports only as S_FALSE.
    WriteFile("Registry.XML", "<Software><Quorvane><Version><ApplicationData/></Version>"
                              "</Quorvane></Software>");
    Expect({{{"register", "libtestcounter.so"}, 1, {"registry file: "},
             {"0x00000001", "some class failed to register"}},
            {{"register", "libtestcounter.so", "--json"}, 1, {R"("ok":false,"code":"0x00000001")"}}});
    // Unregistering a library that was never registered fails alike.
    WriteFile("Registry.XML", HandMadeRegistry("<CLSID/>"));
    Expect({{{"unregister", "libtestcounter.so"}, 1, {"registry file: "},
             {"0x00000001", "some class failed to unregister"}}});
}

TEST_F(ToolCommands, ClassesListsEveryClassWithItsEntriesAndShowsMissingOnesAsMissing) {
    Expect({{{"classes"}, 0, {"no classes registered"}},
            {{"classes", "--json"}, 0, {"\"classes\":[]"}}});
    RegisterWithTool(COMPONENT_testcounter);
    RegisterWithTool(COMPONENT_testcounter);
    const ToolRun run = RunOk({"classes"});
    EXPECT_TRUE(std::regex_search(run.out, std::regex(Text(CLSID_Counter) + " +Test.Counter +"
                                                      "libtestcounter.so +2 +Test counter\n")))
        << run;
    Expect({{{"classes", "--json"}, 0,
             {"\"classes\":[{\"clsid\":\"" + Text(CLSID_Counter) +
              R"(","progid":"Test.Counter","inprocServer32":"libtestcounter.so","installCount":2,)"
              R"("displayName":"Test counter","description":"Counts calls"}])"}}});

    const std::string bare = "_5A1E0009-0000-4000-8000-0000000000A9_";
    WriteFile("Registry.XML", HandMadeRegistry("<CLSID><" + bare + "><InstallCount default="
                                               "\"many\"/></" + bare + "></CLSID>"));
    Expect({{{"classes", "--json"}, 0,
             {"{\"clsid\":\"" + bare + R"(","progid":null,"inprocServer32":null,)"
              R"("installCount":null,"displayName":null)"}}});
}

TEST_F(ToolCommands, CreateByProgIdOrIdentifierAndItsFailures) {
    const std::string counter = Text(CLSID_Counter);
    Expect({
        {{"create", counter}, 1, {},
         {"0x80040111", "CoClass not available",
          "\"" + counter + "\" at JCOM_API:COM_CreateInstance"}},
        {{"create", "No.Such.ProgID"}, 1, {}, {"0x80040111", "No.Such.ProgID"}},
        // A built-in class needs no registration.
        {{"create", Text(COM_CLSID_CategoryManager), "--json"}, 0,
         {R"("interfaces":["COM_IID_IUnknown","COM_IID_ICatRegister","COM_IID_ICatInformation"])"}},
    });
    RegisterWithTool(COMPONENT_testcounter);
    EXPECT_EQ(RunOk({"create", "Test.Counter"}).out,
              "created " + counter + " (Test.Counter)\nruntime interfaces it answers:\n"
              "  COM_IID_IUnknown\n");
    // Braces name the same class as the runtime's underscores.
    Expect({{{"create", "{" + counter.substr(1, 36) + "}", "--json"}, 0,
             {"{\"clsid\":\"" + counter + R"(","progid":"Test.Counter","created":true,)"
              R"("interfaces":["COM_IID_IUnknown"]})"}}});

    // Registered, but its library has gone from the working directory; a
    // factory that fails, and one that reports success without a factory:
    // the last makes the runtime throw, which must not end the tool.
    ASSERT_EQ(unlink(PathOf("libtestcounter.so").c_str()), 0);
    CopyComponent(COMPONENT_testfaulty);
    for (const COM_GUID* id : {&CLSID_FailingFactory, &CLSID_NullFactory})
        RunOk({"reg", "set", "classes", "CLSID\\" + Text(*id) + "\\InprocServer32", "",
               "libtestfaulty.so"});
    Expect({
        {{"create", "Test.Counter"}, 1, {}, {"0x800401F8", "libtestcounter.so"}},
        {{"create", "Test.Counter", "--json"}, 1,
         {R"("created":false,"code":"0x800401F8")", "JCOM_API:COM_CreateInstance"}},
        {{"create", Text(CLSID_FailingFactory)}, 1, {}, {"0x80040110", "Can't aggregate this object"}},
        {{"create", Text(CLSID_NullFactory)}, 1, {}, {"0x80004003", "no class factory"}},
    });
}

TEST_F(ToolCommands, DecodeAcceptsHexDecimalAndNegativeCodesAndAsksTheRegisteredDecoder) {
    const std::string line = "0x80004001  Method not implemented [80004001]\n";
    EXPECT_EQ(RunOk({"decode", "0x80004001", "2147500033", "-2147467263"}).out, line + line + line);
    // Facility 98 is the system's own text, without the bracketed code.
    Expect({{{"decode", "0", "0x80620002", "0x80630001", "--json"}, 0,
             {R"("value":0,"facility":0,"source":"table","text":"OK status [       0]")",
              R"("facility":98,"source":"system","text":"No such file or directory")",
              R"("value":-2140995583,"facility":99,"source":"table",)"
              R"("text":"Unknown error [80630001]")"}}});
    EXPECT_EQ(RegistryFile(), "") << "the table needs no registry";
    // Without the runtime's own registration there is no hresult binder.
    Expect({{{"decode", "0x80680001"}, 1, {}, {"0x80040111", "binder is not registered"}}});

    RunOk({"register", "libveltcom.so"});
    RegisterWithTool(COMPONENT_testplaindecoder);
    const ToolRun run = Run({"decode", "0x80680001", "0x806F0005"});
    EXPECT_EQ(run.out, "0x80680001  plain decoder: code 80680001, flags 0\n");
    EXPECT_TRUE(Failed(run, 1, "0x80040111", "hresult:6F") && Contains(run.err, "no decoder is"))
        << run;
    Expect({{{"decode", "0x80680001", "0x806F0005", "--json"}, 1,
             {R"("source":"decoder")", R"("facility":111,"error":{"code":"0x80040111")"}}});
}

TEST_F(ToolCommands, CategoriesListsCategoriesAndTheClassesOfOne) {
    RegisterWithTool(COMPONENT_testcategories);
    const std::string tools = Text(CATID_TestTools), viewers = Text(CATID_TestViewers);
    RunOk({"reg", "set", "classes", "ComponentCategories\\" + tools, "", "Test tools"});
    Expect({
        // The component never described the viewers: listed, not a failure.
        {{"categories"}, 0,
         {tools + "  Test tools  (1 class)", viewers + "  (no description)  (2 classes)"}},
        {{"categories", "--json"}, 0, {R"("description":"Test tools")", R"("description":null)"}},
        {{"categories", viewers}, 0,
         {Text(CLSID_CatWidget) + "  Test.CatWidget", Text(CLSID_CatViewer) + "  Test.CatViewer"}},
        {{"categories", viewers, "--json"}, 0, {R"("registered":true)"}},
        {{"categories", Text(CLSID_Counter)}, 1, {}, {"0x80040152", "no category"}},
    });
}

}  // namespace
