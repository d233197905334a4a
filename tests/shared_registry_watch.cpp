// How a long-running process learns of changes others make to the registry
// file: a save by any process of the runtime, the veltcom tool among them, is
// seen at the next Open; a file replaced by other means within a short
// interval; and at every Open where the lock file cannot hold the save
// counter. Also the class and ProgID lookups that run on every activation.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <thread>

#include "shared_tool_support.h"

namespace {

// The runtime trusts its save counter alone for 100 ms; a margin on top.
const std::chrono::milliseconds kPastTheInterval(150);

const std::string kDeclaration = "<?xml version='1.0' encoding='ISO-8859-1' ?>\n";

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
        RegistryPtr registry = Registry();
        wchar_t* value = Unwritten<wchar_t>();
        if (!registry || FAILED(registry->Open(5, L"Watch"))) return L"<no key>";
        if (FAILED(registry->GetValueString(L"round", &value))) return L"<missing>";
        return Take(value);
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
