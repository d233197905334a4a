// Registry transactions with real processes: installations killed part way
// through a large registry, two installers at once, a lock another process
// holds, transactions ended every way, and what the other threads of the
// process see meanwhile.
#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <random>
#include <thread>

#include "testComponents.h"
#include "testSupport.h"

namespace {

using TransactionPtr = utlAutoIf<COM_IRegistryTransaction, &COM_IID_IRegistryTransaction>;
using Clock = std::chrono::steady_clock;

const int kPartial = 100;

// Sets a value in the application data hive through this process's registry.
HRESULT SetValue(const wchar_t* name) {
    RegistryPtr registry = Registry();
    const HRESULT hr = registry->Open(5, L"");
    return FAILED(hr) ? hr : registry->SetValueString(name, L"1");
}

// How the many-class component stands for a process that loads the file now:
// 0 when none of its classes or ProgIDs is there, n when every class is
// there with its ProgID and counts n installations, kPartial otherwise. Run
// in a fresh child, which reads the file anew.
int Survey() {
    RegistryPtr registry = Registry();
    int found = -1;
    for (unsigned int n = 0; n < kManyClasses && registry; ++n) {
        const std::wstring classKey = L"CLSID\\" + TextOf(ManyClassId(n));
        const bool hasClass = registry->Open(1, classKey.c_str()) == S_OK;
        const bool hasProgId = registry->Open(1, (L"Test.Many" + std::to_wstring(n)).c_str()) == S_OK;
        wchar_t* count = nullptr;
        int state = hasClass || hasProgId ? kPartial : 0;
        if (hasClass && hasProgId && registry->Open(1, (classKey + L"\\InstallCount").c_str()) == S_OK &&
            registry->GetValueString(L"", &count) == S_OK)
            state = std::stoi(Take(count));
        if (found != -1 && state != found) return kPartial;
        found = state;
    }
    return found;
}

int SurveyInChild() { return ChildResult(SpawnChild(Survey)); }

class RegistryTransactions : public ComponentTest {
protected:
    void SetUp() override {
        ComponentTest::SetUp();
        m_many = LoadComponent(COMPONENT_testmany);
        // Made by a child: this process keeps no registry of its own, so
        // that every look at the file is a fresh load.
        ASSERT_EQ(SurveyInChild(), 0);
        m_empty = ReadFile("Registry.XML");
    }
    void TearDown() override {
        unsetenv("VELTCOM_REGISTRY_WAIT_MS");
        ComponentTest::TearDown();
    }

    int Install(const char* entry) const { return CallEntry(m_many, entry) == S_OK ? 0 : 1; }

    void* m_many = nullptr;
    std::string m_empty;
};

// An installer that registers and unregisters the component over and over,
// in a registry large enough that a save takes a while and whose tail stands
// behind the classes it adds, killed at any moment once it has read the
// file: every process after it finds a whole file with none or all of them,
// and the next save clears away what the killed ones left half made.
TEST_F(RegistryTransactions, AnInstallationKilledAtAnyMomentLeavesNoneOrAllOfItsClasses) {
    std::string filler;
    for (int i = 0; i < 4000; ++i) {
        const std::string n = std::to_string(i);
        filler += "<Filler" + n + " default = \"Test.Filler." + n + "\"><InprocServer32 default = \"libfiller" + n +
                  ".so\"/><InstallCount default = \"1\"/></Filler" + n + ">";
    }
    const size_t end = m_empty.rfind("</Version>");
    const std::string large = m_empty.substr(0, end) + "<User>" + filler + "</User>" + m_empty.substr(end);
    WriteFile("Registry.XML", large);
    const Clock::time_point start = Clock::now();
    ASSERT_EQ(ChildResult(SpawnChild([&] { return Install("DllRegisterServer"); })), 0);
    const long whole = std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - start).count();
    std::mt19937 random(18);
    std::uniform_int_distribution<long> delay(0, whole * 2);
    for (int round = 0; round < 10; ++round) {
        WriteFile("Registry.XML", large);
        int ready[2];
        ASSERT_EQ(pipe(ready), 0);
        const pid_t installer = SpawnChild([&] {
            close(ready[0]);
            if (!Registry() || write(ready[1], "r", 1) != 1) return 2;
            while (Install("DllRegisterServer") == 0 && Install("DllUnregisterServer") == 0) {
            }
            return 3;
        });
        close(ready[1]);
        char byte = 0;
        ASSERT_EQ(read(ready[0], &byte, 1), 1);
        close(ready[0]);
        std::this_thread::sleep_for(std::chrono::microseconds(delay(random)));
        kill(installer, SIGKILL);
        ASSERT_EQ(ChildResult(installer), 128 + SIGKILL);
        const int found = SurveyInChild();
        ASSERT_TRUE(found == 0 || found == 1) << "round " << round << " left " << found;
        ASSERT_NE(ReadFile("Registry.XML").find("<Filler3999 "), std::string::npos) << "round " << round;
    }
    ASSERT_EQ(ChildResult(SpawnChild([&] { return Install("DllRegisterServer"); })), 0);
    for (const auto& entry : std::filesystem::directory_iterator(m_dir))
        EXPECT_NE(entry.path().filename().string().rfind(".Registry.XML.", 0), 0u) << entry.path();
}

TEST_F(RegistryTransactions, TwoInstallersAtOnceCountTwoAndTwoRemoversAtOnceLeaveNothing) {
    for (int round = 0; round < 3; ++round) {
        for (const char* entry : {"DllRegisterServer", "DllUnregisterServer"}) {
            // Both start when the pipe closes.
            int start[2];
            ASSERT_EQ(pipe(start), 0);
            pid_t installers[2];
            for (pid_t& installer : installers) {
                installer = SpawnChild([&] {
                    char byte;
                    close(start[1]);
                    return read(start[0], &byte, 1) == 0 ? Install(entry) : 2;
                });
            }
            close(start[0]);
            close(start[1]);
            for (pid_t installer : installers) EXPECT_EQ(ChildResult(installer), 0) << entry;
            EXPECT_EQ(SurveyInChild(), entry[3] == 'R' ? 2 : 0) << "round " << round << ", " << entry;
        }
    }
}

// The wait is the same for a single change and for a transaction's Begin.
TEST_F(RegistryTransactions, WhileAnotherProcessHoldsTheLockAWriterFailsWithinTheBoundAndChangesNothing) {
    const int lock = open(PathOf("Registry.XML.lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0666);
    ASSERT_EQ(flock(lock, LOCK_EX), 0);
    setenv("VELTCOM_REGISTRY_WAIT_MS", "300", 1);
    EXPECT_EQ(ChildResult(SpawnChild([&] {
        const Clock::time_point start = Clock::now();
        const HRESULT hr = CallEntry(m_many, "DllRegisterServer");
        const auto waited = Clock::now() - start;
        return hr == REGDB_E_WRITEREGDB && waited >= std::chrono::milliseconds(300) &&
                       waited < std::chrono::seconds(5) ? 0 : 1;
    })), 0);
    EXPECT_EQ(ReadFile("Registry.XML"), m_empty);
    close(lock);
}

TEST_F(RegistryTransactions, OnlyACommitChangesTheFileAndAnEndedProcessLeavesTheLockFree) {
    // Each child opens a transaction, installs the component within it (its
    // own transaction joins) and sets a value, then ends it as the case says.
    struct Case {
        const char* end;
        int (*finish)(COM_IRegistryTransaction*);
        int result, survey;
    };
    const Case cases[] = {
        {"Commit", [](COM_IRegistryTransaction* t) { return t->Commit() == S_OK ? 0 : 1; }, 0, 1},
        {"Abort", [](COM_IRegistryTransaction* t) { return t->Abort() == S_OK ? 0 : 1; }, 0, 0},
        {"an inner Abort", [](COM_IRegistryTransaction* t) {
             const bool condemned = t->Begin() == S_OK && t->Abort() == S_OK;
             return condemned && t->Commit() == REGDB_E_WRITEREGDB && t->Commit() == E_UNEXPECTED ? 0 : 1;
         }, 0, 0},
        {"SIGKILL", [](COM_IRegistryTransaction*) { return kill(getpid(), SIGKILL); }, 128 + SIGKILL, 0},
    };
    for (const Case& c : cases) {
        WriteFile("Registry.XML", m_empty);
        EXPECT_EQ(ChildResult(SpawnChild([&] {
            TransactionPtr transaction;
            if (transaction.QueryFrom(Registry()) != S_OK || transaction->Begin() != S_OK) return 2;
            return Install("DllRegisterServer") == 0 && SetValue(L"inside") == S_OK ? c.finish(transaction) : 3;
        })), c.result) << c.end;
        EXPECT_EQ(SurveyInChild(), c.survey) << c.end;
        EXPECT_TRUE(c.survey != 0 || ReadFile("Registry.XML") == m_empty) << c.end;
        // The lock went with the transaction: a writer that may not wait gets it.
        setenv("VELTCOM_REGISTRY_WAIT_MS", "0", 1);
        EXPECT_EQ(ChildResult(SpawnChild([] { return SetValue(L"after") == S_OK ? 0 : 1; })), 0) << c.end;
        unsetenv("VELTCOM_REGISTRY_WAIT_MS");
    }
}

TEST_F(RegistryTransactions, OtherThreadsReadAnOpenTransactionsChangesAndTheirOwnChangesWaitForItsEnd) {
    setenv("VELTCOM_REGISTRY_WAIT_MS", "200", 1);
    TransactionPtr transaction;
    ASSERT_EQ(transaction.QueryFrom(Registry()), S_OK);
    ASSERT_EQ(transaction->Begin(), S_OK);
    ASSERT_EQ(SetValue(L"inside"), S_OK);
    std::thread([&] {
        RegistryPtr other = Registry();
        wchar_t* value = nullptr;
        EXPECT_EQ(other->Open(5, L"") == S_OK ? other->GetValueString(L"inside", &value) : E_FAIL, S_OK);
        EXPECT_EQ(Take(value), L"1");
        EXPECT_EQ(SetValue(L"other"), REGDB_E_WRITEREGDB);
        EXPECT_EQ(transaction->Begin(), REGDB_E_WRITEREGDB);
        EXPECT_EQ(transaction->Commit(), E_UNEXPECTED);
    }).join();
    EXPECT_EQ(ReadFile("Registry.XML"), m_empty);

    // A change that waits gets through once the transaction commits; a bound
    // beyond any clock's range is taken as a long one.
    setenv("VELTCOM_REGISTRY_WAIT_MS", "99999999999999999999", 1);
    HRESULT later = E_FAIL;
    std::thread waiting([&] { later = SetValue(L"later"); });
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_EQ(transaction->Commit(), S_OK);
    waiting.join();
    EXPECT_EQ(later, S_OK);
    const std::string saved = ReadFile("Registry.XML");
    EXPECT_TRUE(saved.find("inside") != std::string::npos && saved.find("later") != std::string::npos) << saved;
}

}  // namespace
