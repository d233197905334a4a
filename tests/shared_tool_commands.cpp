// The veltcom tool's conventions and its commands that register, list,
// create and decode, run as a user runs them: the built tool in a temporary
// directory with a registry of its own.
#include <sys/stat.h>

#include "shared_tool_support.h"
#include "testComponents.h"

namespace {

std::string Text(const COM_GUID& id) {
    const std::wstring text = TextOf(id);
    return std::string(text.begin(), text.end());
}

bool Contains(const std::string& haystack, const std::string& needle) {
    return haystack.find(needle) != std::string::npos;
}

bool Exists(const std::string& path) {
    struct stat info;
    return stat(path.c_str(), &info) == 0;
}

using ToolConventions = ToolTest;
using ToolRegister = ToolTest;
using ToolClasses = ToolTest;
using ToolCreate = ToolTest;
using ToolDecode = ToolTest;
using ToolCategories = ToolTest;

TEST_F(ToolConventions, HelpExistsForEveryCommandAndGoesToStdout) {
    const ToolRun global = Run({"--help"});
    EXPECT_EQ(global.exitCode, 0) << global;
    EXPECT_TRUE(global.err.empty()) << global;
    for (const char* command : {"register", "unregister", "classes", "create", "reg query",
                                "reg set", "reg delete", "reg export", "decode", "categories",
                                "check"})
        EXPECT_TRUE(Contains(global.out, std::string("  ") + command)) << command << global;

    const std::vector<std::vector<std::string>> helps = {
        {"help"},           {"-h"},
        {"register", "--help"}, {"unregister", "-h"},
        {"classes", "--help"},  {"create", "--help"},
        {"reg", "--help"},      {"reg", "query", "--help"},
        {"reg", "set", "-h"},   {"help", "reg", "delete"},
        {"reg", "export", "--help"}, {"decode", "--help"},
        {"categories", "--help"},    {"help", "check"}};
    for (const auto& args : helps) {
        const ToolRun run = Run(args);
        EXPECT_EQ(run.exitCode, 0) << args[0] << run;
        EXPECT_TRUE(Contains(run.out, "Usage: veltcom")) << args[0] << run;
        EXPECT_TRUE(run.err.empty()) << run;
    }
    EXPECT_FALSE(Exists(PathOf("Registry.XML"))) << "help must not open the registry";
}

TEST_F(ToolConventions, UsageErrorsExitWithTwoBeforeTouchingTheRegistry) {
    const std::vector<std::vector<std::string>> cases = {
        {},
        {"frobnicate"},
        {"reg"},
        {"reg", "move", "user", "x"},
        {"classes", "extra"},
        {"create"},
        {"create", "a", "b"},
        {"decode"},
        {"decode", "0xZZ"},
        {"decode", "0x123456789"},
        {"decode", "4294967296"},
        {"decode", "-2147483649"},
        {"decode", "12abc"},
        {"reg", "query", "9"},
        {"reg", "query", "nowhere"},
        {"reg", "set", "user", "k", "n"},
        {"reg", "set", "user", "k", "n", "abc", "--dword"},
        {"reg", "set", "user", "k", "n", "4294967296", "--dword"},
        {"reg", "set", "user", "1bad", "n", "v"},
        {"reg", "delete", "user"},
        {"reg", "delete", "user", ""},
        {"classes", "--dword"},
        {"check", "--verbose"},
        {"--registry"},
        {"categories", "not-an-identifier"},
        {"help", "nothing"},
    };
    for (const auto& args : cases) {
        const ToolRun run = Run(args);
        std::string line;
        for (const std::string& arg : args)
            line += arg + " ";
        EXPECT_EQ(run.exitCode, 2) << line << run;
        EXPECT_TRUE(OneErrorLine(run, "0x80070057", "One or more arguments are invalid")) << line;
        EXPECT_TRUE(run.out.empty()) << line << run;
    }
    EXPECT_FALSE(Exists(PathOf("Registry.XML")));
}

TEST_F(ToolConventions, EveryListingGivesJsonThatParsesBack) {
    RegisterWithTool(COMPONENT_testcounter);
    RegisterWithTool(COMPONENT_testcategories);
    const std::string viewers = Text(CATID_TestViewers);
    const std::vector<std::vector<std::string>> listings = {
        {"classes"},
        {"categories"},
        {"categories", viewers},
        {"decode", "0", "0x80004001"},
        {"reg", "query", "classes"},
        {"reg", "export", "classes", "CLSID"},
        {"check"},
        {"create", "Test.Counter"},
        {"register", "libtestcounter.so"},
        {"unregister", "libtestcounter.so"},
        {"reg", "set", "user", "k", "n", "v"},
        {"reg", "delete", "user", "k"},
    };
    for (const auto& args : listings) {
        const JsonValue value = RunJson(args);
        EXPECT_EQ(value.type, JsonValue::kObject) << args[0];
    }
}

TEST_F(ToolConventions, JsonEscapesWhateverTheRegistryHolds) {
    // Character references put a tab, a line end, a quote, a backslash and a
    // non-ASCII character into the value.
    WriteFile("Registry.XML",
              HandMadeRegistry("<CLSID/>", "<User><K><item name=\"odd\" type=\"string\" "
                                           "value=\"a&quot;b\\c&#9;d&#10;e &#233;\"/></K></User>"));
    const JsonValue value = RunJson({"reg", "query", "user", "K"});
    const JsonValue& stored = value["key"]["values"][0];
    EXPECT_EQ(stored["name"].text, "odd");
    EXPECT_EQ(stored["data"].text, "a\"b\\c\td\ne \xC3\xA9");
}

TEST_F(ToolRegister, RegistersAndUnregistersALibrary) {
    CopyComponent(COMPONENT_testcounter);
    ToolRun run = Run({"register", "libtestcounter.so"});
    EXPECT_EQ(run.exitCode, 0) << run;
    EXPECT_TRUE(Contains(run.out, "registered libtestcounter.so: 0x00000000 OK status")) << run;
    EXPECT_TRUE(run.err.empty()) << run;
    EXPECT_TRUE(Contains(RegistryFile(), Text(CLSID_Counter)));

    // A library outside the working directory is opened by its path; the
    // name it registers is its own file name.
    run = Run({"register", COMPONENT_testcounter});
    EXPECT_EQ(run.exitCode, 0) << run;
    EXPECT_TRUE(Contains(RegistryFile(), "<InstallCount default = \"2\"/>"));

    run = Run({"unregister", "./libtestcounter.so"});
    EXPECT_EQ(run.exitCode, 0) << run;
    EXPECT_TRUE(Contains(run.out, "unregistered ./libtestcounter.so: 0x00000000")) << run;
    run = Run({"unregister", "libtestcounter.so"});
    EXPECT_EQ(run.exitCode, 0) << run;
    EXPECT_FALSE(Contains(RegistryFile(), Text(CLSID_Counter)));
}

TEST_F(ToolRegister, SomeClassFailingIsAFailureAndSaysSo) {
    // No classes hive: every class registration fails, which the runtime's
    // RegisterServer reports only as S_FALSE.
    WriteFile("Registry.XML", "<Software><Quorvane><Version><ApplicationData/></Version>"
                              "</Quorvane></Software>");
    CopyComponent(COMPONENT_testcounter);
    ToolRun run = Run({"register", "libtestcounter.so"});
    EXPECT_EQ(run.exitCode, 1) << run;
    EXPECT_TRUE(OneErrorLine(run, "0x00000001", "some class failed to register"));

    const JsonValue value = RunJson({"register", "libtestcounter.so"}, 1);
    EXPECT_EQ(value["results"][0]["code"].text, "0x00000001");
    EXPECT_FALSE(value["results"][0]["ok"].boolean);

    // Unregistering a library that was never registered fails to delete its
    // keys in the same way.
    WriteFile("Registry.XML", HandMadeRegistry("<CLSID/>"));
    run = Run({"unregister", "libtestcounter.so"});
    EXPECT_EQ(run.exitCode, 1) << run;
    EXPECT_TRUE(OneErrorLine(run, "0x00000001", "some class failed to unregister"));
}

TEST_F(ToolRegister, MissingLibrariesAndBorrowedEntryPointsAreErrors) {
    CopyComponent(COMPONENT_testcounter);
    CopyComponent(COMPONENT_testfaulty);
    ToolRun run = Run({"register", "nosuch.so", "libtestcounter.so"});
    EXPECT_EQ(run.exitCode, 1) << run;
    EXPECT_TRUE(OneErrorLine(run, "0x800401F8", "nosuch.so"));
    // The other library is registered all the same.
    EXPECT_TRUE(Contains(run.out, "registered libtestcounter.so")) << run;

    // The faulty component defines no DllRegisterServer; the one the loader
    // finds through its dependencies is the runtime's, which must not run.
    run = Run({"register", "libtestfaulty.so"});
    EXPECT_EQ(run.exitCode, 1) << run;
    EXPECT_TRUE(OneErrorLine(run, "0x800401F9", "DllRegisterServer"));
    EXPECT_FALSE(Contains(RegistryFile(), "libveltcom.so"));
}

TEST_F(ToolClasses, ListsEveryClassWithItsEntries) {
    ToolRun run = Run({"classes"});
    EXPECT_EQ(run.exitCode, 0) << run;
    EXPECT_TRUE(Contains(run.out, "no classes registered")) << run;
    EXPECT_EQ(RunJson({"classes"})["classes"].items.size(), 0u);

    RegisterWithTool(COMPONENT_testcounter);
    RegisterWithTool(COMPONENT_testcounter);
    run = Run({"classes"});
    EXPECT_EQ(run.exitCode, 0) << run;
    const size_t row = run.out.find(Text(CLSID_Counter));
    ASSERT_NE(row, std::string::npos) << run;
    const std::string line = run.out.substr(row, run.out.find('\n', row) - row);
    for (const char* field : {"Test.Counter", "libtestcounter.so", " 2 ", "Test counter"})
        EXPECT_TRUE(Contains(line, field)) << field << " in " << line;

    const JsonValue value = RunJson({"classes"});
    ASSERT_EQ(value["classes"].items.size(), 1u);
    const JsonValue& counter = value["classes"][0];
    EXPECT_EQ(counter["clsid"].text, Text(CLSID_Counter));
    EXPECT_EQ(counter["progid"].text, "Test.Counter");
    EXPECT_EQ(counter["inprocServer32"].text, "libtestcounter.so");
    EXPECT_EQ(counter["installCount"].number, 2);
    EXPECT_EQ(counter["displayName"].text, "Test counter");
    EXPECT_EQ(counter["description"].text, "Counts calls");
}

TEST_F(ToolClasses, MissingEntriesAreShownAsMissing) {
    WriteFile("Registry.XML",
              HandMadeRegistry("<CLSID><_5A1E0009-0000-4000-8000-0000000000A9_>"
                               "<InstallCount default=\"many\"/></_5A1E0009-0000-4000-8000-0000000000A9_>"
                               "</CLSID>"));
    const JsonValue value = RunJson({"classes"});
    const JsonValue& row = value["classes"][0];
    EXPECT_EQ(row["clsid"].text, "_5A1E0009-0000-4000-8000-0000000000A9_");
    for (const char* field : {"progid", "inprocServer32", "installCount", "displayName"})
        EXPECT_TRUE(row[field].IsNull()) << field;
}

TEST_F(ToolCreate, CreatesByProgIdOrIdentifierAndListsTheRuntimeInterfaces) {
    RegisterWithTool(COMPONENT_testcounter);
    ToolRun run = Run({"create", "Test.Counter"});
    EXPECT_EQ(run.exitCode, 0) << run;
    EXPECT_TRUE(Contains(run.out, "created " + Text(CLSID_Counter) + " (Test.Counter)")) << run;
    EXPECT_TRUE(Contains(run.out, "COM_IID_IUnknown")) << run;
    EXPECT_FALSE(Contains(run.out, "COM_IID_IRegistry")) << run;

    // Braces, the runtime's underscores and either case name the same class.
    std::string braced = Text(CLSID_Counter);
    braced.front() = '{';
    braced.back() = '}';
    JsonValue value = RunJson({"create", braced});
    EXPECT_EQ(value["clsid"].text, Text(CLSID_Counter));
    EXPECT_EQ(value["progid"].text, "Test.Counter");
    ASSERT_EQ(value["interfaces"].items.size(), 1u);
    EXPECT_EQ(value["interfaces"][0].text, "COM_IID_IUnknown");

    // A built-in class needs no registration.
    value = RunJson({"create", Text(COM_CLSID_CategoryManager)});
    std::vector<std::string> names;
    for (const JsonValue& name : value["interfaces"].items)
        names.push_back(name.text);
    EXPECT_EQ(names, (std::vector<std::string>{"COM_IID_IUnknown", "COM_IID_ICatRegister",
                                               "COM_IID_ICatInformation"}));
}

TEST_F(ToolCreate, FailuresGiveTheCodeItsTextAndTheErrorInformation) {
    ToolRun run = Run({"create", Text(CLSID_Counter)});
    EXPECT_EQ(run.exitCode, 1) << run;
    EXPECT_TRUE(OneErrorLine(run, "0x80040111", "CoClass not available"));
    EXPECT_TRUE(Contains(run.err, "\"" + Text(CLSID_Counter) + "\" at JCOM_API:COM_CreateInstance"))
        << run;

    run = Run({"create", "No.Such.ProgID"});
    EXPECT_EQ(run.exitCode, 1) << run;
    EXPECT_TRUE(OneErrorLine(run, "0x80040111", "No.Such.ProgID"));

    // Registered, but its library has gone from the working directory.
    RegisterWithTool(COMPONENT_testcounter);
    ASSERT_EQ(unlink(PathOf("libtestcounter.so").c_str()), 0);
    run = Run({"create", "Test.Counter"});
    EXPECT_EQ(run.exitCode, 1) << run;
    EXPECT_TRUE(OneErrorLine(run, "0x800401F8", "libtestcounter.so"));
    const JsonValue value = RunJson({"create", "Test.Counter"}, 1);
    EXPECT_FALSE(value["created"].boolean);
    EXPECT_EQ(value["code"].text, "0x800401F8");
    EXPECT_TRUE(Contains(value["errorInfo"].text, "JCOM_API:COM_CreateInstance"));

    // A factory that fails, and one that reports success without a factory:
    // the second makes the runtime throw, which must not end the tool.
    CopyComponent(COMPONENT_testfaulty);
    for (const COM_GUID* id : {&CLSID_FailingFactory, &CLSID_NullFactory}) {
        run = Run({"reg", "set", "classes", "CLSID\\" + Text(*id) + "\\InprocServer32", "",
                   "libtestfaulty.so"});
        ASSERT_EQ(run.exitCode, 0) << run;
    }
    run = Run({"create", Text(CLSID_FailingFactory)});
    EXPECT_EQ(run.exitCode, 1) << run;
    EXPECT_TRUE(OneErrorLine(run, "0x80040110", "Can't aggregate this object"));
    run = Run({"create", Text(CLSID_NullFactory)});
    EXPECT_EQ(run.signal, 0) << run;
    EXPECT_EQ(run.exitCode, 1) << run;
    EXPECT_TRUE(OneErrorLine(run, "0x80004003", "no class factory"));
}

TEST_F(ToolDecode, AcceptsHexDecimalAndNegativeCodes) {
    ToolRun run = Run({"decode", "0x80004001", "2147500033", "-2147467263"});
    EXPECT_EQ(run.exitCode, 0) << run;
    const std::string line = "0x80004001  Method not implemented [80004001]\n";
    EXPECT_EQ(run.out, line + line + line);

    const JsonValue value = RunJson({"decode", "0", "0x80620002", "0x80630001"});
    const JsonValue& codes = value["codes"];
    ASSERT_EQ(codes.items.size(), 3u);
    EXPECT_EQ(codes[0]["text"].text, "OK status [       0]");
    EXPECT_EQ(codes[0]["source"].text, "table");
    // Facility 98 is the system's own text, without the bracketed code.
    EXPECT_EQ(codes[1]["source"].text, "system");
    EXPECT_EQ(codes[1]["text"].text, "No such file or directory");
    EXPECT_EQ(codes[2]["facility"].number, 99);
    EXPECT_EQ(codes[2]["value"].number, static_cast<int>(0x80630001));
    EXPECT_EQ(codes[2]["text"].text, "Unknown error [80630001]");
    // The table needs no registry.
    EXPECT_FALSE(Exists(PathOf("Registry.XML")));
}

TEST_F(ToolDecode, HigherFacilitiesAreDecodedByTheRegisteredDecoder) {
    // Without the runtime's own registration there is no hresult binder.
    ToolRun run = Run({"decode", "0x80680001"});
    EXPECT_EQ(run.exitCode, 1) << run;
    EXPECT_TRUE(OneErrorLine(run, "0x80040111", "binder is not registered"));

    run = Run({"register", "libveltcom.so"});
    ASSERT_EQ(run.exitCode, 0) << run;
    RegisterWithTool(COMPONENT_testplaindecoder);
    run = Run({"decode", "0x80680001", "0x806F0005"});
    EXPECT_EQ(run.exitCode, 1) << run;
    EXPECT_TRUE(Contains(run.out, "0x80680001  plain decoder: code 80680001, flags 0\n")) << run;
    EXPECT_FALSE(Contains(run.out, "0x806F0005")) << run;
    EXPECT_TRUE(OneErrorLine(run, "0x80040111", "hresult:6F"));
    EXPECT_TRUE(Contains(run.err, "no decoder is registered")) << run;

    const JsonValue value = RunJson({"decode", "0x80680001", "0x806F0005"}, 1);
    EXPECT_EQ(value["codes"][0]["source"].text, "decoder");
    EXPECT_EQ(value["codes"][1]["error"]["code"].text, "0x80040111");
}

TEST_F(ToolCategories, ListsCategoriesAndTheClassesOfOne) {
    RegisterWithTool(COMPONENT_testcategories);
    const std::string tools = Text(CATID_TestTools);
    const std::string viewers = Text(CATID_TestViewers);
    ASSERT_EQ(Run({"reg", "set", "classes", "ComponentCategories\\" + tools, "", "Test tools"})
                  .exitCode,
              0);

    ToolRun run = Run({"categories"});
    EXPECT_EQ(run.exitCode, 0) << run;
    EXPECT_TRUE(Contains(run.out, tools + "  Test tools  (1 class)")) << run;
    // The component never described this one: listed, not a failure.
    EXPECT_TRUE(Contains(run.out, viewers + "  (no description)  (2 classes)")) << run;

    JsonValue value = RunJson({"categories"});
    ASSERT_EQ(value["categories"].items.size(), 2u);
    EXPECT_EQ(value["categories"][0]["description"].text, "Test tools");
    EXPECT_TRUE(value["categories"][1]["description"].IsNull());

    run = Run({"categories", viewers});
    EXPECT_EQ(run.exitCode, 0) << run;
    EXPECT_TRUE(Contains(run.out, Text(CLSID_CatWidget) + "  Test.CatWidget")) << run;
    EXPECT_TRUE(Contains(run.out, Text(CLSID_CatViewer) + "  Test.CatViewer")) << run;
    value = RunJson({"categories", viewers});
    ASSERT_EQ(value["classes"].items.size(), 2u);
    EXPECT_TRUE(value["classes"][0]["registered"].boolean);

    run = Run({"categories", Text(CLSID_Counter)});
    EXPECT_EQ(run.exitCode, 1) << run;
    EXPECT_TRUE(OneErrorLine(run, "0x80040152", "no category"));
}

}  // namespace
