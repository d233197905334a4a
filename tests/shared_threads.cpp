// The runtime used from many threads at once, as multi-threaded applications
// use it: every thread runs a table of operations round after round, then the
// test checks what every thread saw and that no reference was lost. Built
// under ThreadSanitizer by `make tsan`, where any data race fails the test.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "testComponents.h"
#include "testSupport.h"

namespace {

using UnknownPtr = utlAutoIf<COM_IUnknown, &COM_IID_IUnknown>;
using CounterPtr = utlAutoIf<ICounter, &IID_ICounter>;
using MemoryPtr = utlAutoIf<COM_IMemory, &COM_IID_IMemory>;
using FactoryPtr = utlAutoIf<COM_IClassFactory, &COM_IID_IClassFactory>;
using CatRegisterPtr = utlAutoIf<COM_ICatRegister, &COM_IID_ICatRegister>;
using ErrorInfoPtr = utlAutoIf<COM_IErrorInfo, &COM_IID_IErrorInfo>;

const int kThreads = 6;
const int kRounds = 200;
const unsigned kServiceNumbers = 16;
// Classes of the many-classes component the walkers look at.
const unsigned kWalkedClasses = 4;
// Changes one thread makes to a value the others read.
const int kWrites = 40;

// One row of a thread's table, given the thread's number and the round's.
using Operation = std::function<void(int thread, int round)>;

// Runs the table on kThreads threads released at once. Each thread does every
// row in every round, starting at row thread / 2: two threads at a time do
// the same thing while the others do something else.
void RunTable(const std::vector<Operation>& table) {
    std::atomic<int> ready{0};
    std::vector<std::thread> threads;
    for (int thread = 0; thread < kThreads; ++thread) {
        threads.emplace_back([&ready, &table, thread] {
            ++ready;
            while (ready.load() < kThreads) std::this_thread::yield();
            for (int round = 0; round < kRounds; ++round)
                for (size_t row = 0; row < table.size(); ++row)
                    table[(row + thread / 2) % table.size()](thread, round);
        });
    }
    for (auto& thread : threads) thread.join();
}

std::pair<HRESULT, std::wstring> Decode(uint32_t code) {
    wchar_t* text = nullptr;
    const HRESULT hr = COM_DecodeHRESULT(static_cast<int>(code), 0, &text);
    return {hr, Take(text)};
}

using ThreadStress = ComponentTest;

// The runtime's shared objects: the current error and an error object every
// thread rewrites, services every thread takes and drops (one lost update of
// a count frees an object the collection still hands out), built-in
// activation, and the flat functions.
TEST_F(ThreadStress, SharedObjectsOfTheRuntime) {
    ErrorInfoPtr sharedError;
    ASSERT_EQ(COM_CreateErrorInfo(sharedError.Out()), S_OK);
    const uint32_t codes[] = {0x00000000, 0x00000001, 0x80004001, 0x80630001, 0x80620002,
                              0x8062000D, 0x80620016, 0x8062FFFF, 0x8007000E};
    std::vector<std::pair<HRESULT, std::wstring>> decoded;
    for (uint32_t code : codes) decoded.push_back(Decode(code));
    const std::pair<COM_GUID, COM_GUID> services[] = {
        {COM_CLSID_HResultDecoderBinder, COM_IID_IMoniker},
        {COM_CLSID_CategoryManager, COM_IID_ICatInformation},
        {COM_CLSID_Memory, COM_IID_IMemory}};
    std::vector<std::vector<COM_IUnknown*>> seen(kThreads,
                                                 std::vector<COM_IUnknown*>(3 * kServiceNumbers));

    RunTable({
        // A reader of the current error sees some thread's whole description,
        // never a torn one.
        [&sharedError](int thread, int round) {
            ErrorInfoPtr info = sharedError;
            if (round % 2) {
                ASSERT_EQ(COM_CreateErrorInfo(info.Out()), S_OK);
            }
            std::wstring text = L"set by " + std::to_wstring(thread);
            info->SetDescription(&text[0]);
            info->SetHRESULT(round);
            EXPECT_EQ(COM_SetErrorInfo(info), S_OK);
            ErrorInfoPtr current;
            wchar_t* description = nullptr;
            if (COM_GetErrorInfo(current.Out()) == S_OK &&
                current->GetDescription(&description) == S_OK) {
                EXPECT_EQ(Take(description).rfind(L"set by ", 0), 0u);
            }
            if (round % 7 == 0) {
                EXPECT_EQ(COM_ClearErrorInfo(), S_OK);
            }
        },
        [&](int thread, int) {
            for (unsigned slot = 0; slot < 3 * kServiceNumbers; ++slot) {
                const auto& [clsid, iid] = services[slot / kServiceNumbers];
                UnknownPtr service;
                ASSERT_EQ(COM_GetService(clsid, slot % kServiceNumbers, iid, service.OutVoid()),
                          S_OK);
                seen[thread][slot] = service;
            }
            // Built-in activation, through the function and through a factory.
            MemoryPtr memory;
            ASSERT_EQ(memory.CreateInstance(COM_CLSID_Memory), S_OK);
            FactoryPtr factory;
            ASSERT_EQ(COM_GetClassFactory(COM_CLSID_HResultDecoderBinder, factory.OutVoid()), S_OK);
            UnknownPtr made;
            ASSERT_EQ(factory->CreateInstance(COM_IID_IUnknown, made.OutVoid()), S_OK);
        },
        [&](int thread, int round) {
            const size_t i = (round + thread) % decoded.size();
            EXPECT_EQ(Decode(codes[i]), decoded[i]) << std::hex << codes[i];

            const std::wstring text =
                L"thread " + std::to_wstring(thread) + L" round " + std::to_wstring(round);
            wchar_t* s = COM_SysAllocString(text.c_str());
            EXPECT_EQ(std::wstring(s, COM_SysStringLen(s)), text);
            COM_SysFreeString(s);

            void* block = nullptr;
            ASSERT_EQ(COM_TaskMemAlloc(64, &block), 0);
            COM_TaskMemFree(block);

            EXPECT_EQ(a2wStr("narrow", 6, 0), L"narrow");
        },
    });

    for (unsigned slot = 0; slot < 3 * kServiceNumbers; ++slot) {
        for (int thread = 1; thread < kThreads; ++thread)
            EXPECT_EQ(seen[thread][slot], seen[0][slot])
                << "slot " << slot << ", thread " << thread;
        EXPECT_EQ(RefCount(seen[0][slot]), 1u) << "the collection's reference is the only one left";
    }
    EXPECT_EQ(COM_ClearErrorInfo(), S_OK);
    EXPECT_EQ(RefCount(sharedError), 1u);
}

// From a cold start, in a registry of many classes: threads activate a class
// of a library nobody has loaded yet, look up ProgIDs, walk to values while
// one of them changes a value, and ask for a service. Meanwhile another
// process changes the file, so that every thread's next Open reloads it under
// the others' feet, and a third opens a plug-in whose constructor activates a
// registered class while its main thread activates a class of a library not
// loaded yet: the loader's lock and the runtime's are taken in opposite
// orders, and neither thread may wait for the other.
TEST_F(ThreadStress, FirstLoadsAndRegistryWalksBesideOtherProcesses) {
    // Installed by another process, so that this one starts cold.
    const auto install = [this] {
        RegistryPtr registry = Registry();
        if (registry->Open(5, L"") != S_OK || registry->CreateKey(L"Stress", 1) != S_OK ||
            registry->SetValueString(L"Round", L"0") != S_OK)
            return 1;
        for (const char* component :
             {COMPONENT_testmany, COMPONENT_testcounter, COMPONENT_testcategories})
            if (!InstallComponent(component)) return 2;
        return 0;
    };
    ASSERT_EQ(InChild(install), 0);
    CopyComponent(COMPONENT_testplugin);

    const pid_t plugin = SpawnChild([] {
        alarm(30);
        std::thread opener([] {
            if (!dlopen("./libtestplugin.so", RTLD_NOW)) _exit(2);
        });
        // The plug-in's constructor is running, and holds the loader, by now.
        usleep(100 * 1000);
        UnknownPtr object;
        const HRESULT hr =
            COM_CreateInstance(CLSID_CatWidget, nullptr, COM_IID_IUnknown, object.OutVoid());
        opener.join();
        return SUCCEEDED(hr) ? 0 : 3;
    });
    const pid_t writer = SpawnChild([] {
        RegistryPtr registry = Registry();
        for (int round = 1; round <= kWrites; ++round) {
            if (registry->Open(5, L"") != S_OK ||
                registry->SetValueString(L"Other", std::to_wstring(round).c_str()) != S_OK)
                return 1;
        }
        return 0;
    });

    std::vector<int> lastSeen(kThreads, 0);
    RunTable({
        [](int, int) {
            CounterPtr counter;
            ASSERT_EQ(counter.CreateInstance(CLSID_Counter), S_OK);
        },
        // Each walker stands on a key of its own between calls: another
        // thread's Open or OpenKey never moves it.
        [](int thread, int round) {
            const unsigned n = (round + thread) % kWalkedClasses;
            const std::wstring progId = L"Test.Many" + std::to_wstring(n);
            RegistryPtr registry = Registry();
            wchar_t* value = nullptr;
            ASSERT_EQ(registry->Open(1, L"CLSID"), S_OK);
            ASSERT_EQ(registry->OpenKey(TextOf(ManyClassId(n)).c_str()), S_OK);
            ASSERT_EQ(registry->OpenKey(L"ProgID"), S_OK);
            ASSERT_EQ(registry->GetValueString(L"", &value), S_OK);
            EXPECT_EQ(Take(value), progId);
            ASSERT_EQ(COM_GetProgIDFromClsid(ManyClassId(n), &value), S_OK);
            EXPECT_EQ(Take(value), progId);
        },
        [&lastSeen](int thread, int round) {
            RegistryPtr registry = Registry();
            wchar_t* value = nullptr;
            ASSERT_EQ(registry->Open(5, L"Stress"), S_OK);
            if (thread == 0 && round < kWrites) {
                ASSERT_EQ(registry->SetValueString(L"Round", std::to_wstring(round + 1).c_str()),
                          S_OK);
            }
            ASSERT_EQ(registry->GetValueString(L"Round", &value), S_OK);
            const int seen = std::stoi(Take(value));
            EXPECT_GE(seen, lastSeen[thread]) << "a value never goes back to an older write";
            EXPECT_LE(seen, kWrites);
            lastSeen[thread] = seen;
        },
        // The first request for a service races the first load of the registry.
        [](int, int) {
            CatRegisterPtr manager;
            ASSERT_EQ(COM_GetService(COM_CLSID_CategoryManager, 0, COM_IID_ICatRegister,
                                     manager.OutVoid()),
                      S_OK);
        },
    });

    EXPECT_EQ(ChildResult(writer), 0);
    EXPECT_EQ(ChildResult(plugin), 0) << "128 + SIGALRM: the two activations deadlocked";
}

}  // namespace
