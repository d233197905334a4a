// veltcom check: each kind of damage a half-finished registration leaves,
// found in hand-made registries, nothing reported for sound ones, and a
// damaged registry put back from its backup.
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

using ToolCheck = ToolTest;

// Every kind of problem, and of warning (a registration that works, but not
// as written), in a hand-made registry.
TEST_F(ToolCheck, FindsEveryKindOfProblemAndWarningInAHandMadeRegistry) {
    CopyComponent(COMPONENT_testcounter);
    ASSERT_EQ(chmod(PathOf("libtestcounter.so").c_str(), 0666), 0);
    const std::string counter = Text(CLSID_Counter);
    const std::string noLibrary = "_AAAA0001-0000-4000-8000-000000000001_",
                      noProgId = "_AAAA0002-0000-4000-8000-000000000002_",
                      noCount = "_AAAA0003-0000-4000-8000-000000000003_",
                      libraryGone = "_AAAA0004-0000-4000-8000-000000000004_",
                      countedTwice = "_AAAA0005-0000-4000-8000-000000000005_",
                      countedAlsoTwice = "_AAAA0006-0000-4000-8000-000000000006_",
                      neverRegistered = "_BBBB0001-0000-4000-8000-000000000001_",
                      category = "_CCCC0001-0000-4000-8000-000000000001_";
    // A value naming a class is parsed, so its spelling does not matter; a
    // category key is looked up by its name as given.
    const std::string lowerCounter = "_5a1e0002-0000-4000-8000-0000000000a2_",
                      lowerCategory = "_cccc0001-0000-4000-8000-000000000001_";
    WriteFile("Registry.XML",
              HandMadeRegistry(
                  "<CLSID>" + ClassKey(counter, "/opt/app/libtestcounter.so") +
                  ClassKey(noLibrary, "") + ClassKey(noProgId, "libtestcounter.so", "") +
                  ClassKey(noCount, "libtestcounter.so", "Test.Counter", "") +
                  ClassKey(libraryGone, "/opt/gone/libgone.so") +
                  // Of the classes of one library, two count an installation
                  // that noProgId lost.
                  ClassKey(countedTwice, "libtestcounter.so", "Twice", "2") +
                  ClassKey(countedAlsoTwice, "libtestcounter.so", "AlsoTwice", "2") + "</CLSID>"
                  "<Test.Counter><CLSID default=\"" + lowerCounter + "\"/></Test.Counter>"
                  "<Orphan.Class><CLSID default=\"" + neverRegistered + "\"/></Orphan.Class>"
                  "<ComponentCategories><" + category + " default=\"Tools\"><" + counter +
                  "/><" + neverRegistered + "/></" + category + "><" + lowerCategory + "><" +
                  lowerCounter + "/></" + lowerCategory + "></ComponentCategories>"
                  // The binder named by the default value is built in: registered.
                  "<Moniker><hresult default=\"" + Text(COM_CLSID_HResultDecoderBinder) +
                  "\"><item name=\"6A\" type=\"string\" value=\"" + neverRegistered +
                  "\"/><item name=\"6B\" type=\"string\" value=\"" + lowerCounter +
                  "\"/></hresult></Moniker>"));

    // Each kind of problem once (eight kinds, eight problems), where it was
    // found; JSON doubles the backslash.
    const std::string json = RunJson({"check"}, 1);
    const std::map<std::string, std::string> expected = {
        {"class-without-inprocserver32", "classes CLSID\\\\" + noLibrary},
        {"class-without-progid", "classes CLSID\\\\" + noProgId},
        {"class-without-installcount", "classes CLSID\\\\" + noCount},
        {"library-not-found", "classes CLSID\\\\" + libraryGone + "\\\\InprocServer32"},
        {"progid-names-missing-class", "classes Orphan.Class\\\\CLSID"},
        {"moniker-names-unregistered-class", "classes Moniker\\\\hresult 6A"},
        {"category-member-not-registered",
         "classes ComponentCategories\\\\" + category + "\\\\" + neverRegistered},
        {"category-key-not-identifier", "classes ComponentCategories\\\\" + lowerCategory},
        {"installcount-disagrees", "classes CLSID\\\\" + noProgId + "\\\\InstallCount"}};
    for (const auto& problem : expected) {
        const std::string kind = "{\"kind\":\"" + problem.first + "\",";
        const std::string where = "\"where\":\"" + problem.second + "\",\"mend\":\"";
        const size_t at = json.find(kind);
        ASSERT_NE(at, std::string::npos) << problem.first << "\n" << json;
        EXPECT_EQ(json.find("\"where\":\"", at), json.find(where, at)) << problem.first;
    }
    const std::string loaded = m_dir + "/libtestcounter.so";
    for (const std::string& fragment : {
             std::string("\"count\":8,\"problems\":["),
             std::string(R"("warningCount":5,"warnings":[{"kind":"library-directory-ignored",)")
                 + R"("what":"library \"/opt/app/libtestcounter.so\" names a directory, which )"
                 "activation ignores: it loads " + loaded + " instead\"",
             // One file, however many registrations name it.
             R"({"kind":"library-refused","what":"activation refuses to load )" + loaded +
                 ": the file is writable by every user\"",
             R"({"kind":"progid-claimed-twice","what":"ProgID Test.Counter is claimed by 4 )"
             "classes (" + counter + ", " + noLibrary + ", " + noCount + ", " + libraryGone +
                 "); it names " + lowerCounter + "\"",
             R"({"kind":"installcount-disagrees","what":"the classes of library )"
             R"(\"libtestcounter.so\" disagree in InstallCount: 1 in 1 class ()" + noProgId +
                 "), 2 in 2 classes (" + countedTwice + ", ...)\""})
        EXPECT_TRUE(Contains(json, fragment)) << fragment << "\n" << json;

    // As text: a line per problem and per warning saying what, where and how
    // to mend it.
    Expect({{{"check"}, 1,
             {"\nclasses Orphan.Class\\CLSID: ProgID names the class " + neverRegistered +
                  ", which is not registered; to mend: register the class's library again, or "
                  "delete the ProgID key (veltcom reg delete classes 'Orphan.Class')\n",
              "\\InprocServer32: library \"libgone.so\" is not in the working directory " + m_dir +
                  "; to mend: ",
              "\nwarning: classes Test.Counter: ProgID Test.Counter is claimed by 4 classes",
              "\n8 problems found in " + m_dir + "/Registry.XML\n5 warnings\n"}}});
}

// Registrations made by the libraries themselves; a warning leaves the exit
// status alone.
TEST_F(ToolCheck, RealRegistrationsHaveNoProblemsAndAWarningLeavesTheExitStatusAlone) {
    Expect({{{"check"}, 0, {"no problems found"}}, {{"register", "libveltcom.so"}, 0}});
    RegisterWithTool(COMPONENT_testcounter);
    RegisterWithTool(COMPONENT_testcategories);
    ASSERT_EQ(chmod(PathOf("libtestcounter.so").c_str(), 0666), 0);
    Expect({{{"check", "--json"}, 0, {"\"count\":0,\"problems\":[],\"warningCount\":1,"}},
            {{"check"}, 0, {"no problems found in " + m_dir + "/Registry.XML\n1 warning\n"}}});
}

// Registry.XML is a symbolic link to a file the runtime saved twice (A, then
// B). Each step cuts the file short, holds the writers' lock or writes the
// backup as it says, then runs its command: a restore works beside the file
// the link leads to and says what the backup lacks; a restore that cannot be
// made, or a writer that gives up on the lock, changes nothing.
TEST_F(ToolCheck, RestorePutsTheBackupInPlaceOfADamagedRegistryOrChangesNothing) {
    CopyComponent(COMPONENT_testcounter);
    ASSERT_EQ(mkdir(PathOf("elsewhere").c_str(), 0755), 0);
    WriteFile("elsewhere/Registry.XML", HandMadeRegistry("<CLSID/>"));
    ASSERT_EQ(symlink("elsewhere/Registry.XML", PathOf("Registry.XML").c_str()), 0);
    RunOk({"reg", "set", "appdata", "K", "A", "1"});
    RunOk({"reg", "set", "appdata", "K", "B", "2"});
    const std::string path = PathOf("Registry.XML"), target = PathOf("elsewhere/Registry.XML");
    const std::string cannot = "cannot restore " + path + ": ";
    const std::string restored = "restored " + path + " from " + target + ".bak\n";
    const struct {
        bool cut, locked;
        const char* backup;  // written as the backup, unless null
        Case run;
    } steps[] = {
        {false, false, nullptr,
         {{"check", "--restore"}, 1, {"nothing to restore: " + path + " is readable\n"}}},
        {false, true, nullptr,
         {{"register", "libtestcounter.so"}, 1, {"registry file: "}, {"0x80040151", target + ".lock"}}},
        {false, true, nullptr,
         {{"reg", "set", "user", "K", "v", "1"}, 1, {},
          {"0x80040151", "value v not set", target + ".lock"}}},
        {true, true, nullptr,
         {{"check", "--restore", "--json"}, 1,
          {"\"restored\":false,\"message\":\"" + cannot + "another process holds the writers' lock " +
           target + ".lock\""}}},
        {false, false, nullptr,
         {{"check", "--restore"}, 0,
          {"kept the damaged registry as " + target + ".damaged\n" +
               "the backup holds the registry as saved at ",
           "; lost: the last save, made at ", restored}}},
        {true, false, "<Software/>",
         {{"check", "--restore"}, 0, {"; lost: any change saved after it\n" + restored}}},
        {true, false, "<Software>",
         {{"check", "--restore"}, 1, {cannot + "there is no readable backup " + target + ".bak\n"}}},
    };
    const int lock = open((target + ".lock").c_str(), O_RDWR | O_CLOEXEC);
    setenv("VELTCOM_REGISTRY_WAIT_MS", "100", 1);
    for (const auto& step : steps) {
        SCOPED_TRACE(::testing::PrintToString(step.run.args));
        if (step.cut) {
            ASSERT_EQ(truncate(target.c_str(), 9), 0);
        }
        if (step.backup) WriteFile("elsewhere/Registry.XML.bak", step.backup);
        const std::string before = RegistryFile(), backup = ReadFile("elsewhere/Registry.XML.bak"),
                          damaged = ReadFile("elsewhere/Registry.XML.damaged");
        ASSERT_EQ(flock(lock, step.locked ? LOCK_EX : LOCK_UN), 0);
        Expect({step.run});
        ASSERT_EQ(flock(lock, LOCK_UN), 0);
        const bool restores = step.run.exitCode == 0;
        EXPECT_EQ(RegistryFile(), restores ? backup : before);
        EXPECT_EQ(ReadFile("elsewhere/Registry.XML.damaged"), restores ? before : damaged);
        EXPECT_EQ(ReadFile("elsewhere/Registry.XML.bak"), backup);
        struct stat link;
        EXPECT_TRUE(lstat(path.c_str(), &link) == 0 && S_ISLNK(link.st_mode)) << "a link no more";
    }
    unsetenv("VELTCOM_REGISTRY_WAIT_MS");
    close(lock);
}

}  // namespace
