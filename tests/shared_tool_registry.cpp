// The veltcom tool's reg commands, the choice of registry file, and registry
// files the runtime cannot read.
#include "shared_tool_support.h"

namespace {

using ToolReg = ToolTest;
using ToolRegistryFile = ToolTest;

// One registry through set, query, export and delete. The system hive is
// made by hand: character references put a quote, a backslash, a tab, a line
// end and a non-ASCII character into a value.
TEST_F(ToolReg, SetQueryExportAndDelete) {
    WriteFile("Registry.XML",
              HandMadeRegistry("<CLSID/>", "<System><K default=\"d&lt;1&gt;\"><Empty/>"
                                           "<item name=\"v\" type=\"string\" value=\"a&amp;b "
                                           "&quot;c\\&#9;d&#10;e &#233;\"/></K></System>"));
    Expect({
        // The document has no user hive; setting a value makes it.
        {{"reg", "set", "user", "My Key\\Sub", "name", "value"}, 0,
         {"set user My_Key\\Sub: name = \"value\"\n"}},
        {{"reg", "set", "2", "My Key/Sub", "count", "0xFFFFFFFF", "--dword", "--json"}, 0,
         {R"("path":"My_Key\\Sub","name":"count","type":"dword","data":"4294967295")"}},
        {{"reg", "set", "user", "My Key", "", "top"}, 0},
        {{"reg", "query", "user", "My Key"}, 0,
         {"My_Key\n    (default) = \"top\"\n    Sub\n        name = \"value\"\n"
          "        count = 4294967295 (dword)\n"}},
        {{"reg", "query", "user", "--json"}, 0,
         {R"("hiveNumber":2,)", R"({"name":"Sub","values":[{"name":"name","type":"string","data":)"
                                R"("value"},{"name":"count","type":"dword","data":"4294967295"}])"}},
        {{"reg", "query", "classes", "CLSID\\Nothing"}, 1, {},
         {"0x80040152", "Key is missing from the registry"}},
        {{"reg", "export", "system", "K"}, 0,
         {"<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<export hive=\"system\" path=\"K\">\n"
          "  <K default=\"d&lt;1&gt;\">\n"
          "    <item name=\"v\" type=\"string\" value=\"a&amp;b &quot;c\\&#9;d&#10;e \xC3\xA9\"/>\n"
          "    <Empty/>\n  </K>\n</export>\n"}},
        {{"reg", "export", "system", "K", "--json"}, 0,
         {R"("data":"d<1>")", R"("data":"a&b \"c\\\td\ne )" "\xC3\xA9\""}},
        {{"reg", "delete", "system", "K", "v", "--json"}, 0, {R"("deleted":"value","name":"v")"}},
        {{"reg", "delete", "system", "K", "v"}, 1, {}, {"0x80040153", "no value v"}},
        {{"reg", "delete", "system", "K", ""}, 0, {"deleted value (default) of system K\n"}},
        {{"reg", "query", "system", "K"}, 0, {"K\n    Empty\n"}},
        {{"reg", "delete", "system", "K"}, 0, {"deleted key system K\n"}},
        {{"reg", "delete", "system", "K"}, 1, {}, {"0x80040152"}},
    });
    // The file as the runtime's registry object writes it.
    EXPECT_TRUE(Contains(RegistryFile(),
                         "<User><My_Key default = \"top\"><Sub><item name = \"name\" type = "
                         "\"string\" value = \"value\"/><item name = \"count\" type = \"dword\" "
                         "value = \"4294967295\"/></Sub></My_Key></User>"))
        << RegistryFile();
}

TEST_F(ToolReg, RegistryOptionAndComlibChooseTheFile) {
    ASSERT_EQ(mkdir(PathOf("other").c_str(), 0700), 0);
    RunOk({"--registry", "other", "reg", "set", "appdata", "Where", "", "other"});
    // Without COMLIB the working directory holds the file.
    unsetenv("COMLIB");
    ASSERT_EQ(chdir(PathOf("other").c_str()), 0);
    Expect({{{"reg", "query", "appdata", "Where", "--json"}, 0, {"\"data\":\"other\""}},
            {{"--registry=" + PathOf("missing"), "classes"}, 1, {},
             {"0x80620002", "No such file or directory"}}});
}

TEST_F(ToolRegistryFile, EveryFileTheRuntimeWouldStopOnIsReportedNotAborted) {
    const std::vector<std::pair<std::string, std::string>> files = {
        {"<Software><Quorvane>\n<Version></Quorvane></Software>",
         "Registry.XML:2:12: fatal error: expected end of tag"},
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
        std::vector<Case> cases;
        for (const auto& args : commands) cases.push_back({args, 1, {}, {"0x806D0000", file.second}});
        Expect(cases);
        EXPECT_EQ(RegistryFile(), file.first);
    }
    ASSERT_EQ(unlink(PathOf("Registry.XML").c_str()), 0);
    ASSERT_EQ(mkdir(PathOf("Registry.XML").c_str(), 0700), 0);
    Expect({{{"decode", "0x80004005"}, 0},  // the built-in table needs no registry
            {{"classes"}, 1, {}, {"0x80620015", "Is a directory"}}});
}

}  // namespace
