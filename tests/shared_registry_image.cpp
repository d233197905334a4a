// The registry's compiled image with real processes: a process that only
// reads answers from it without starting the XML library, from the image its
// last save left; an image that no longer describes the file, or that is
// damaged, is never trusted and is made anew; and a reader beside a process
// that saves in a loop never fails and never answers older than a save that
// had completed.
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstdio>
#include <ctime>
#include <functional>
#include <random>
#include <string>

#include <xercesc/util/PlatformUtils.hpp>

#include "testComponents.h"
#include "testSupport.h"

namespace {

using EnumPtr = utlAutoIf<COM_IEnumBSTR, &COM_IID_IEnumBSTR>;

// The library sets its memory manager when it starts, and only then.
bool XmlStarted() { return xercesc::XMLPlatformUtils::fgMemoryManager != nullptr; }

// The names an enumeration hands out, each followed by a comma.
std::wstring Names(COM_IRegistry* registry, bool keys) {
    EnumPtr names;
    if (FAILED(keys ? registry->EnumKeys(names.Out()) : registry->EnumValues(names.Out()))) return L"<failed>";
    std::wstring all;
    wchar_t* name = nullptr;
    unsigned long fetched = 0;
    while (names->Next(1, &name, &fetched) == S_OK) all += Take(name) + L",";
    return all;
}

// What a save leaves in ApplicationData\Image, beside a registered class.
int Save(const wchar_t* text) {
    RegistryPtr registry = Registry();
    if (registry->Open(5, L"") != S_OK || registry->CreateKey(L"Image\\A", 0) != S_OK ||
        registry->CreateKey(L"Image\\B", 0) != S_OK || registry->Open(5, L"Image") != S_OK)
        return 1;
    return registry->SetValueDWORD(L"count", 7) == S_OK && registry->SetValueString(L"text", text) == S_OK ? 0 : 2;
}

// Reads all that Save left: 0 when every answer is right.
int ReadsRight(const std::wstring& text) {
    RegistryPtr registry = Registry();
    wchar_t* value = nullptr;
    unsigned int count = 0;
    if (registry->Open(5, L"Image") != S_OK) return 10;
    if (registry->GetValueString(L"text", &value) != S_OK || Take(value) != text) return 11;
    if (registry->GetValueDWORD(L"count", &count) != S_OK || count != 7) return 12;
    // As the enumerations list a key: every element child, values too, and
    // each value's name in the slot of its name attribute, where the last
    // value's stays.
    if (Names(registry.Get(), true) != L"A,B,item,item," || Names(registry.Get(), false) != L"text,,,,") return 13;
    return registry->OpenKey(L"B") == S_OK && registry->Close() == S_OK ? 0 : 14;
}

// A process that reads `text` right and has not parsed: 0, else why not.
int ReadsFromTheImage(const std::wstring& text) {
    const int read = ReadsRight(text);
    return read ? read : XmlStarted() ? 20 : 0;
}

class RegistryImageTest : public ComponentTest {
protected:
    void SetUp() override {
        ComponentTest::SetUp();
        // Installed by a process of its own, as an installer would.
        CopyComponent(COMPONENT_testcounter);
        ASSERT_EQ(InChild([] {
            void* library = dlopen("./libtestcounter.so", RTLD_NOW);
            return library && CallEntry(library, "DllRegisterServer") == S_OK ? 0 : 1;
        }), 0);
        ASSERT_EQ(InChild([] { return Save(L"saved"); }), 0);
    }
};

// A file edited behind the runtime's back, in place and to the same size and
// modification time, is seen by the next process, whose rebuilt image the
// process after it reads again. A file cut short then stops the next process
// however whole its image is.
TEST_F(RegistryImageTest, AFileChangedBehindTheImageIsReadAgain) {
    ASSERT_EQ(InChild([] { return ReadsFromTheImage(L"saved"); }), 0);
    const std::string path = PathOf("Registry.XML");
    std::string content = ReadFile("Registry.XML");
    content.replace(content.find("\"saved\""), 7, "\"SAVED\"");
    struct stat before;
    ASSERT_EQ(stat(path.c_str(), &before), 0);
    // The change time is taken from the coarse clock, which moves at the file
    // system's tick: an edit within the tick of the save would leave it, and
    // with it the whole stamp, unchanged.
    timespec now;
    do {
        usleep(1000);
        clock_gettime(CLOCK_REALTIME_COARSE, &now);
    } while (now.tv_sec < before.st_ctim.tv_sec ||
             (now.tv_sec == before.st_ctim.tv_sec && now.tv_nsec <= before.st_ctim.tv_nsec));
    const int fd = open(path.c_str(), O_WRONLY);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(pwrite(fd, content.data(), content.size(), 0), static_cast<ssize_t>(content.size()));
    const timespec times[2] = {before.st_atim, before.st_mtim};
    ASSERT_EQ(futimens(fd, times), 0);
    close(fd);
    EXPECT_EQ(InChild([] { return ReadsRight(L"SAVED"); }), 0);
    EXPECT_EQ(InChild([] { return ReadsFromTheImage(L"SAVED"); }), 0);

    ASSERT_EQ(truncate(path.c_str(), 120), 0);
    EXPECT_EQ(InChild([] { return ReadsRight(L"SAVED"); }), 128 + SIGABRT);
}

TEST_F(RegistryImageTest, ADamagedImageIsNeverTrustedAndIsMadeAnew) {
    std::mt19937 random(21);
    const auto garbage = [&](std::string& bytes, size_t from) {
        for (size_t i = from; i < bytes.size(); ++i) bytes[i] = static_cast<char>(random());
    };
    const struct {
        const char* name;
        std::function<void(std::string&)> damage;
    } cases[] = {
        {"cut short", [](std::string& image) { image.resize(image.size() / 2); }},
        {"cut within its header", [](std::string& image) { image.resize(100); }},
        // Where a slot names its document's record, in both slots.
        {"a byte flipped in a slot", [](std::string& image) { image[32] ^= 1, image[128 + 32] ^= 1; }},
        {"foreign", [&](std::string& image) { garbage(image, 0); }},
        {"random records", [&](std::string& image) { garbage(image, 256); }},
        // As a crash can leave records appended without waiting for the disk.
        {"zeroed records", [](std::string& image) { std::fill(image.begin() + 256, image.end(), '\0'); }},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        // The next process answers from the file and leaves an image that the
        // process after it reads again.
        ASSERT_EQ(InChild([] { return ReadsFromTheImage(L"saved"); }), 0);
        std::string image = ReadFile("Registry.XML.image");
        ASSERT_GT(image.size(), 256u);
        c.damage(image);
        WriteFile("Registry.XML.image", image);
        EXPECT_EQ(InChild([] { return ReadsRight(L"saved"); }), 0);
        EXPECT_EQ(InChild([] { return ReadsFromTheImage(L"saved"); }), 0);
    }
}

// The writer publishes each value once its save has returned; the reader
// takes what was published before each read, which must not be newer than
// what it reads.
TEST_F(RegistryImageTest, AReaderBesideAWriterNeverFailsNorReadsAnOlderValue) {
    const unsigned kSaves = 300;
    auto* published = static_cast<std::atomic<unsigned>*>(
        mmap(nullptr, sizeof(std::atomic<unsigned>), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    ASSERT_NE(published, MAP_FAILED);
    published->store(0);
    ASSERT_EQ(InChild([] {
        RegistryPtr registry = Registry();
        return registry->Open(5, L"Image") == S_OK && registry->SetValueDWORD(L"round", 0) == S_OK ? 0 : 1;
    }), 0);
    const pid_t writer = SpawnChild([&] {
        RegistryPtr registry = Registry();
        if (registry->Open(5, L"Image") != S_OK) return 1;
        for (unsigned round = 1; round <= kSaves; ++round) {
            if (registry->SetValueDWORD(L"round", round) != S_OK) return 2;
            published->store(round);
        }
        return 0;
    });
    const pid_t reader = SpawnChild([&] {
        RegistryPtr registry = Registry();
        for (unsigned before = 0; before < kSaves;) {
            before = published->load();
            unsigned round = 0;
            if (registry->Open(5, L"Image") != S_OK || registry->GetValueDWORD(L"round", &round) != S_OK) return 1;
            if (round < before) {
                std::fprintf(stderr, "read round %u after round %u was saved\n", round, before);
                return 2;
            }
            std::wstring progId = L"Test.Counter";
            COM_GUID clsid = {};
            if (COM_GetCLSIDFromProgID(&progId[0], &clsid) != S_OK || !(clsid == CLSID_Counter)) return 3;
            utlAutoIf<COM_IUnknown, &COM_IID_IUnknown> counter;
            if (COM_CreateInstance(CLSID_Counter, nullptr, COM_IID_IUnknown, counter.OutVoid()) != S_OK) return 4;
        }
        return 0;
    });
    const int wrote = ChildResult(writer);
    // A reader waiting for saves that will not come.
    if (wrote != 0) kill(reader, SIGKILL);
    EXPECT_EQ(wrote, 0);
    EXPECT_EQ(ChildResult(reader), 0);
    munmap(published, sizeof(std::atomic<unsigned>));
}

}  // namespace
