// veltcom check: each kind of damage a half-finished registration leaves,
// found in hand-made registries, and nothing reported for sound ones.
#include <map>

#include "shared_tool_support.h"

namespace {

// A class key; empty entries are left out.
std::string ClassKey(const std::string& id, const std::string& library = "libtestcounter.so",
                     const std::string& progId = "Test.Counter", const std::string& count = "1") {
    std::string key = "<" + id + ">";
    for (const auto& entry : {std::make_pair("InprocServer32", library),
                              std::make_pair("ProgID", progId),
                              std::make_pair("InstallCount", count)})
        if (!entry.second.empty())
            key += "<" + std::string(entry.first) + " default=\"" + entry.second + "\"/>";
    return key + "</" + id + ">";
}

const std::string kNeverRegistered = "_BBBB0001-0000-4000-8000-000000000001_";
const std::string kCategory = "_CCCC0001-0000-4000-8000-000000000001_";

using ToolCheck = ToolTest;

TEST_F(ToolCheck, FindsEveryKindOfProblemInAHandMadeRegistry) {
    CopyComponent(COMPONENT_testcounter);
    const std::string counter = Text(CLSID_Counter);
    const std::string noLibrary = "_AAAA0001-0000-4000-8000-000000000001_",
                      noProgId = "_AAAA0002-0000-4000-8000-000000000002_",
                      noCount = "_AAAA0003-0000-4000-8000-000000000003_",
                      libraryGone = "_AAAA0004-0000-4000-8000-000000000004_";
    WriteFile("Registry.XML",
              HandMadeRegistry(
                  "<CLSID>" + ClassKey(counter) + ClassKey(noLibrary, "") +
                  ClassKey(noProgId, "libtestcounter.so", "") +
                  ClassKey(noCount, "libtestcounter.so", "Test.Counter", "") +
                  ClassKey(libraryGone, "libgone.so") + "</CLSID>"
                  "<Test.Counter><CLSID default=\"" + counter + "\"/></Test.Counter>"
                  "<Orphan.Class><CLSID default=\"" + kNeverRegistered + "\"/></Orphan.Class>"
                  "<ComponentCategories><" + kCategory + " default=\"Tools\"><" + counter +
                  "/><" + kNeverRegistered + "/></" + kCategory + "><NotAnIdentifier/>"
                  "</ComponentCategories>"
                  // The binder named by the default value is built in: registered.
                  "<Moniker><hresult default=\"" + Text(COM_CLSID_HResultDecoderBinder) +
                  "\"><item name=\"6A\" type=\"string\" value=\"" + kNeverRegistered +
                  "\"/></hresult></Moniker>"));

    // Each kind once, where it was found; JSON doubles the backslash.
    const std::string json = RunJson({"check"}, 1);
    const std::map<std::string, std::string> expected = {
        {"class-without-inprocserver32", "classes CLSID\\\\" + noLibrary},
        {"class-without-progid", "classes CLSID\\\\" + noProgId},
        {"class-without-installcount", "classes CLSID\\\\" + noCount},
        {"library-not-found", "classes CLSID\\\\" + libraryGone + "\\\\InprocServer32"},
        {"progid-names-missing-class", "classes Orphan.Class\\\\CLSID"},
        {"moniker-names-unregistered-class", "classes Moniker\\\\hresult 6A"},
        {"category-member-not-registered",
         "classes ComponentCategories\\\\" + kCategory + "\\\\" + kNeverRegistered},
        {"category-key-not-identifier", "classes ComponentCategories\\\\NotAnIdentifier"}};
    EXPECT_TRUE(Contains(json, "\"count\":8,")) << json;
    for (const auto& problem : expected) {
        const std::string kind = "{\"kind\":\"" + problem.first + "\",";
        const std::string where = "\"where\":\"" + problem.second + "\",\"mend\":\"";
        const size_t at = json.find(kind);
        ASSERT_NE(at, std::string::npos) << problem.first << "\n" << json;
        EXPECT_EQ(json.find(kind, at + 1), std::string::npos) << problem.first << " twice";
        EXPECT_NE(json.find(where, at), std::string::npos) << problem.first;
        EXPECT_EQ(json.find(where, at), json.find("\"where\":\"", at)) << problem.first;
    }

    // As text: one line per problem saying what, where and how to mend it.
    const ToolRun run = Run({"check"});
    EXPECT_EQ(run.exitCode, 1) << run;
    size_t lines = 0;
    for (size_t at = 0; (at = run.out.find("; to mend: ", at)) != std::string::npos; ++at)
        ++lines;
    EXPECT_EQ(lines, 8u) << run;
    EXPECT_TRUE(Contains(run.out, "8 problems found")) << run;
    EXPECT_TRUE(Contains(run.out, "\nclasses Orphan.Class\\CLSID: ProgID names the class " +
                                      kNeverRegistered + ", which is not registered; to mend: "))
        << run;
    EXPECT_TRUE(Contains(run.out, "veltcom reg delete classes 'Orphan.Class'")) << run;
}

TEST_F(ToolCheck, SoundRegistrationsAreClean) {
    ToolRun run = RunOk({"check"});
    EXPECT_TRUE(Contains(run.out, "no problems found")) << run;

    RunOk({"register", "libveltcom.so"});
    RegisterWithTool(COMPONENT_testcounter);
    RegisterWithTool(COMPONENT_testcategories);
    EXPECT_TRUE(Contains(RunJson({"check"}), "\"count\":0,"));
    RunOk({"unregister", "libtestcounter.so", "libtestcategories.so"});
    RunOk({"check"});
}

TEST_F(ToolCheck, LibrariesAreLookedForByBaseNameInTheWorkingDirectory) {
    const std::string counter = Text(CLSID_Counter);
    WriteFile("Registry.XML",
              HandMadeRegistry("<CLSID>" + ClassKey(counter, "/opt/elsewhere/libtestcounter.so") +
                               "</CLSID><Test.Counter><CLSID default=\"" + counter +
                               "\"/></Test.Counter>"));
    ToolRun run = Run({"check"});
    EXPECT_EQ(run.exitCode, 1) << run;
    EXPECT_TRUE(Contains(run.out, "library \"libtestcounter.so\" is not in the working directory " +
                                      m_dir)) << run;

    // Activation opens "./libtestcounter.so", whatever directory is named.
    CopyComponent(COMPONENT_testcounter);
    RunOk({"check"});
}

TEST_F(ToolCheck, IdentifiersAreMatchedAsTheRuntimeFindsThem) {
    const std::string counter = Text(CLSID_Counter);
    const std::string lowerCounter = "_5a1e0002-0000-4000-8000-0000000000a2_",
                      lowerCategory = "_cccc0001-0000-4000-8000-000000000001_";
    CopyComponent(COMPONENT_testcounter);
    WriteFile("Registry.XML",
              HandMadeRegistry(
                  "<CLSID>" + ClassKey(counter) + "</CLSID>"
                  // A value naming a class is parsed, so its spelling does not
                  // matter; a category key is looked up by its name as given.
                  "<Test.Counter><CLSID default=\"" + lowerCounter + "\"/></Test.Counter>"
                  "<ComponentCategories><" + lowerCategory + "><" + lowerCounter + "/></" +
                  lowerCategory + "></ComponentCategories>"
                  "<Moniker><hresult><item name=\"6B\" type=\"string\" value=\"" + lowerCounter +
                  "\"/></hresult></Moniker>"));
    const std::string json = RunJson({"check"}, 1);
    EXPECT_TRUE(Contains(json, R"("count":1,"problems":[{"kind":"category-key-not-identifier")"))
        << json;
}

}  // namespace
