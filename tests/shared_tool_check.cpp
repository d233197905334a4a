// veltcom check: each kind of damage a half-finished registration leaves,
// found in hand-made registries, and nothing reported for sound ones.
#include <unistd.h>

#include <map>

#include "shared_tool_support.h"
#include "testComponents.h"

namespace {

bool Contains(const std::string& haystack, const std::string& needle) {
    return haystack.find(needle) != std::string::npos;
}

std::string Text(const COM_GUID& id) {
    const std::wstring text = TextOf(id);
    return std::string(text.begin(), text.end());
}

// A class key with the entries named; each entry is a sub-key with a
// default value.
std::string ClassKey(const std::string& id, const std::map<std::string, std::string>& entries) {
    std::string key = "<" + id + ">";
    for (const auto& entry : entries)
        key += "<" + entry.first + " default=\"" + entry.second + "\"/>";
    return key + "</" + id + ">";
}

const char kNoLibrary[] = "_AAAA0001-0000-4000-8000-000000000001_";
const char kNoProgId[] = "_AAAA0002-0000-4000-8000-000000000002_";
const char kNoCount[] = "_AAAA0003-0000-4000-8000-000000000003_";
const char kLibraryGone[] = "_AAAA0004-0000-4000-8000-000000000004_";
const char kNeverRegistered[] = "_BBBB0001-0000-4000-8000-000000000001_";
const char kCategory[] = "_CCCC0001-0000-4000-8000-000000000001_";

using ToolCheck = ToolTest;

TEST_F(ToolCheck, FindsEveryKindOfProblemInAHandMadeRegistry) {
    CopyComponent(COMPONENT_testcounter);
    const std::string counter = Text(CLSID_Counter);
    const std::map<std::string, std::string> sound = {
        {"InprocServer32", "libtestcounter.so"}, {"ProgID", "Test.Counter"}, {"InstallCount", "1"}};
    std::map<std::string, std::string> noLibrary = sound, noProgId = sound, noCount = sound,
                                       libraryGone = sound;
    noLibrary.erase("InprocServer32");
    noProgId.erase("ProgID");
    noCount.erase("InstallCount");
    libraryGone["InprocServer32"] = "libgone.so";
    WriteFile("Registry.XML",
              HandMadeRegistry(
                  "<CLSID>" + ClassKey(counter, sound) + ClassKey(kNoLibrary, noLibrary) +
                  ClassKey(kNoProgId, noProgId) + ClassKey(kNoCount, noCount) +
                  ClassKey(kLibraryGone, libraryGone) + "</CLSID>"
                  "<Test.Counter><CLSID default=\"" + counter + "\"/></Test.Counter>"
                  "<Orphan.Class><CLSID default=\"" + kNeverRegistered + "\"/></Orphan.Class>"
                  "<ComponentCategories><" + kCategory + " default=\"Tools\"><" + counter +
                  "/><" + kNeverRegistered + "/></" + kCategory + "><NotAnIdentifier/>"
                  "</ComponentCategories>"
                  // The binder named by the default value is built in: registered.
                  "<Moniker><hresult default=\"" + Text(COM_CLSID_HResultDecoderBinder) +
                  "\"><item name=\"6A\" type=\"string\" value=\"" + kNeverRegistered +
                  "\"/></hresult></Moniker>"));

    const JsonValue value = RunJson({"check"}, 1);
    std::map<std::string, std::string> whereByKind;
    for (const JsonValue& problem : value["problems"].items) {
        EXPECT_FALSE(problem["what"].text.empty());
        EXPECT_FALSE(problem["mend"].text.empty());
        EXPECT_TRUE(whereByKind.emplace(problem["kind"].text, problem["where"].text).second)
            << "kind reported twice: " << problem["kind"].text;
    }
    const std::map<std::string, std::string> expected = {
        {"class-without-inprocserver32", "classes CLSID\\" + std::string(kNoLibrary)},
        {"class-without-progid", "classes CLSID\\" + std::string(kNoProgId)},
        {"class-without-installcount", "classes CLSID\\" + std::string(kNoCount)},
        {"library-not-found", "classes CLSID\\" + std::string(kLibraryGone) + "\\InprocServer32"},
        {"progid-names-missing-class", "classes Orphan.Class\\CLSID"},
        {"moniker-names-unregistered-class", "classes Moniker\\hresult 6A"},
        {"category-member-not-registered", "classes ComponentCategories\\" +
                                               std::string(kCategory) + "\\" + kNeverRegistered},
        {"category-key-not-identifier", "classes ComponentCategories\\NotAnIdentifier"},
    };
    EXPECT_EQ(whereByKind, expected);
    EXPECT_EQ(value["count"].number, 8);

    // As text: one line per problem saying what, where and how to mend it,
    // and a count.
    const ToolRun run = Run({"check"});
    EXPECT_EQ(run.exitCode, 1) << run;
    size_t lines = 0;
    for (size_t at = run.out.find("; to mend: "); at != std::string::npos;
         at = run.out.find("; to mend: ", at + 1))
        ++lines;
    EXPECT_EQ(lines, 8u) << run;
    EXPECT_TRUE(Contains(run.out, "8 problems found")) << run;
    EXPECT_TRUE(Contains(run.out, "classes Orphan.Class\\CLSID: ProgID names the class " +
                                      std::string(kNeverRegistered) + ", which is not registered;"))
        << run;
    EXPECT_TRUE(Contains(run.out, "veltcom reg delete classes 'Orphan.Class'")) << run;
    EXPECT_TRUE(run.err.empty()) << run;
}

TEST_F(ToolCheck, SoundRegistrationsAreClean) {
    ToolRun run = Run({"check"});
    EXPECT_EQ(run.exitCode, 0) << run;
    EXPECT_TRUE(Contains(run.out, "no problems found")) << run;

    ASSERT_EQ(Run({"register", "libveltcom.so"}).exitCode, 0);
    RegisterWithTool(COMPONENT_testcounter);
    RegisterWithTool(COMPONENT_testcategories);
    run = Run({"check"});
    EXPECT_EQ(run.exitCode, 0) << run;
    EXPECT_EQ(RunJson({"check"})["count"].number, 0);

    ASSERT_EQ(Run({"unregister", "libtestcounter.so", "libtestcategories.so"}).exitCode, 0);
    run = Run({"check"});
    EXPECT_EQ(run.exitCode, 0) << run;
}

TEST_F(ToolCheck, LibrariesAreLookedForByBaseNameInTheWorkingDirectory) {
    const std::string counter = Text(CLSID_Counter);
    WriteFile("Registry.XML",
              HandMadeRegistry("<CLSID>" +
                               ClassKey(counter, {{"InprocServer32", "/opt/elsewhere/libtestcounter.so"},
                                                  {"ProgID", "Test.Counter"},
                                                  {"InstallCount", "3"}}) +
                               "</CLSID><Test.Counter><CLSID default=\"" + counter +
                               "\"/></Test.Counter>"));
    ToolRun run = Run({"check"});
    EXPECT_EQ(run.exitCode, 1) << run;
    EXPECT_TRUE(Contains(run.out, "library \"libtestcounter.so\" is not in the working directory " +
                                      m_dir))
        << run;

    // Activation opens "./libtestcounter.so", whatever directory is named.
    CopyComponent(COMPONENT_testcounter);
    run = Run({"check"});
    EXPECT_EQ(run.exitCode, 0) << run;
}

TEST_F(ToolCheck, IdentifiersAreMatchedAsTheRuntimeFindsThem) {
    const std::string counter = Text(CLSID_Counter);
    std::string lowerCounter = counter;
    for (char& c : lowerCounter)
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    std::string lowerCategory = kCategory;
    for (char& c : lowerCategory)
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    CopyComponent(COMPONENT_testcounter);
    WriteFile("Registry.XML",
              HandMadeRegistry(
                  "<CLSID>" +
                  ClassKey(counter, {{"InprocServer32", "libtestcounter.so"},
                                     {"ProgID", "Test.Counter"},
                                     {"InstallCount", "1"}}) +
                  "</CLSID>"
                  // A value naming a class is parsed, so its spelling does not
                  // matter; a category key is looked up by its name as given.
                  "<Test.Counter><CLSID default=\"" + lowerCounter + "\"/></Test.Counter>"
                  "<ComponentCategories><" + lowerCategory + "><" + lowerCounter + "/></" +
                  lowerCategory + "></ComponentCategories>"
                  "<Moniker><hresult><item name=\"6B\" type=\"string\" value=\"" + lowerCounter +
                  "\"/></hresult></Moniker>"));
    const JsonValue value = RunJson({"check"}, 1);
    ASSERT_EQ(value["problems"].items.size(), 1u) << value["problems"][1]["kind"].text;
    EXPECT_EQ(value["problems"][0]["kind"].text, "category-key-not-identifier");
}

}  // namespace
