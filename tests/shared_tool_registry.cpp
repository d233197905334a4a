// The veltcom tool's reg commands, the choice of registry file, and registry
// files the runtime cannot read.
#include <signal.h>
#include <sys/resource.h>

#include "shared_tool_support.h"

namespace {

using ToolReg = ToolTest;
using ToolRegistryFile = ToolTest;

TEST_F(ToolReg, SetMakesMissingKeysAndQueryShowsTheTree) {
    // A fresh registry has no user hive; setting a value makes it.
    ToolRun run = RunOk({"reg", "set", "user", "My Key\\Sub", "name", "value"});
    EXPECT_EQ(run.out, "set user My_Key\\Sub: name = \"value\"\n");
    RunOk({"reg", "set", "2", "My Key/Sub", "count", "0xFFFFFFFF", "--dword"});
    RunOk({"reg", "set", "user", "My Key", "", "top"});
    EXPECT_TRUE(Contains(RegistryFile(),
                         "<User><My_Key default = \"top\"><Sub><item name = \"name\" type = "
                         "\"string\" value = \"value\"/><item name = \"count\" type = \"dword\" "
                         "value = \"4294967295\"/></Sub></My_Key></User>"))
        << RegistryFile();

    run = RunOk({"reg", "query", "user", "My Key"});
    EXPECT_EQ(run.out, "My_Key\n    (default) = \"top\"\n    Sub\n        name = \"value\"\n"
                       "        count = 4294967295 (dword)\n");
    Expect({
        {{"reg", "query", "2", "My_Key"}, 0, {run.out}},  // hive numbers and names
        {{"reg", "query", "user", "--json"}, 0,
         {R"("hiveNumber":2,)", R"({"name":"Sub","values":[{"name":"name","type":"string","data":)"
                                R"("value"},{"name":"count","type":"dword","data":"4294967295"}])"}},
        // A missing key, and the system hive the default document lacks.
        {{"reg", "query", "classes", "CLSID\\Nothing"}, 1, {},
         {"0x80040152", "Key is missing from the registry"}},
        {{"reg", "query", "system"}, 1, {}, {"0x80040152", "Key is missing from the registry"}},
    });
}

TEST_F(ToolReg, DeleteRemovesOneValueOrAWholeKey) {
    RunOk({"reg", "set", "appdata", "A\\B", "x", "1"});
    RunOk({"reg", "set", "appdata", "A\\B", "y", "2"});
    RunOk({"reg", "set", "appdata", "A", "", "d"});

    Expect({{{"reg", "delete", "appdata", "A\\B", "x"}, 0, {}},
            {{"reg", "delete", "appdata", "A\\B", "x"}, 1, {}, {"0x80040153", "no value x"}},
            {{"reg", "delete", "appdata", "A", ""}, 0, {}}});
    EXPECT_TRUE(Contains(RegistryFile(), "<A><B><item name = \"y\"")) << RegistryFile();
    Expect({{{"reg", "delete", "appdata", "A"}, 0, {}},
            {{"reg", "delete", "appdata", "A"}, 1, {}, {"0x80040152"}}});
    EXPECT_TRUE(Contains(RegistryFile(), "<ApplicationData/>")) << RegistryFile();
}

TEST_F(ToolReg, ExportWritesTheSubtreeInTheRegistryFilesForm) {
    WriteFile("Registry.XML",
              HandMadeRegistry("<CLSID/>", "<User><K default=\"d&lt;1&gt;\"><Empty/>"
                                           "<item name=\"v\" type=\"string\" "
                                           "value=\"a&amp;b &quot;c&quot;\"/></K></User>"));
    const ToolRun run = RunOk({"reg", "export", "user", "K"});
    EXPECT_EQ(run.out,
              "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<export hive=\"user\" path=\"K\">\n"
              "  <K default=\"d&lt;1&gt;\">\n"
              "    <item name=\"v\" type=\"string\" value=\"a&amp;b &quot;c&quot;\"/>\n"
              "    <Empty/>\n  </K>\n</export>\n");
    Expect({{{"reg", "export", "user", "K", "--json"}, 0,
             {R"("data":"d<1>")", R"("data":"a&b \"c\"")"}}});
}

TEST_F(ToolReg, TextTheFileCannotHoldIsRefusedBeforeAnyChange) {
    RunOk({"reg", "set", "user", "K", "n", "v"});
    const std::string before = RegistryFile();
    for (const auto& key_value : std::vector<std::pair<std::string, std::string>>{
             {"K\\1st", "v"}, {"K\\item", "v"}, {"K", "caf\xC3\xA9"}, {"K", "two\nlines"},
             {"K", "bad \xFF utf-8"}})
        EXPECT_TRUE(Failed(Run({"reg", "set", "user", key_value.first, "n", key_value.second}), 2,
                           "0x80070057")) << key_value.first << " " << key_value.second;
    EXPECT_EQ(RegistryFile(), before);
}

// The tool inherits the file-size limit, as it would from a shell's ulimit.
TEST_F(ToolReg, AChangeThatCannotBeSavedFailsAndLeavesTheFileAsItWas) {
    RunOk({"reg", "set", "user", "K", "n", "v"});
    const std::string before = RegistryFile();
    rlimit saved;
    ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &saved), 0);
    const rlimit limited = {4096, saved.rlim_max};
    signal(SIGXFSZ, SIG_IGN);
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &limited), 0);
    const ToolRun run = Run({"reg", "set", "user", "K", "big", std::string(8192, 'x')});
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &saved), 0);
    EXPECT_TRUE(Failed(run, 1, "0x80040151", "value big not set"));
    EXPECT_TRUE(RegistryFile() == before) << "the failed save changed the file";
}

TEST_F(ToolReg, RegistryOptionAndComlibChooseTheFile) {
    ASSERT_EQ(mkdir(PathOf("other").c_str(), 0700), 0);
    ASSERT_EQ(mkdir(PathOf("third").c_str(), 0700), 0);
    ToolRun run = RunOk({"--registry", "other", "reg", "set", "appdata", "Where", "", "other"});
    EXPECT_TRUE(Contains(ReadFile("other/Registry.XML"), "<Where default = \"other\"/>"));
    EXPECT_FALSE(Contains(RegistryFile(), "Where"));

    // COMLIB names the directory; without it the working directory holds the
    // file.
    setenv("COMLIB", PathOf("third").c_str(), 1);
    RunOk({"reg", "set", "appdata", "Where", "", "third"});
    EXPECT_TRUE(Contains(ReadFile("third/Registry.XML"), "<Where default = \"third\"/>"));
    unsetenv("COMLIB");
    ASSERT_EQ(chdir(PathOf("other").c_str()), 0);
    run = Run({"reg", "query", "appdata", "Where", "--json"});
    ASSERT_EQ(chdir(m_dir.c_str()), 0);
    EXPECT_TRUE(Contains(run.out, "\"data\":\"other\"")) << run;

    EXPECT_TRUE(Failed(Run({"--registry=" + PathOf("missing"), "classes"}), 1, "0x80620002",
                       "No such file or directory"));
}

TEST_F(ToolRegistryFile, EveryFileTheRuntimeWouldStopOnIsReportedNotAborted) {
    CopyComponent(COMPONENT_testcounter);
    const std::vector<std::pair<std::string, std::string>> files = {
        {"<Software><Quorvane>\n<Version></Quorvane></Software>",
         "Registry.XML:2:12: fatal error: expected end of tag"},
        {"", "Registry.XML:1:1"},
        {"not xml at all", "Registry.XML:1:1"},
        {"<Software/><Second/>", "Registry.XML:1:"},
        // Well-formed, but the runtime's writer has no form for it and stops
        // the process at its next change.
        {"<?xml version=\"1.0\"?><!DOCTYPE Software []><Software><Quorvane><Version>"
         "<Classes><CLSID/></Classes></Version></Quorvane></Software>",
         "document type declaration"}};
    // Every command that reads or changes the registry must find the damage
    // before the runtime's parser would stop the process.
    const std::vector<std::vector<std::string>> commands = {
        {"classes"}, {"check"}, {"categories"}, {"reg", "query", "classes"},
        {"reg", "export", "root"}, {"reg", "set", "user", "K", "n", "v"},
        {"reg", "delete", "classes", "CLSID"}, {"register", "libtestcounter.so"},
        {"unregister", "libtestcounter.so"}, {"create", "Test.Counter"},
        {"decode", "0x806F0001"}};
    for (const auto& file : files) {
        WriteFile("Registry.XML", file.first);
        for (const auto& args : commands)
            EXPECT_TRUE(Failed(Run(args), 1, "0x806D0000", file.second)) << args[0];
        EXPECT_EQ(RegistryFile(), file.first);
    }
    EXPECT_EQ(Run({"decode", "0x80004005"}).exitCode, 0) << "the built-in table needs no registry";

    ASSERT_EQ(unlink(PathOf("Registry.XML").c_str()), 0);
    ASSERT_EQ(mkdir(PathOf("Registry.XML").c_str(), 0700), 0);
    EXPECT_TRUE(Failed(Run({"classes"}), 1, "0x80620015", "Is a directory"));
}

}  // namespace
