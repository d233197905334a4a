// The registry file under real faults, with real processes: writers killed
// in the middle of a save, a file-size limit, two writers at once, processes
// starting while others save, paths at their limits, and memory
// over long runs of changes. Then how a long-running process learns of
// others' changes: a save by any process of the runtime, the veltcom tool
// among them, is seen at the next Open; a file replaced by other means within
// a short interval; and at every Open where the lock file cannot hold the
// save counter. Last, the class and ProgID lookups of every activation.
#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <functional>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "shared_tool_support.h"

namespace {

using EnumPtr = utlAutoIf<COM_IEnumBSTR, &COM_IID_IEnumBSTR>;

const std::string kDeclaration = "<?xml version='1.0' encoding='ISO-8859-1' ?>\n";

// A registry file in the exact form the runtime writes, holding `count`
// registered classes: about 190 bytes each.
std::string ManyClasses(unsigned count) {
    std::string classes;
    for (unsigned i = 0; i < count; ++i) {
        const std::string n = std::to_string(i);
        classes += "<Class" + n + " default = \"Test.Class." + n + "\"><InprocServer32 default = \"libtest" + n +
                   ".so\"/><ProgID default = \"Test.Class." + n + "\"/><InstallCount default = \"1\"/></Class" + n +
                   ">";
    }
    return HandMadeRegistry("<CLSID>" + classes + "</CLSID><ComponentCategories/><Moniker/>");
}

// This process's registry opened at a key; null when that fails.
RegistryPtr OpenAt(unsigned hive, const wchar_t* path) {
    RegistryPtr registry;
    if (FAILED(registry.CreateInstance(COM_CLSID_Registry)) || FAILED(registry->Open(hive, path)))
        return RegistryPtr();
    return registry;
}

unsigned long KeyCount(unsigned hive, const wchar_t* path) {
    RegistryPtr registry = OpenAt(hive, path);
    EnumPtr keys;
    unsigned long count = 0;
    if (!registry || FAILED(registry->EnumKeys(keys.Out())) || FAILED(keys->get_Count(&count))) return ~0UL;
    return count;
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

bool UnderSanitizer() {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    return true;
#else
    return false;
#endif
}

// Resident memory of this process, in bytes.
long ResidentBytes() {
    long pages = 0, resident = 0;
    FILE* statm = std::fopen("/proc/self/statm", "r");
    if (!statm) return -1;
    const bool read = std::fscanf(statm, "%ld %ld", &pages, &resident) == 2;
    std::fclose(statm);
    return read ? resident * sysconf(_SC_PAGESIZE) : -1;
}

class RegistryDurability : public TempDirTest {};

TEST_F(RegistryDurability, AWriterKilledAtAnyMomentOfASaveLeavesEveryClass) {
    const unsigned kClasses = 12000;  // about 2.3 MB
    WriteFile("Registry.XML", ManyClasses(kClasses));
    std::random_device seed;
    const unsigned seedValue = seed();
    std::mt19937 random(seedValue);
    SCOPED_TRACE("seed " + std::to_string(seedValue));
    for (int round = 0; round < 20; ++round) {
        int ready[2];
        ASSERT_EQ(pipe(ready), 0);
        const pid_t writer = SpawnChild([&] {
            close(ready[0]);
            // Each writer first proves that the file it found is whole.
            if (KeyCount(1, L"CLSID") != kClasses) return 2;
            RegistryPtr registry = OpenAt(5, L"");
            if (!registry || write(ready[1], "r", 1) != 1) return 3;
            for (unsigned i = 0;; ++i) {
                registry->SetValueDWORD(L"round", i);
                if (i % 2) registry->CreateKey(L"Scratch\\Deeper", 0);
                else registry->DeleteKey(L"Scratch");
            }
        });
        close(ready[1]);
        char byte = 0;
        const bool started = read(ready[0], &byte, 1) == 1;
        close(ready[0]);
        if (started) usleep(std::uniform_int_distribution<useconds_t>(0, 150000)(random));
        kill(writer, SIGKILL);
        const int status = ChildResult(writer);
        ASSERT_TRUE(started) << "round " << round << ": the file a killed writer left could not be loaded ("
                             << status << ")";
    }
    EXPECT_EQ(InChild([&] { return KeyCount(1, L"CLSID") == kClasses ? 0 : 1; }), 0);
    // The next save clears away what the killed writers left half made.
    EXPECT_EQ(InChild([] {
        RegistryPtr registry = OpenAt(5, L"");
        return registry && registry->SetValueDWORD(L"round", 0) == S_OK ? 0 : 1;
    }), 0);
    EXPECT_EQ(Leftovers(m_dir), std::vector<std::string>());
}

TEST_F(RegistryDurability, ASaveBeyondTheFileSizeLimitFailsAndChangesNothing) {
    WriteFile("Registry.XML", ManyClasses(100));
    const std::string before = ReadFile("Registry.XML");
    EXPECT_EQ(InChild([&] {
        signal(SIGXFSZ, SIG_IGN);
        const rlimit limit = {before.size() + 100, before.size() + 100};
        if (setrlimit(RLIMIT_FSIZE, &limit) != 0) return 2;
        RegistryPtr registry = OpenAt(5, L"");
        if (!registry) return 3;
        if (registry->SetValueString(L"big", std::wstring(1000, L'x').c_str()) != REGDB_E_WRITEREGDB) return 4;
        // What could not be saved is not kept in memory either, to be
        // saved by some later change.
        if (registry->GetValueString(L"big", nullptr) != REGDB_E_INVALIDVALUE) return 5;
        return registry->SetValueString(L"small", L"s") == S_OK ? 0 : 6;
    }), 0);
    const std::string after = ReadFile("Registry.XML");
    EXPECT_EQ(after.find("big"), std::string::npos);
    EXPECT_NE(after.find("small"), std::string::npos);
    EXPECT_TRUE(ReadFile("Registry.XML.bak") == before) << "the backup is not the document before";
    EXPECT_EQ(Leftovers(m_dir), std::vector<std::string>());
}

// A directory that takes no new file, holding a file anyone may write: the
// save goes in place, and space is reserved before the old content is
// touched.
TEST_F(RegistryDurability, AReadOnlyDirectoryIsSavedInPlaceAndAFullOneChangesNothing) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root, to act as a user the directory refuses";
    WriteFile("Registry.XML", ManyClasses(100));
    ASSERT_EQ(chmod(PathOf("Registry.XML").c_str(), 0666), 0);
    ASSERT_EQ(chmod(m_dir.c_str(), 0755), 0);
    const std::string before = ReadFile("Registry.XML");
    EXPECT_EQ(InChild([&] {
        signal(SIGXFSZ, SIG_IGN);
        const rlimit limit = {before.size() + 100, before.size() + 100};
        if (setgid(65534) != 0 || setuid(65534) != 0 || setrlimit(RLIMIT_FSIZE, &limit) != 0) return 2;
        RegistryPtr registry = OpenAt(5, L"");
        if (!registry) return 3;
        if (registry->SetValueString(L"big", std::wstring(1000, L'x').c_str()) != REGDB_E_WRITEREGDB) return 4;
        return 0;
    }), 0);
    EXPECT_TRUE(ReadFile("Registry.XML") == before) << "a failed save in place touched the file";
    EXPECT_EQ(InChild([&] {
        if (setgid(65534) != 0 || setuid(65534) != 0) return 2;
        RegistryPtr registry = OpenAt(5, L"");
        return registry && registry->SetValueString(L"small", L"s") == S_OK ? 0 : 3;
    }), 0);
    EXPECT_NE(ReadFile("Registry.XML").find("value = \"s\""), std::string::npos);
    EXPECT_EQ(Leftovers(m_dir), std::vector<std::string>());
}

TEST_F(RegistryDurability, TwoWritersAtOnceLoseNothingAndStartersNeverAbort) {
    const unsigned kClasses = 200;
    const int kValues = 300;
    WriteFile("Registry.XML", ManyClasses(kClasses));
    auto writer = [&](const wchar_t* prefix) {
        return [=] {
            RegistryPtr registry = OpenAt(5, L"");
            if (!registry) return 2;
            for (int i = 0; i < kValues; ++i) {
                if (registry->SetValueString((prefix + std::to_wstring(i)).c_str(), std::to_wstring(i).c_str()) != S_OK)
                    return 3;
            }
            return 0;
        };
    };
    const pid_t first = SpawnChild(writer(L"first"));
    const pid_t second = SpawnChild(writer(L"second"));
    int starters = 0;
    for (; starters < 40; ++starters)
        ASSERT_EQ(InChild([&] { return KeyCount(1, L"CLSID") == kClasses ? 0 : 1; }), 0) << "starter " << starters;
    EXPECT_EQ(ChildResult(first), 0);
    EXPECT_EQ(ChildResult(second), 0);
    EXPECT_EQ(InChild([&] {
        RegistryPtr registry = OpenAt(5, L"");
        if (!registry) return 255;
        int lost = 0;
        for (const wchar_t* prefix : {L"first", L"second"}) {
            for (int i = 0; i < kValues; ++i)
                lost += StringAt(registry.Get(), prefix + std::to_wstring(i)) != std::to_wstring(i);
        }
        return std::min(lost, 254);
    }), 0) << "updates lost";
}

TEST_F(RegistryDurability, ANoOpChangeLeavesAnAsciiDocumentByteIdentical) {
    const std::string written = ManyClasses(3);
    WriteFile("Registry.XML", written);
    EXPECT_EQ(InChild([] {
        RegistryPtr registry = OpenAt(1, L"CLSID\\Class1");
        if (!registry || registry->SetValueString(L"", L"Test.Class.1") != S_OK) return 2;
        if (registry->CreateKey(L"ProgID", 0) != S_OK) return 3;
        return registry->OpenKey(L"InstallCount") == S_OK && registry->SetValueString(L"", L"1") == S_OK ? 0 : 4;
    }), 0);
    EXPECT_TRUE(ReadFile("Registry.XML") == written) << ReadFile("Registry.XML");
}

TEST_F(RegistryDurability, PathsBeyondTheDepthLimitAreRefusedAndDeepFilesStillLoadAndSave) {
    std::wstring path = L"k";
    for (int depth = 1; depth < 256; ++depth) path += L"\\k";
    EXPECT_EQ(InChild([&] {
        RegistryPtr registry = OpenAt(5, L"");
        if (!registry || registry->CreateKey(path.c_str(), 0) != S_OK) return 2;
        const std::wstring deeper = path + L"\\k";
        if (registry->CreateKey(deeper.c_str(), 0) != E_INVALIDARG) return 3;
        if (registry->OpenKey(deeper.c_str()) != E_INVALIDARG) return 4;
        std::wstring huge = L"h";
        for (int depth = 1; depth < 100000; ++depth) huge += L"\\h";
        return registry->CreateKey(huge.c_str(), 0) == E_INVALIDARG ? 0 : 5;
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

TEST_F(RegistryDurability, MemoryStaysBoundedUnderOverwritesAndCreateDeleteCycles) {
    if (UnderSanitizer()) GTEST_SKIP() << "the sanitizer holds freed memory back";
    // A file system in memory: each save's fsync costs nothing there.
    char pattern[] = "/dev/shm/veltcom-rss-XXXXXX";
    const bool inMemory = mkdtemp(pattern) != nullptr;
    const std::string directory = inMemory ? pattern : m_dir;
    const int kCycles = 20000;
    int report[2];
    ASSERT_EQ(pipe(report), 0);
    const int status = InChild([&] {
        setenv("COMLIB", directory.c_str(), 1);
        RegistryPtr registry = OpenAt(5, L"");
        if (!registry) return 2;
        for (int i = 0; i < 1000; ++i) registry->SetValueString(L"v", std::to_wstring(i).c_str());
        const long start = ResidentBytes();
        for (int i = 0; i < kCycles; ++i) {
            if (registry->SetValueString(L"v", std::to_wstring(i).c_str()) != S_OK) return 3;
        }
        const long overwritten = ResidentBytes();
        for (int i = 0; i < kCycles; ++i) {
            if (registry->CreateKey(L"Cycle\\Inner", 0) != S_OK || registry->DeleteKey(L"Cycle") != S_OK) return 4;
        }
        const long cycled = ResidentBytes();
        const long growth[2] = {overwritten - start, cycled - overwritten};
        return write(report[1], growth, sizeof growth) == sizeof growth ? 0 : 5;
    });
    long growth[2] = {-1, -1};
    close(report[1]);
    const bool reported = read(report[0], growth, sizeof growth) == sizeof growth;
    close(report[0]);
    if (inMemory) std::filesystem::remove_all(directory);
    ASSERT_EQ(status, 0);
    ASSERT_TRUE(reported);
    const long kBound = 4L << 20;
    EXPECT_LT(growth[0], kBound) << "after " << kCycles << " overwrites";
    EXPECT_LT(growth[1], kBound) << "after " << kCycles << " create/delete cycles";
    std::printf("resident growth: %ld KiB over %d overwrites, %ld KiB over %d create/delete cycles\n",
                growth[0] >> 10, kCycles, growth[1] >> 10, kCycles);
}

TEST_F(RegistryDurability, ASaveKeepsModeOwnerAndLinkAndTheLastDocumentAsBackup) {
    ASSERT_EQ(mkdir(PathOf("real").c_str(), 0755), 0);
    const std::string first = ManyClasses(1);
    WriteFile("real/registry.xml", first);
    ASSERT_EQ(symlink("real/registry.xml", PathOf("Registry.XML").c_str()), 0);
    ASSERT_EQ(chmod(PathOf("real/registry.xml").c_str(), 0640), 0);
    const bool root = geteuid() == 0;
    if (root) {
        ASSERT_EQ(chown(PathOf("real/registry.xml").c_str(), 4242, 4343), 0);
    }

    RegistryPtr registry = OpenAt(5, L"");
    ASSERT_TRUE(registry);
    ASSERT_EQ(registry->SetValueString(L"v", L"1"), S_OK);
    const std::string second = ReadFile("real/registry.xml");
    ASSERT_EQ(registry->SetValueString(L"v", L"2"), S_OK);

    struct stat info;
    ASSERT_EQ(lstat(PathOf("Registry.XML").c_str(), &info), 0);
    EXPECT_TRUE(S_ISLNK(info.st_mode));
    ASSERT_EQ(stat(PathOf("real/registry.xml").c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 07777, 0640u);
    if (root) {
        EXPECT_EQ(std::make_pair(info.st_uid, info.st_gid), std::make_pair(uid_t(4242), gid_t(4343)));
    }
    EXPECT_NE(ReadFile("Registry.XML").find("value = \"2\""), std::string::npos);
    EXPECT_TRUE(ReadFile("real/registry.xml.bak") == second) << "the backup is not the document before";
    EXPECT_EQ(Leftovers(PathOf("real")), (std::vector<std::string>{"registry.xml", "registry.xml.bak",
                                                                   "registry.xml.image", "registry.xml.lock"}));
}

// The runtime trusts its save counter alone for 100 ms; a margin on top.
const std::chrono::milliseconds kPastTheInterval(150);

// A whole registry file whose ApplicationData\Watch holds `round`.
std::string FileWithRound(const std::string& round) {
    return kDeclaration + "<Software><Quorvane><Version><ApplicationData><Watch><item name = \"round\" "
                          "type = \"string\" value = \"" + round + "\"/></Watch></ApplicationData><Classes>"
                          "<CLSID/></Classes></Version></Quorvane></Software>";
}

class RegistryWatch : public ToolTest {
protected:
    // ApplicationData\Watch\round as this process reads it after a fresh Open.
    std::wstring Round() {
        RegistryPtr registry = OpenAt(5, L"Watch");
        return registry ? StringAt(registry.Get(), L"round") : L"<no key>";
    }

    void SetRoundWithTool(const std::string& round) { RunOk({"reg", "set", "appdata", "Watch", "round", round}); }

    // As an editor saves: a new file renamed over the old one.
    void ReplaceByHand(const std::string& content) {
        WriteFile("edit.tmp", content);
        ASSERT_EQ(rename(PathOf("edit.tmp").c_str(), PathOf("Registry.XML").c_str()), 0);
    }

    // The save counter in the lock file's first eight bytes.
    uint64_t SaveCount() const {
        const std::string bytes = ReadFile("Registry.XML.lock");
        uint64_t count = 0;
        EXPECT_EQ(bytes.size(), sizeof count);
        std::memcpy(&count, bytes.data(), std::min(bytes.size(), sizeof count));
        return count;
    }
};

TEST_F(RegistryWatch, SavesOfAnotherProcessAreSeenAtTheNextOpen) {
    SetRoundWithTool("0");
    ASSERT_EQ(Round(), L"0");
    for (int round = 1; round <= 5; ++round) {
        SetRoundWithTool(std::to_string(round));
        EXPECT_EQ(Round(), std::to_wstring(round)) << "no sleep between the other process's save and Open";
    }
}

TEST_F(RegistryWatch, AFileReplacedByHandIsSeenOnceTheIntervalHasPassed) {
    SetRoundWithTool("tool");
    ASSERT_EQ(Round(), L"tool");
    ReplaceByHand(FileWithRound("by hand"));
    std::this_thread::sleep_for(kPastTheInterval);
    EXPECT_EQ(Round(), L"by hand");
    // The counter still tells of the next save at once.
    SetRoundWithTool("tool again");
    EXPECT_EQ(Round(), L"tool again");
}

// A lock file that cannot hold the counter (here a directory) leaves every
// Open to look at the file itself, so even a hand edit is seen at once.
TEST_F(RegistryWatch, WithoutACounterEveryOpenLooksAtTheFile) {
    ASSERT_EQ(mkdir(PathOf("Registry.XML.lock").c_str(), 0755), 0);
    WriteFile("Registry.XML", FileWithRound("first"));
    ASSERT_EQ(Round(), L"first");
    for (const char* round : {"second", "third"}) {
        ReplaceByHand(FileWithRound(round));
        EXPECT_EQ(Round(), std::wstring(round, round + std::strlen(round)));
    }
}

// Saves by this process and a restore by the tool each count once; the
// restored file is read at the next Open.
TEST_F(RegistryWatch, EverySaveAndRestoreCountsOnceAndARestoreIsSeenAtTheNextOpen) {
    WriteFile("Registry.XML", FileWithRound("backed up"));
    ASSERT_EQ(Round(), L"backed up");
    const uint64_t before = SaveCount();
    RegistryPtr registry = Registry();
    ASSERT_EQ(registry->Open(5, L"Watch"), S_OK);
    ASSERT_EQ(registry->SetValueString(L"round", L"saved"), S_OK);
    EXPECT_EQ(SaveCount(), before + 1);
    ASSERT_EQ(Round(), L"saved");

    WriteFile("Registry.XML", kDeclaration + "<Software><Quorvane>");
    const ToolRun restore = Run({"check", "--restore"});
    ASSERT_EQ(restore.exitCode, 0) << restore;
    EXPECT_EQ(SaveCount(), before + 2);
    EXPECT_EQ(Round(), L"backed up");
}

const COM_GUID kFirst = {0x0123ABCD, 0x1111, 0x2222, {0x33, 0x44, 0x55, 0x66, 0x77, 0x88, 0x99, 0xAA}};
const COM_GUID kSentinel = {0xDEADBEEF, 0xDEAD, 0xBEEF, {1, 2, 3, 4, 5, 6, 7, 8}};

class ClassLookups : public TempDirTest {};

// ProgIDs are looked up as Open(1, progId) and OpenKey("CLSID") would find
// them: spaces stand for underscores, backslashes descend; the identifier
// text reads in either case. A failure leaves the identifier untouched.
TEST_F(ClassLookups, ProgIdsAreFoundAsTheRegistryWalkFindsThem) {
    const std::string first = Text(kFirst);
    std::string lower = first;
    for (char& c : lower) c = static_cast<char>(std::tolower(c));
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
