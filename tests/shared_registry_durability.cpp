// The registry file under real faults, with real processes: a file-size
// limit, a directory that takes no new file, paths at their limits, memory
// over long runs of changes, and what a save keeps of the file it replaces.
// Then how a long-running process learns of changes where the lock file
// holds no save counter, and of a restore by the veltcom tool. Last, the
// class and ProgID lookups of every activation.
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "shared_tool_support.h"

namespace {

const std::string kDeclaration = "<?xml version='1.0' encoding='ISO-8859-1' ?>\n";

// This process's registry opened at a key; null when that fails.
RegistryPtr OpenAt(unsigned hive, const wchar_t* path) {
    RegistryPtr registry;
    if (FAILED(registry.CreateInstance(COM_CLSID_Registry)) || FAILED(registry->Open(hive, path)))
        return RegistryPtr();
    return registry;
}

// A string value read through the registry; "<missing>" when there is none.
std::wstring StringAt(COM_IRegistry* registry, const std::wstring& name) {
    wchar_t* value = nullptr;
    if (FAILED(registry->GetValueString(name.c_str(), &value))) return L"<missing>";
    return Take(value);
}

// Names of the files a save leaves in the directory besides the registry's.
std::vector<std::string> Leftovers(const std::string& directory) {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(directory)) {
        const std::string name = entry.path().filename().string();
        if (name != "Registry.XML" && name != "Registry.XML.bak" && name != "Registry.XML.lock" &&
            name != "Registry.XML.image")
            names.push_back(name);
    }
    std::sort(names.begin(), names.end());
    return names;
}

// Resident memory of this process, in bytes.
long ResidentBytes() {
    long pages = 0, resident = -1;
    std::ifstream("/proc/self/statm") >> pages >> resident;
    return resident * sysconf(_SC_PAGESIZE);
}

class RegistryDurability : public TempDirTest {};

// What could not be saved changes neither the file nor the memory of the
// process, whose next save goes through. A directory that takes no new file
// (here for a user it refuses, so only as root) holds a file anyone may
// write: the save goes in place, and reserves its space before it touches
// the old content.
TEST_F(RegistryDurability, ASaveBeyondTheFileSizeLimitFailsAndChangesNothing) {
    for (const bool readOnlyDirectory : {false, true}) {
        SCOPED_TRACE(readOnlyDirectory ? "read-only directory" : "writable directory");
        if (readOnlyDirectory && geteuid() != 0) GTEST_SKIP() << "needs root, to act as a user the directory refuses";
        WriteFile("Registry.XML", HandMadeRegistry("<CLSID/>"));
        ASSERT_EQ(chmod(PathOf("Registry.XML").c_str(), 0666), 0);
        ASSERT_EQ(chmod(m_dir.c_str(), 0755), 0);
        const std::string before = ReadFile("Registry.XML");
        EXPECT_EQ(InChild([&] {
            signal(SIGXFSZ, SIG_IGN);
            const rlimit limit = {before.size() + 100, before.size() + 100};
            if (readOnlyDirectory && (setgid(65534) != 0 || setuid(65534) != 0)) return 2;
            if (setrlimit(RLIMIT_FSIZE, &limit) != 0) return 2;
            RegistryPtr registry = OpenAt(5, L"");
            if (!registry) return 3;
            if (registry->SetValueString(L"big", std::wstring(1000, L'x').c_str()) != REGDB_E_WRITEREGDB) return 4;
            if (ReadFile("Registry.XML") != before) return 5;
            if (registry->GetValueString(L"big", nullptr) != REGDB_E_INVALIDVALUE) return 6;
            return registry->SetValueString(L"small", L"s") == S_OK ? 0 : 7;
        }), 0);
        const std::string after = ReadFile("Registry.XML");
        EXPECT_TRUE(after.find("big") == std::string::npos && after.find("value = \"s\"") != std::string::npos)
            << after;
        // No backup can be made where no new file can.
        EXPECT_TRUE(readOnlyDirectory || ReadFile("Registry.XML.bak") == before) << "the backup is not the document before";
        EXPECT_EQ(Leftovers(m_dir), std::vector<std::string>());
    }
}

TEST_F(RegistryDurability, PathsBeyondTheDepthLimitAreRefusedAndDeepFilesStillLoadAndSave) {
    std::wstring path = L"k";
    for (int depth = 1; depth < 256; ++depth) path += L"\\k";
    EXPECT_EQ(InChild([&] {
        RegistryPtr registry = OpenAt(5, L"");
        if (!registry || registry->CreateKey(path.c_str(), 0) != S_OK) return 2;
        const std::wstring deeper = path + L"\\k";
        if (registry->CreateKey(deeper.c_str(), 0) != E_INVALIDARG) return 3;
        return registry->OpenKey(deeper.c_str()) == E_INVALIDARG ? 0 : 4;
    }), 0);
    EXPECT_EQ(InChild([&] { return OpenAt(5, path.c_str()) ? 0 : 1; }), 0);

    // A file nested far deeper than any path may reach, made by hand: it
    // loads, takes changes, and goes whole.
    const int kDepth = 100000;
    std::string nested;
    for (int i = 0; i < kDepth; ++i) nested += "<d>";
    for (int i = 0; i < kDepth; ++i) nested += "</d>";
    WriteFile("Registry.XML", kDeclaration + "<Software><Quorvane><Version><ApplicationData><Deep>" + nested +
                                  "</Deep></ApplicationData><Classes><CLSID/></Classes></Version></Quorvane></Software>");
    EXPECT_EQ(InChild([] {
        RegistryPtr registry = OpenAt(5, L"");
        return registry && registry->SetValueString(L"v", L"x") == S_OK ? 0 : 1;
    }), 0);
    EXPECT_EQ(InChild([] {
        RegistryPtr registry = OpenAt(5, L"");
        return registry && StringAt(registry.Get(), L"v") == L"x" && registry->DeleteKey(L"Deep") == S_OK ? 0 : 1;
    }), 0);
    EXPECT_EQ(ReadFile("Registry.XML").find("<d>"), std::string::npos);
}

// Resident memory grows by less than 4 MiB over 20,000 overwrites of a
// value, and again over as many cycles of creating and deleting a key.
TEST_F(RegistryDurability, MemoryStaysBoundedUnderOverwritesAndCreateDeleteCycles) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "the sanitizer holds freed memory back";
#endif
    // A file system in memory: each save's fsync costs nothing there.
    char pattern[] = "/dev/shm/veltcom-rss-XXXXXX";
    const bool inMemory = mkdtemp(pattern) != nullptr;
    const std::string directory = inMemory ? pattern : m_dir;
    const int status = InChild([&] {
        setenv("COMLIB", directory.c_str(), 1);
        RegistryPtr registry = OpenAt(5, L"");
        if (!registry) return 2;
        for (int i = 0; i < 1000; ++i) registry->SetValueString(L"v", std::to_wstring(i).c_str());
        long start = ResidentBytes();
        for (int i = 0; i < 20000; ++i) {
            if (registry->SetValueString(L"v", std::to_wstring(i).c_str()) != S_OK) return 3;
        }
        if (ResidentBytes() - start >= (4L << 20)) return 4;
        start = ResidentBytes();
        for (int i = 0; i < 20000; ++i) {
            if (registry->CreateKey(L"Cycle\\Inner", 0) != S_OK || registry->DeleteKey(L"Cycle") != S_OK) return 5;
        }
        return ResidentBytes() - start >= (4L << 20) ? 6 : 0;
    });
    if (inMemory) std::filesystem::remove_all(directory);
    EXPECT_EQ(status, 0) << "4: grew over the overwrites, 6: over the create/delete cycles";
}

// A save through a symbolic link replaces the file it leads to, never
// writing into the old one, and keeps its mode, and its owner where the
// process may give the file away; the backup, the image and the lock file
// stand beside it.
TEST_F(RegistryDurability, ASaveKeepsModeOwnerAndLinkAndItsFilesStandBesideTheTarget) {
    ASSERT_EQ(mkdir(PathOf("real").c_str(), 0755), 0);
    WriteFile("real/registry.xml", HandMadeRegistry("<CLSID/>"));
    ASSERT_EQ(symlink("real/registry.xml", PathOf("Registry.XML").c_str()), 0);
    ASSERT_EQ(chmod(PathOf("real/registry.xml").c_str(), 0640), 0);
    const bool root = geteuid() == 0;
    if (root) {
        ASSERT_EQ(chown(PathOf("real/registry.xml").c_str(), 4242, 4343), 0);
    }
    std::ifstream reader(PathOf("Registry.XML"));
    RegistryPtr registry = OpenAt(5, L"");
    ASSERT_TRUE(registry);
    ASSERT_EQ(registry->SetValueString(L"v", L"1"), S_OK);
    // Never in place: a reader that opened the file before reads on what it found.
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(reader), {}), HandMadeRegistry("<CLSID/>"));

    struct stat info;
    ASSERT_EQ(stat(PathOf("real/registry.xml").c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 07777, 0640u);
    if (root) {
        EXPECT_EQ(std::make_pair(info.st_uid, info.st_gid), std::make_pair(uid_t(4242), gid_t(4343)));
    }
    EXPECT_EQ(Leftovers(PathOf("real")), (std::vector<std::string>{"registry.xml", "registry.xml.bak",
                                                                   "registry.xml.image", "registry.xml.lock"}));
}

// A whole registry file whose ApplicationData\Watch holds `round`.
std::string FileWithRound(const std::string& round) {
    return kDeclaration + "<Software><Quorvane><Version><ApplicationData><Watch><item name = \"round\" "
                          "type = \"string\" value = \"" + round + "\"/></Watch></ApplicationData><Classes>"
                          "<CLSID/></Classes></Version></Quorvane></Software>";
}

// ApplicationData\Watch\round as this process reads it after a fresh Open.
std::wstring Round() {
    RegistryPtr registry = OpenAt(5, L"Watch");
    return registry ? StringAt(registry.Get(), L"round") : L"<no key>";
}

using RegistryWatch = ToolTest;

// A lock file that cannot hold the save counter (here a directory) leaves
// every Open to look at the file itself, so even a hand edit is seen at once.
TEST_F(RegistryWatch, WithoutACounterEveryOpenLooksAtTheFile) {
    ASSERT_EQ(mkdir(PathOf("Registry.XML.lock").c_str(), 0755), 0);
    WriteFile("Registry.XML", FileWithRound("first"));
    ASSERT_EQ(Round(), L"first");
    for (const char* round : {"second", "third"}) {
        WriteFile("Registry.XML", FileWithRound(round));
        EXPECT_EQ(Round(), std::wstring(round, round + std::strlen(round)));
    }
}

// A restore by the tool raises the save counter, the first eight bytes of
// the lock file, as a save does: the restored file is read at the next Open.
TEST_F(RegistryWatch, ARestoreCountsAsASaveAndIsSeenAtTheNextOpen) {
    const auto saveCount = [this] {
        const std::string bytes = ReadFile("Registry.XML.lock");
        uint64_t count = 0;
        EXPECT_EQ(bytes.size(), sizeof count);
        std::memcpy(&count, bytes.data(), std::min(bytes.size(), sizeof count));
        return count;
    };
    WriteFile("Registry.XML", FileWithRound("backed up"));
    RegistryPtr registry = OpenAt(5, L"Watch");
    ASSERT_TRUE(registry);
    ASSERT_EQ(registry->SetValueString(L"round", L"saved"), S_OK);
    ASSERT_EQ(Round(), L"saved");
    const uint64_t before = saveCount();

    WriteFile("Registry.XML", kDeclaration + "<Software><Quorvane>");
    const ToolRun restore = Run({"check", "--restore"});
    ASSERT_EQ(restore.exitCode, 0) << restore;
    EXPECT_EQ(saveCount(), before + 1);
    EXPECT_EQ(Round(), L"backed up");
}

const COM_GUID kFirst = {0x0123ABCD, 0x1111, 0x2222, {0x33, 0x44, 0x55, 0x66, 0x77, 0x88, 0x99, 0xAA}};
const COM_GUID kSentinel = {0xDEADBEEF, 0xDEAD, 0xBEEF, {1, 2, 3, 4, 5, 6, 7, 8}};

class ClassLookups : public TempDirTest {};

// ProgIDs are looked up as Open(1, progId) and OpenKey("CLSID") would find
// them: spaces stand for underscores, backslashes descend; the identifier
// text reads in either case. A failure leaves the identifier untouched.
TEST_F(ClassLookups, ProgIdsAreFoundAsTheRegistryWalkFindsThem) {
    const std::string first = Text(kFirst), lower = "_0123abcd-1111-2222-3344-5566778899aa_";
    WriteFile("Registry.XML",
              HandMadeRegistry("<CLSID/><My_Prog><CLSID default = \"" + first + "\"/></My_Prog>"
                               "<Vendor><Sub><CLSID default = \"" + lower + "\"/></Sub></Vendor>"
                               "<Bad><CLSID default = \"not an identifier\"/></Bad>"
                               "<NoDefault><CLSID><item name = \"x\" type = \"string\" value = \"" + first +
                               "\"/></CLSID></NoDefault>"));
    const struct {
        const wchar_t* progId;
        HRESULT expected;
    } cases[] = {
        {L"My Prog", S_OK},      {L"My_Prog", S_OK},   {L"Vendor\\Sub", S_OK},
        {L"Bad", CLASS_E_CLASSNOTAVAILABLE},           {L"NoDefault", CLASS_E_CLASSNOTAVAILABLE},
        {L"", CLASS_E_CLASSNOTAVAILABLE},              {L"Vendor\\", CLASS_E_CLASSNOTAVAILABLE},
        {L"Missing", CLASS_E_CLASSNOTAVAILABLE},
    };
    for (const auto& c : cases) {
        std::wstring progId = c.progId;
        COM_GUID clsid = kSentinel;
        EXPECT_EQ(COM_GetCLSIDFromProgID(&progId[0], &clsid), c.expected) << progId;
        EXPECT_TRUE(clsid == (c.expected == S_OK ? kFirst : kSentinel)) << progId;
    }
}

// A lookup walks the calling thread's current key like the calls it stands
// for: closed after a success, left where the walk stopped after a failure.
TEST_F(ClassLookups, ALookupLeavesTheThreadsCurrentKeyAsItsWalkDoes) {
    WriteFile("Registry.XML",
              HandMadeRegistry("<CLSID><" + Text(kFirst) + "><ProgID default = \"First\"/></" + Text(kFirst) +
                               "></CLSID>"));
    RegistryPtr registry = Registry();
    ASSERT_EQ(registry->Open(5, L""), S_OK);
    wchar_t* value = Unwritten<wchar_t>();
    ASSERT_EQ(COM_GetProgIDFromClsid(kFirst, &value), S_OK);
    EXPECT_EQ(Take(value), L"First");
    EXPECT_EQ(registry->GetValueString(L"", nullptr), REGDB_E_KEYMISSING) << "closed";

    value = Unwritten<wchar_t>();
    EXPECT_EQ(COM_GetDisplayNameFromClsid(kFirst, &value), CLASS_E_CLASSNOTAVAILABLE);
    EXPECT_EQ(value, Unwritten<wchar_t>());
    EXPECT_EQ(registry->OpenKey(L"ProgID"), S_OK) << "still at the class key";
}

}  // namespace
