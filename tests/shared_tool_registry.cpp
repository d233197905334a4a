// The veltcom tool's reg commands, the choice of registry file, and registry
// files the runtime cannot read.
#include <sys/stat.h>

#include "shared_tool_support.h"
#include "testComponents.h"

namespace {

bool Contains(const std::string& haystack, const std::string& needle) {
    return haystack.find(needle) != std::string::npos;
}

using ToolReg = ToolTest;
using ToolRegistryFile = ToolTest;

TEST_F(ToolReg, SetMakesMissingKeysAndQueryShowsTheTree) {
    // A fresh registry has no user hive; setting a value makes it.
    ToolRun run = Run({"reg", "set", "user", "My Key\\Sub", "name", "value"});
    EXPECT_EQ(run.exitCode, 0) << run;
    EXPECT_EQ(run.out, "set user My_Key\\Sub: name = \"value\"\n");
    run = Run({"reg", "set", "2", "My Key/Sub", "count", "0xFFFFFFFF", "--dword"});
    EXPECT_EQ(run.exitCode, 0) << run;
    run = Run({"reg", "set", "user", "My Key", "", "top"});
    EXPECT_EQ(run.exitCode, 0) << run;
    EXPECT_TRUE(Contains(RegistryFile(),
                         "<User><My_Key default = \"top\"><Sub><item name = \"name\" type = "
                         "\"string\" value = \"value\"/><item name = \"count\" type = \"dword\" "
                         "value = \"4294967295\"/></Sub></My_Key></User>"))
        << RegistryFile();

    run = Run({"reg", "query", "user", "My Key"});
    EXPECT_EQ(run.exitCode, 0) << run;
    EXPECT_EQ(run.out,
              "My_Key\n"
              "    (default) = \"top\"\n"
              "    Sub\n"
              "        name = \"value\"\n"
              "        count = 4294967295 (dword)\n");
    // Hive numbers and names are the same hives.
    EXPECT_EQ(Run({"reg", "query", "2", "My_Key"}).out, run.out);

    const JsonValue value = RunJson({"reg", "query", "user"});
    EXPECT_EQ(value["hiveNumber"].number, 2);
    const JsonValue& sub = value["key"]["keys"][0]["keys"][0];
    EXPECT_EQ(sub["name"].text, "Sub");
    EXPECT_EQ(sub["values"][1]["type"].text, "dword");
    EXPECT_EQ(sub["values"][1]["data"].text, "4294967295");
}

TEST_F(ToolReg, QueryOfAMissingKeyOrHiveIsAFailure) {
    ToolRun run = Run({"reg", "query", "classes", "CLSID\\Nothing"});
    EXPECT_EQ(run.exitCode, 1) << run;
    EXPECT_TRUE(OneErrorLine(run, "0x80040152", "Key is missing from the registry"));
    // The default document has no system hive.
    run = Run({"reg", "query", "system"});
    EXPECT_EQ(run.exitCode, 1) << run;
    EXPECT_TRUE(OneErrorLine(run, "0x80040152"));
}

TEST_F(ToolReg, DeleteRemovesOneValueOrAWholeKey) {
    ASSERT_EQ(Run({"reg", "set", "appdata", "A\\B", "x", "1"}).exitCode, 0);
    ASSERT_EQ(Run({"reg", "set", "appdata", "A\\B", "y", "2"}).exitCode, 0);
    ASSERT_EQ(Run({"reg", "set", "appdata", "A", "", "d"}).exitCode, 0);

    ToolRun run = Run({"reg", "delete", "appdata", "A\\B", "x"});
    EXPECT_EQ(run.exitCode, 0) << run;
    EXPECT_FALSE(Contains(RegistryFile(), "name = \"x\""));
    EXPECT_TRUE(Contains(RegistryFile(), "name = \"y\""));

    run = Run({"reg", "delete", "appdata", "A\\B", "x"});
    EXPECT_EQ(run.exitCode, 1) << run;
    EXPECT_TRUE(OneErrorLine(run, "0x80040153", "no value x"));

    run = Run({"reg", "delete", "appdata", "A", ""});
    EXPECT_EQ(run.exitCode, 0) << run;
    EXPECT_FALSE(Contains(RegistryFile(), "default = \"d\""));

    run = Run({"reg", "delete", "appdata", "A"});
    EXPECT_EQ(run.exitCode, 0) << run;
    EXPECT_TRUE(Contains(RegistryFile(), "<ApplicationData/>")) << RegistryFile();

    run = Run({"reg", "delete", "appdata", "A"});
    EXPECT_EQ(run.exitCode, 1) << run;
    EXPECT_TRUE(OneErrorLine(run, "0x80040152"));
}

TEST_F(ToolReg, ExportWritesTheSubtreeInTheRegistryFilesForm) {
    WriteFile("Registry.XML",
              HandMadeRegistry("<CLSID/>", "<User><K default=\"d&lt;1&gt;\"><Empty/>"
                                           "<item name=\"v\" type=\"string\" "
                                           "value=\"a&amp;b &quot;c&quot;\"/></K></User>"));
    ToolRun run = Run({"reg", "export", "user", "K"});
    EXPECT_EQ(run.exitCode, 0) << run;
    EXPECT_EQ(run.out,
              "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
              "<export hive=\"user\" path=\"K\">\n"
              "  <K default=\"d&lt;1&gt;\">\n"
              "    <item name=\"v\" type=\"string\" value=\"a&amp;b &quot;c&quot;\"/>\n"
              "    <Empty/>\n"
              "  </K>\n"
              "</export>\n");

    const JsonValue value = RunJson({"reg", "export", "user", "K"});
    EXPECT_EQ(value["key"]["values"][0]["data"].text, "d<1>");
    EXPECT_EQ(value["key"]["values"][1]["data"].text, "a&b \"c\"");
}

TEST_F(ToolReg, TextTheFileCannotHoldIsRefusedBeforeAnyChange) {
    ASSERT_EQ(Run({"reg", "set", "user", "K", "n", "v"}).exitCode, 0);
    const std::string before = RegistryFile();
    const std::vector<std::vector<std::string>> cases = {
        {"reg", "set", "user", "K\\1st", "n", "v"},
        {"reg", "set", "user", "K\\item", "n", "v"},
        {"reg", "set", "user", "K", "n", "caf\xC3\xA9"},
        {"reg", "set", "user", "K", "n", "two\nlines"},
        {"reg", "set", "user", "K", "n", "bad \xFF utf-8"},
    };
    for (const auto& args : cases) {
        const ToolRun run = Run(args);
        EXPECT_EQ(run.exitCode, 2) << args[4] << " " << args[5] << run;
        EXPECT_TRUE(OneErrorLine(run, "0x80070057"));
    }
    EXPECT_EQ(RegistryFile(), before);
}

TEST_F(ToolReg, RegistryOptionAndComlibChooseTheFile) {
    ASSERT_EQ(mkdir(PathOf("other").c_str(), 0700), 0);
    ASSERT_EQ(mkdir(PathOf("third").c_str(), 0700), 0);

    ToolRun run = Run({"--registry", "other", "reg", "set", "appdata", "Where", "", "other"});
    EXPECT_EQ(run.exitCode, 0) << run;
    EXPECT_TRUE(Contains(ReadFile("other/Registry.XML"), "<Where default = \"other\"/>"));
    EXPECT_FALSE(Contains(RegistryFile(), "Where"));

    // COMLIB names the directory; without it the working directory holds the
    // file.
    run = Run({"reg", "set", "appdata", "Where", "", "third"}, {"COMLIB=" + PathOf("third")});
    EXPECT_EQ(run.exitCode, 0) << run;
    EXPECT_TRUE(Contains(ReadFile("third/Registry.XML"), "<Where default = \"third\"/>"));
    ASSERT_EQ(chdir(PathOf("other").c_str()), 0);
    run = Run({"reg", "query", "appdata", "Where", "--json"}, {"COMLIB"});
    ASSERT_EQ(chdir(m_dir.c_str()), 0);
    EXPECT_EQ(run.exitCode, 0) << run;
    EXPECT_TRUE(Contains(run.out, "\"data\":\"other\"")) << run;

    run = Run({"--registry=" + PathOf("missing"), "classes"});
    EXPECT_EQ(run.exitCode, 1) << run;
    EXPECT_TRUE(OneErrorLine(run, "0x80620002", "No such file or directory"));
}

// Commands that read or change the registry, each of which must find the
// damage before the runtime's parser would stop the process.
std::vector<std::vector<std::string>> RegistryCommands() {
    return {{"classes"},
            {"check"},
            {"categories"},
            {"reg", "query", "classes"},
            {"reg", "export", "root"},
            {"reg", "set", "user", "K", "n", "v"},
            {"reg", "delete", "classes", "CLSID"},
            {"register", "libtestcounter.so"},
            {"unregister", "libtestcounter.so"},
            {"create", "Test.Counter"},
            {"decode", "0x806F0001"}};
}

TEST_F(ToolRegistryFile, MalformedFileIsReportedWithItsPositionNotAborted) {
    CopyComponent(COMPONENT_testcounter);
    const std::string malformed = "<Software><Quorvane>\n<Version></Quorvane></Software>";
    WriteFile("Registry.XML", malformed);
    for (const auto& args : RegistryCommands()) {
        const ToolRun run = Run(args);
        EXPECT_EQ(run.signal, 0) << args[0] << run;
        EXPECT_EQ(run.exitCode, 1) << args[0] << run;
        EXPECT_TRUE(OneErrorLine(run, "0x806D0000", "Registry.XML:2:")) << args[0];
        EXPECT_TRUE(Contains(run.err, "expected end of tag")) << run;
    }
    EXPECT_EQ(RegistryFile(), malformed);

    // Codes of the built-in table do not need the registry.
    const ToolRun run = Run({"decode", "0x80004005"});
    EXPECT_EQ(run.exitCode, 0) << run;
}

TEST_F(ToolRegistryFile, EveryFileTheRuntimeWouldStopOnIsAnError) {
    CopyComponent(COMPONENT_testcounter);
    const std::vector<std::pair<std::string, std::string>> files = {
        {"", "Registry.XML:1:1"},
        {"not xml at all", "Registry.XML:1:1"},
        {"<Software/><Second/>", "Registry.XML:1:"},
        // Well-formed, but the runtime's writer has no form for it and stops
        // the process at its next change.
        {"<?xml version=\"1.0\"?><!DOCTYPE Software []><Software><Quorvane><Version>"
         "<Classes><CLSID/></Classes></Version></Quorvane></Software>",
         "document type declaration"},
    };
    for (const auto& file : files) {
        WriteFile("Registry.XML", file.first);
        for (const auto& args : RegistryCommands()) {
            const ToolRun run = Run(args);
            EXPECT_EQ(run.signal, 0) << file.first << run;
            EXPECT_EQ(run.exitCode, 1) << file.first << run;
            EXPECT_TRUE(OneErrorLine(run, "0x806D0000", file.second)) << file.first;
        }
        EXPECT_EQ(RegistryFile(), file.first);
    }

    ASSERT_EQ(unlink(PathOf("Registry.XML").c_str()), 0);
    ASSERT_EQ(mkdir(PathOf("Registry.XML").c_str(), 0700), 0);
    const ToolRun run = Run({"classes"});
    EXPECT_EQ(run.exitCode, 1) << run;
    EXPECT_TRUE(OneErrorLine(run, "0x80620015", "Is a directory"));
}

}  // namespace
