// veltcom check: each kind of damage a half-finished registration leaves,
// found in hand-made registries, and nothing reported for sound ones.
#include <fcntl.h>
#include <sys/file.h>

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
    // The hand-made classes also share one ProgID: a warning, counted apart.
    EXPECT_EQ(lines, 9u) << run;
    EXPECT_TRUE(Contains(run.out, "\n8 problems found in " + m_dir + "/Registry.XML\n1 warning\n"))
        << run;
    EXPECT_TRUE(Contains(run.out, "\nclasses Orphan.Class\\CLSID: ProgID names the class " +
                                      kNeverRegistered + ", which is not registered; to mend: "))
        << run;
    EXPECT_TRUE(Contains(run.out, "veltcom reg delete classes 'Orphan.Class'")) << run;
}

TEST_F(ToolCheck, SoundRegistrationsAreClean) {
    Expect({{{"check"}, 0, {"no problems found"}}, {{"register", "libveltcom.so"}, 0}});
    RegisterWithTool(COMPONENT_testcounter);
    RegisterWithTool(COMPONENT_testcategories);
    Expect({{{"check", "--json"}, 0, {"\"count\":0,"}},
            {{"unregister", "libtestcounter.so", "libtestcategories.so"}, 0},
            {{"check"}, 0}});
}

TEST_F(ToolCheck, LibrariesAreLookedForByBaseNameInTheWorkingDirectory) {
    const std::string counter = Text(CLSID_Counter);
    WriteFile("Registry.XML",
              HandMadeRegistry("<CLSID>" + ClassKey(counter, "/opt/elsewhere/libtestcounter.so") +
                               "</CLSID><Test.Counter><CLSID default=\"" + counter +
                               "\"/></Test.Counter>"));
    Expect({{{"check"}, 1, {"library \"libtestcounter.so\" is not in the working directory " + m_dir}}});
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
    Expect({{{"check", "--json"}, 1, {R"("count":1,"problems":[{"kind":"category-key-not-identifier")"}}});
}

// Registrations that work, but not as written: reported as warnings, which
// leave the exit status alone.
TEST_F(ToolCheck, WarnsWhereActivationDiffersFromTheRegistration) {
    CopyComponent(COMPONENT_testcounter);
    ASSERT_EQ(chmod(PathOf("libtestcounter.so").c_str(), 0666), 0);
    const std::string counter = Text(CLSID_Counter);
    const std::string other = "_AAAA0005-0000-4000-8000-000000000005_";
    WriteFile("Registry.XML",
              HandMadeRegistry("<CLSID>" + ClassKey(counter, "/opt/app/libtestcounter.so") +
                               ClassKey(other) + "</CLSID><Test.Counter><CLSID default=\"" +
                               counter + "\"/></Test.Counter>"));
    const std::string loaded = m_dir + "/libtestcounter.so";
    Expect({{{"check", "--json"}, 0,
             {"\"count\":0,\"problems\":[],\"warningCount\":3,",
              R"({"kind":"library-directory-ignored","what":"library \"/opt/app/libtestcounter.so\" )"
              "names a directory, which activation ignores: it loads " + loaded + " instead\"",
              // One file, however many registrations name it.
              R"({"kind":"library-refused","what":"activation refuses to load )" + loaded +
                  ": the file is writable by every user\"",
              R"({"kind":"progid-claimed-twice","what":"ProgID Test.Counter is claimed by )"
              "2 classes (" + counter + ", " + other + "); it names " + counter + "\""}},
            {{"check"}, 0,
             {"\nwarning: classes Test.Counter: ProgID Test.Counter",
              "no problems found in " + m_dir + "/Registry.XML\n3 warnings\n"}}});

    // The tool judges the library by activation's own rule, switch included.
    setenv("VELTCOM_ALLOW_INSECURE_LIBRARIES", "1", 1);
    const std::string json = RunJson({"check"});
    unsetenv("VELTCOM_ALLOW_INSECURE_LIBRARIES");
    EXPECT_TRUE(Contains(json, "\"warningCount\":2,") && !Contains(json, "library-refused")) << json;
}

const std::string kDamaged = "<?xml version='1.0' encoding='ISO-8859-1' ?>\n<Software><Quor";

TEST_F(ToolCheck, RestorePutsTheBackupInPlaceOfADamagedRegistry) {
    const std::string backup = HandMadeRegistry("<CLSID/>");
    WriteFile("Registry.XML", kDamaged);
    WriteFile("Registry.XML.bak", backup);
    EXPECT_TRUE(Failed(Run({"check"}), 1, "0x806D0000", m_dir + "/Registry.XML:2:"));

    Expect({{{"check", "--restore"}, 0,
             {"kept the damaged registry as " + m_dir + "/Registry.XML.damaged\n"
              "the backup holds the registry as saved at ",
              "; lost: any change saved after it\nrestored " + m_dir + "/Registry.XML from " +
                  m_dir + "/Registry.XML.bak\n"}},
            {{"check"}, 0}});
    EXPECT_EQ(RegistryFile(), backup);
    EXPECT_EQ(ReadFile("Registry.XML.damaged"), kDamaged);
    EXPECT_EQ(ReadFile("Registry.XML.bak"), backup);

    // A readable registry is left as it is.
    const ToolRun run = Run({"check", "--restore"});
    EXPECT_EQ(run.exitCode, 1) << run;
    EXPECT_EQ(run.out, "nothing to restore: " + m_dir + "/Registry.XML is readable\n");
    EXPECT_EQ(ReadFile("Registry.XML.damaged"), kDamaged);
}

// A registry the runtime saved twice, then damaged in place: the restore
// works beside the file a symbolic link leads to, under the writers' lock,
// and names the save the backup lacks.
TEST_F(ToolCheck, RestoreFollowsALinkAndNamesTheLostSave) {
    ASSERT_EQ(mkdir(PathOf("elsewhere").c_str(), 0755), 0);
    WriteFile("elsewhere/Registry.XML", HandMadeRegistry("<CLSID/>"));
    ASSERT_EQ(symlink("elsewhere/Registry.XML", PathOf("Registry.XML").c_str()), 0);
    RunOk({"reg", "set", "appdata", "K", "A", "1"});
    RunOk({"reg", "set", "appdata", "K", "B", "2"});
    const std::string target = m_dir + "/elsewhere/Registry.XML";
    for (const bool cut : {true, false}) {
        SCOPED_TRACE(cut ? "cut short" : "overwritten in place");
        const std::string saved = ReadFile("elsewhere/Registry.XML");
        if (cut)
            ASSERT_EQ(truncate(target.c_str(), 40), 0);
        else
            WriteFile("elsewhere/Registry.XML", std::string(saved.size(), 'x'));
        Expect({{{"check", "--restore"}, 0,
                 {"kept the damaged registry as " + target + ".damaged\n",
                  "; lost: the last save, made at ",
                  "restored " + m_dir + "/Registry.XML from " + target + ".bak\n"}}});
        struct stat link;
        ASSERT_EQ(lstat(PathOf("Registry.XML").c_str(), &link), 0);
        EXPECT_TRUE(S_ISLNK(link.st_mode)) << "the link stays a link";
        EXPECT_TRUE(Contains(RegistryFile(), "name = \"A\"") && !Contains(RegistryFile(), "name = \"B\""));
        // Set again, for the second round.
        RunOk({"reg", "set", "appdata", "K", "B", "2"});
    }
}

// No readable backup, or a lock another process holds beyond the writers'
// bound: the damaged file stays as it is.
TEST_F(ToolCheck, RestoreThatCannotBeMadeChangesNothing) {
    const struct {
        const char* backup;
        bool locked;
        const char* message;
    } cases[] = {
        {nullptr, false, "/Registry.XML: there is no readable backup"},
        {"<Software>", false, "/Registry.XML: there is no readable backup"},
        {"", true, "/Registry.XML: another process holds the writers' lock "},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.message);
        WriteFile("Registry.XML", kDamaged);
        unlink(PathOf("Registry.XML.bak").c_str());
        if (c.backup) WriteFile("Registry.XML.bak", *c.backup ? c.backup : HandMadeRegistry("<CLSID/>"));
        const int lock = c.locked ? open(PathOf("Registry.XML.lock").c_str(), O_RDWR | O_CREAT, 0644) : -1;
        if (c.locked) {
            ASSERT_EQ(flock(lock, LOCK_EX), 0);
        }
        setenv("VELTCOM_REGISTRY_WAIT_MS", "100", 1);
        const std::string json = RunJson({"check", "--restore"}, 1);
        unsetenv("VELTCOM_REGISTRY_WAIT_MS");
        if (lock >= 0) close(lock);
        EXPECT_TRUE(Contains(json, "\"restored\":false,\"message\":\"cannot restore " + m_dir +
                                       c.message))
            << json;
        EXPECT_EQ(RegistryFile(), kDamaged);
        EXPECT_TRUE(ReadFile("Registry.XML.damaged").empty());
    }
}

}  // namespace
