// The veltcom tool and installations: a writer that gives up on a lock
// another process holds says which file, and check finds the classes of one
// library that disagree in InstallCount.
#include <fcntl.h>
#include <sys/file.h>

#include "shared_tool_support.h"

namespace {

using ToolInstalls = ToolTest;

TEST_F(ToolInstalls, AWriterThatGivesUpOnTheLockNamesTheLockFileAndChangesNothing) {
    CopyComponent(COMPONENT_testcounter);
    RunOk({"classes"});
    const std::string before = RegistryFile();
    const int lock = open(PathOf("Registry.XML.lock").c_str(), O_RDWR | O_CLOEXEC);
    ASSERT_EQ(flock(lock, LOCK_EX), 0);
    setenv("VELTCOM_REGISTRY_WAIT_MS", "100", 1);
    for (const std::vector<std::string>& command :
         {std::vector<std::string>{"register", "libtestcounter.so"}, {"reg", "set", "user", "K", "v", "1"}}) {
        EXPECT_TRUE(Failed(Run(command), 1, "0x80040151", PathOf("Registry.XML.lock"))) << command[0];
        EXPECT_EQ(RegistryFile(), before) << command[0];
    }
    unsetenv("VELTCOM_REGISTRY_WAIT_MS");
    close(lock);
}

TEST_F(ToolInstalls, CheckWarnsWhereTheClassesOfOneLibraryDisagreeInInstallCount) {
    auto classKey = [](const std::string& id, const std::string& library, const std::string& count) {
        return "<" + id + "><InprocServer32 default=\"" + library + "\"/><ProgID default=\"P" + id +
               "\"/><InstallCount default=\"" + count + "\"/></" + id + ">";
    };
    const std::string a = "_AAAA0001-0000-4000-8000-000000000001_", b = "_AAAA0002-0000-4000-8000-000000000002_",
                      c = "_AAAA0003-0000-4000-8000-000000000003_", d = "_AAAA0004-0000-4000-8000-000000000004_";
    // a and b agree, c lost an update; d is another library's.
    WriteFile("Registry.XML", HandMadeRegistry("<CLSID>" + classKey(a, "libx.so", "2") + classKey(b, "libx.so", "2") +
                                               classKey(c, "libx.so", "1") + classKey(d, "liby.so", "1") +
                                               "</CLSID>"));
    const std::string json = RunJson({"check"}, 1);
    EXPECT_TRUE(Contains(json, "\"warningCount\":1,")) << json;
    EXPECT_TRUE(Contains(json, "{\"kind\":\"installcount-disagrees\",\"what\":\"the classes of library "
                               "\\\"libx.so\\\" disagree in InstallCount: 1 in 1 class (" + c +
                               "), 2 in 2 classes (" + a + ", ...)\",\"where\":\"classes CLSID\\\\" + c +
                               "\\\\InstallCount\"")) << json;
}

}  // namespace
