// The runtime used from many threads at once, as multi-threaded applications
// use it: each test starts its threads together and runs a fixed number of
// rounds, then checks what every thread saw and that no reference or module
// lock was lost. Built under ThreadSanitizer by `make tsan`, where any data
// race fails the test.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <cstring>
#include <functional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "testComponents.h"
#include "testSupport.h"

// Every dlopen of the process passes here, so a test can see which handles
// the counter component was given. Threads that load it at once may each ask
// the loader, which must hand them all the one library.
static std::atomic<void*> g_counterHandle{nullptr};
static std::atomic<int> g_otherCounterHandles{0};

extern "C" void* dlopen(const char* file, int mode) {
    using RealDlopen = void* (*)(const char*, int);
    static const RealDlopen real = reinterpret_cast<RealDlopen>(dlsym(RTLD_NEXT, "dlopen"));
    void* handle = real(file, mode);
    void* first = nullptr;
    if (file && std::strstr(file, "libtestcounter.so") && handle &&
        !g_counterHandle.compare_exchange_strong(first, handle) && first != handle)
        ++g_otherCounterHandles;
    return handle;
}

namespace {

using UnknownPtr = utlAutoIf<COM_IUnknown, &COM_IID_IUnknown>;
using CounterPtr = utlAutoIf<ICounter, &IID_ICounter>;
using MonikerPtr = utlAutoIf<COM_IMoniker, &COM_IID_IMoniker>;
using MemoryPtr = utlAutoIf<COM_IMemory, &COM_IID_IMemory>;
using FactoryPtr = utlAutoIf<COM_IClassFactory, &COM_IID_IClassFactory>;
using CatRegisterPtr = utlAutoIf<COM_ICatRegister, &COM_IID_ICatRegister>;
using CatInformationPtr = utlAutoIf<COM_ICatInformation, &COM_IID_ICatInformation>;
using ErrorInfoPtr = utlAutoIf<COM_IErrorInfo, &COM_IID_IErrorInfo>;

const int kRounds = 200;
// Classes in the large registry besides the counter; the first few are
// looked at by the walkers.
const int kFillerClasses = 1000;
const int kWalkedFillers = 4;
// Changes the registry writer makes while others read.
const int kWrites = 40;

COM_GUID FillerClass(int index) {
    return {0x5A1E1000u + static_cast<uint32_t>(index), 0x0000, 0x4000, {0x80, 0, 0, 0, 0, 0, 0x10, 0}};
}

std::wstring FillerName(int index) { return L"Filler class " + std::to_wstring(index); }

// Runs each task on a thread of its own, all released at once, and waits
// for all of them.
void RunTogether(const std::vector<std::function<void()>>& tasks) {
    std::atomic<size_t> ready{0};
    std::vector<std::thread> threads;
    for (const auto& task : tasks) {
        threads.emplace_back([&ready, &task, count = tasks.size()] {
            ++ready;
            while (ready.load() < count) std::this_thread::yield();
            task();
        });
    }
    for (auto& thread : threads) thread.join();
}

// `count` copies of one task, each told its number.
std::vector<std::function<void()>> Copies(int count, const std::function<void(int)>& task) {
    std::vector<std::function<void()>> tasks;
    for (int i = 0; i < count; ++i) tasks.emplace_back([task, i] { task(i); });
    return tasks;
}

std::vector<std::function<void()>> Join(std::vector<std::function<void()>> first,
                                        const std::vector<std::function<void()>>& second) {
    first.insert(first.end(), second.begin(), second.end());
    return first;
}

std::wstring DescriptionOf(COM_IErrorInfo* info) {
    wchar_t* text = nullptr;
    EXPECT_EQ(info->GetDescription(&text), S_OK);
    return Take(text);
}

class ThreadStress : public ComponentTest {
protected:
    void SetUp() override {
        ComponentTest::SetUp();
        COM_ClearErrorInfo();
    }

    // A registry of many classes, written as a file before the runtime reads
    // it, so that the counter component is registered but not yet loaded.
    void WriteLargeRegistry() {
        std::wstring classes;
        for (int i = 0; i < kFillerClasses; ++i) {
            const std::wstring id = TextOf(FillerClass(i));
            classes += L"<" + id + L"><InprocServer32 default=\"libfiller.so\"/><ProgID default=\"" +
                       FillerName(i) + L"\"/></" + id + L">";
        }
        const std::wstring counter = TextOf(CLSID_Counter);
        classes += L"<" + counter + L"><InprocServer32 default=\"libtestcounter.so\"/>" +
                   L"<ProgID default=\"Test.Counter\"/></" + counter + L">";
        const std::wstring document =
            L"<?xml version='1.0' encoding='ISO-8859-1' ?><Software><Quorvane><Version>"
            L"<ApplicationData><Stress><item name=\"Round\" type=\"string\" value=\"0\"/></Stress>"
            L"</ApplicationData><Classes><CLSID>" +
            classes + L"</CLSID><ComponentCategories/><Moniker/><Test.Counter><CLSID default=\"" +
            counter + L"\"/></Test.Counter></Classes></Version></Quorvane></Software>";
        WriteFile("Registry.XML", std::string(document.begin(), document.end()));
        CopyComponent(COMPONENT_testcounter);
    }
};

TEST_F(ThreadStress, ErrorInfoSlot) {
    ErrorInfoPtr shared;
    ASSERT_EQ(COM_CreateErrorInfo(shared.Out()), S_OK);
    std::wstring initial = L"shared";
    shared->SetDescription(&initial[0]);

    // Setters replace the one current error with objects of their own;
    // readers see some thread's whole description, never a torn one; two
    // threads keep rewriting the description of one shared object.
    auto setter = [](int thread) {
        for (int round = 0; round < kRounds; ++round) {
            ErrorInfoPtr info;
            ASSERT_EQ(COM_CreateErrorInfo(info.Out()), S_OK);
            std::wstring text = L"set by " + std::to_wstring(thread);
            info->SetDescription(&text[0]);
            EXPECT_EQ(COM_SetErrorInfo(info), S_OK);
            if (round % 7 == 0) {
                EXPECT_EQ(COM_ClearErrorInfo(), S_OK);
            }
        }
    };
    auto reader = [](int) {
        for (int round = 0; round < kRounds; ++round) {
            ErrorInfoPtr current;
            if (COM_GetErrorInfo(current.Out()) != S_OK) continue;
            const std::wstring text = DescriptionOf(current);
            EXPECT_TRUE(text == L"shared" || text.rfind(L"set by ", 0) == 0) << text;
        }
    };
    auto rewriter = [&shared](int thread) {
        for (int round = 0; round < kRounds; ++round) {
            std::wstring text = L"set by " + std::to_wstring(thread);
            shared->SetDescription(&text[0]);
            shared->SetHRESULT(round);
            EXPECT_EQ(COM_SetErrorInfo(shared), S_OK);
            EXPECT_FALSE(DescriptionOf(shared).empty());
        }
    };
    RunTogether(Join(Join(Copies(3, setter), Copies(3, reader)), Copies(2, rewriter)));

    EXPECT_EQ(COM_ClearErrorInfo(), S_OK);
    EXPECT_EQ(RefCount(shared), 1u) << "only the test's own reference is left";
    shared.Reset();
    EXPECT_EQ(CanUnloadNow(), S_OK) << "no error object outlived its last reference";
}

// Every thread takes and releases the same shared objects over and over:
// their counts are raced, and one lost update frees an object that the
// collection still hands out.
TEST_F(ThreadStress, ServicesOneObjectPerKey) {
    // The registry object exists before the threads start: making it is not
    // what this test races.
    RegistryPtr registry = Registry();
    const unsigned kNumbers = 16;
    const int kThreads = 6;
    const int kRepeats = 200;
    std::vector<std::vector<COM_IUnknown*>> seen(kThreads, std::vector<COM_IUnknown*>(3 * kNumbers));
    RunTogether(Copies(kThreads, [&seen](int thread) {
        for (unsigned number = 0; number < kRepeats * kNumbers; ++number) {
            // Threads start at different numbers, so that each number is first
            // asked for by several threads at once over the run.
            const unsigned n = (number + thread) % kNumbers;
            MonikerPtr binder;
            CatInformationPtr manager;
            MemoryPtr memory;
            ASSERT_EQ(COM_GetService(COM_CLSID_HResultDecoderBinder, n, COM_IID_IMoniker,
                                     binder.OutVoid()),
                      S_OK);
            ASSERT_EQ(COM_GetService(COM_CLSID_CategoryManager, n, COM_IID_ICatInformation,
                                     manager.OutVoid()),
                      S_OK);
            ASSERT_EQ(COM_GetService(COM_CLSID_Memory, n, COM_IID_IMemory, memory.OutVoid()), S_OK);
            seen[thread][n] = binder;
            seen[thread][kNumbers + n] = manager;
            seen[thread][2 * kNumbers + n] = memory;
        }
    }));

    for (unsigned slot = 0; slot < 3 * kNumbers; ++slot) {
        for (int thread = 1; thread < kThreads; ++thread)
            EXPECT_EQ(seen[thread][slot], seen[0][slot]) << "slot " << slot << ", thread " << thread;
        // The collection's reference is the only one left.
        EXPECT_EQ(RefCount(seen[0][slot]), 1u) << "slot " << slot;
    }
}

// Flat functions: system strings, task memory, identifier text and status
// decoding, the last from the built-in table and the system's own texts,
// expected as one thread sees them.
TEST_F(ThreadStress, FlatFunctions) {
    const std::vector<uint32_t> codes = {0x00000000, 0x00000001, 0x80004001, 0x80630001,
                                         0x80620002, 0x8062000D, 0x80620016, 0x8062FFFF,
                                         0x8007000E};
    std::vector<std::pair<HRESULT, std::wstring>> expected;
    for (uint32_t code : codes) {
        wchar_t* text = nullptr;
        const HRESULT hr = COM_DecodeHRESULT(static_cast<int>(code), 0, &text);
        expected.emplace_back(hr, Take(text));
    }
    ASSERT_EQ(expected[2].second, L"Method not implemented [80004001]");
    ASSERT_EQ(expected[4].second, SystemText(2));

    RunTogether(Copies(6, [&](int thread) {
        for (int round = 0; round < kRounds; ++round) {
            const size_t i = (round + thread) % codes.size();
            wchar_t* decoded = nullptr;
            EXPECT_EQ(COM_DecodeHRESULT(static_cast<int>(codes[i]), 0, &decoded), expected[i].first);
            EXPECT_EQ(Take(decoded), expected[i].second) << std::hex << codes[i];

            const std::wstring text = L"thread " + std::to_wstring(thread) + L" round " +
                                      std::to_wstring(round);
            wchar_t* s = COM_SysAllocString(text.c_str());
            ASSERT_NE(s, nullptr);
            EXPECT_EQ(COM_SysReAllocString(&s, (text + L"!").c_str()), 1);
            EXPECT_EQ(std::wstring(s, COM_SysStringLen(s)), text + L"!");
            COM_SysFreeString(s);

            void* block = nullptr;
            ASSERT_EQ(COM_TaskMemAlloc(64, &block), 0);
            std::memset(block, thread, 64);
            EXPECT_EQ(static_cast<unsigned char*>(block)[63], thread);
            COM_TaskMemFree(block);

            // Identifier text goes through the multibyte conversion.
            const COM_GUID id = FillerClass(thread * kRounds + round);
            wchar_t* idText = nullptr;
            ASSERT_EQ(COM_CLSIDToString(id, &idText), S_OK);
            COM_GUID back = COM_GUID_NULL;
            EXPECT_EQ(COM_StringToCLSID(idText, &back), S_OK);
            EXPECT_EQ(back, id);
            COM_SysFreeString(idText);
            EXPECT_EQ(a2wStr("narrow", 6, 0), L"narrow");
        }
    }));
}

TEST_F(ThreadStress, BuiltInActivationAndRefCounts) {
    // One binder passed around by all threads, and factories and objects of
    // each thread's own, taken and dropped many times.
    MonikerPtr shared;
    ASSERT_EQ(shared.CreateInstance(COM_CLSID_HResultDecoderBinder), S_OK);
    RunTogether(Copies(6, [&shared](int) {
        for (int round = 0; round < kRounds; ++round) {
            MonikerPtr mine(shared);
            UnknownPtr unknown;
            ASSERT_EQ(unknown.QueryFrom(mine), S_OK);
            MemoryPtr memory;
            ASSERT_EQ(memory.CreateInstance(COM_CLSID_Memory), S_OK);
            MonikerPtr binder;
            ASSERT_EQ(binder.CreateInstance(COM_CLSID_HResultDecoderBinder), S_OK);
            FactoryPtr factory;
            ASSERT_EQ(COM_GetClassFactory(COM_CLSID_Memory, factory.OutVoid()), S_OK);
            UnknownPtr made;
            ASSERT_EQ(factory->CreateInstance(COM_IID_IUnknown, made.OutVoid()), S_OK);
        }
    }));
    EXPECT_EQ(RefCount(shared), 1u);
    EXPECT_EQ(CanUnloadNow(), S_FALSE);
    shared.Reset();
    EXPECT_EQ(CanUnloadNow(), S_OK) << "every module lock was given back";
}

// From a cold start: threads activating a class of a library nobody has
// loaded yet, while others look up its ProgID, walk the registry and ask
// for a service. The library is loaded once.
TEST_F(ThreadStress, FirstLoadRacesLoadOnce) {
    WriteLargeRegistry();
    g_counterHandle = nullptr;
    g_otherCounterHandles = 0;
    const std::wstring counterText = TextOf(CLSID_Counter);
    std::vector<CounterPtr> counters(4);

    auto activator = [&counters](int thread) {
        ASSERT_EQ(COM_CreateInstance(CLSID_Counter, nullptr, IID_ICounter,
                                     counters[thread].OutVoid()),
                  S_OK);
        for (int round = 0; round < kRounds; ++round) {
            CounterPtr counter;
            ASSERT_EQ(counter.CreateInstance(CLSID_Counter), S_OK);
        }
    };
    auto progIdLookup = [](int) {
        for (int round = 0; round < kRounds / 10; ++round) {
            wchar_t* progId = nullptr;
            ASSERT_EQ(COM_GetProgIDFromClsid(CLSID_Counter, &progId), S_OK);
            EXPECT_EQ(Take(progId), L"Test.Counter");
            std::wstring name = L"Test.Counter";
            COM_GUID clsid = COM_GUID_NULL;
            ASSERT_EQ(COM_GetCLSIDFromProgID(&name[0], &clsid), S_OK);
            EXPECT_EQ(clsid, CLSID_Counter);
        }
    };
    auto walker = [&counterText](int) {
        for (int round = 0; round < kRounds / 10; ++round) {
            RegistryPtr registry = Registry();
            wchar_t* value = nullptr;
            ASSERT_EQ(registry->Open(1, L"CLSID"), S_OK);
            ASSERT_EQ(registry->OpenKey((counterText + L"\\InprocServer32").c_str()), S_OK);
            ASSERT_EQ(registry->GetValueString(L"", &value), S_OK);
            EXPECT_EQ(Take(value), L"libtestcounter.so");
            EXPECT_EQ(registry->Close(), S_OK);
        }
    };
    // The first request for a service races the first load of the registry.
    auto services = [](int) {
        for (int round = 0; round < kRounds / 10; ++round) {
            CatRegisterPtr manager;
            ASSERT_EQ(COM_GetService(COM_CLSID_CategoryManager, 0, COM_IID_ICatRegister,
                                     manager.OutVoid()),
                      S_OK);
        }
    };
    RunTogether(Join(Join(Copies(4, activator), Copies(2, progIdLookup)),
                     Join(Copies(2, walker), Copies(2, services))));

    EXPECT_NE(g_counterHandle.load(), nullptr);
    EXPECT_EQ(g_otherCounterHandles.load(), 0) << "the library is loaded once";
    // Every object came from the one loaded library: each starts its own
    // count at 1.
    for (auto& counter : counters) {
        long value = 0;
        ASSERT_FALSE(counter.IsNull());
        EXPECT_EQ(counter->Increment(&value), S_OK);
        EXPECT_EQ(value, 1);
    }
}

// A plug-in whose constructor activates a registered class, opened by one
// thread while another activates a class of a library not loaded yet: the
// loader's lock and the runtime's are taken in opposite orders, and neither
// thread may wait for the other. Run in a child, which an alarm ends if a
// deadlock hangs it.
TEST_F(ThreadStress, PluginConstructorActivatesBesideAFirstLoad) {
    CopyComponent(COMPONENT_testcounter);
    CopyComponent(COMPONENT_testcategories);
    CopyComponent(COMPONENT_testplugin);
    RegistryPtr registry = Registry();
    const std::pair<COM_GUID, const wchar_t*> classes[] = {
        {CLSID_Counter, L"libtestcounter.so"}, {CLSID_CatWidget, L"libtestcategories.so"}};
    for (const auto& [clsid, library] : classes) {
        ASSERT_EQ(registry->Open(1, L"CLSID"), S_OK);
        ASSERT_EQ(registry->CreateKey((TextOf(clsid) + L"\\InprocServer32").c_str(), 1), S_OK);
        ASSERT_EQ(registry->SetValueString(L"", library), S_OK);
    }

    const pid_t child = SpawnChild([] {
        alarm(30);
        std::thread plugin([] {
            if (!dlopen("./libtestplugin.so", RTLD_NOW)) _exit(2);
        });
        // The plug-in's constructor is running, and holds the loader, by now.
        usleep(100 * 1000);
        UnknownPtr widget;
        const HRESULT hr = COM_CreateInstance(CLSID_CatWidget, nullptr, COM_IID_IUnknown,
                                              widget.OutVoid());
        plugin.join();
        return SUCCEEDED(hr) ? 0 : 3;
    });
    EXPECT_EQ(ChildResult(child), 0) << "128 + SIGALRM: the two activations deadlocked";
}

// Readers walk to values with their own Open / OpenKey / GetValueString /
// Close while a writer keeps changing a value; ProgID lookups go on beside.
// Each walker stands on a class key of its own between calls: another
// thread's Open or OpenKey never moves it.
TEST_F(ThreadStress, ProgIdLookupsAndRegistryWalks) {
    WriteLargeRegistry();
    auto writer = [](int) {
        RegistryPtr registry = Registry();
        for (int round = 1; round <= kWrites; ++round) {
            ASSERT_EQ(registry->Open(5, L"Stress"), S_OK);
            ASSERT_EQ(registry->SetValueString(L"Round", std::to_wstring(round).c_str()), S_OK);
            ASSERT_EQ(registry->Close(), S_OK);
        }
    };
    auto stressReader = [](int) {
        int last = 0;
        for (int round = 0; round < kRounds; ++round) {
            RegistryPtr registry = Registry();
            wchar_t* value = nullptr;
            ASSERT_EQ(registry->Open(5, L"Stress"), S_OK);
            ASSERT_EQ(registry->GetValueString(L"Round", &value), S_OK);
            const int seen = std::stoi(Take(value));
            EXPECT_GE(seen, last) << "a value never goes back to an older write";
            EXPECT_LE(seen, kWrites);
            last = seen;
            EXPECT_EQ(registry->Close(), S_OK);
        }
    };
    auto classWalker = [](int thread) {
        for (int round = 0; round < kRounds; ++round) {
            const int filler = (round + thread) % kWalkedFillers;
            RegistryPtr registry = Registry();
            wchar_t* value = nullptr;
            ASSERT_EQ(registry->Open(1, L"CLSID"), S_OK);
            ASSERT_EQ(registry->OpenKey(TextOf(FillerClass(filler)).c_str()), S_OK);
            ASSERT_EQ(registry->OpenKey(L"ProgID"), S_OK);
            ASSERT_EQ(registry->GetValueString(L"", &value), S_OK);
            EXPECT_EQ(Take(value), FillerName(filler));
            EXPECT_EQ(registry->Close(), S_OK);

            wchar_t* progId = nullptr;
            ASSERT_EQ(COM_GetProgIDFromClsid(FillerClass(filler), &progId), S_OK);
            EXPECT_EQ(Take(progId), FillerName(filler));
        }
    };
    // Another process changes the file meanwhile: every thread's next Open
    // or change reloads it under the others' feet.
    const pid_t other = SpawnChild([] {
        RegistryPtr registry;
        if (FAILED(registry.CreateInstance(COM_CLSID_Registry)) || FAILED(registry->Open(5, L""))) return 2;
        for (int round = 1; round <= kWrites; ++round) {
            if (FAILED(registry->SetValueString(L"Other", std::to_wstring(round).c_str()))) return 3;
        }
        return 0;
    });
    RunTogether(Join(Join(Copies(1, writer), Copies(2, stressReader)), Copies(3, classWalker)));
    EXPECT_EQ(ChildResult(other), 0);
}

}  // namespace
