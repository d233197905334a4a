// Activation as applications and components see it: built-in classes, class
// lookup through the registry, loading of component libraries, and the
// error information left behind on failure.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cwchar>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "testComponents.h"
#include "testSupport.h"

// Every dlopen of the process passes here first, so the tests see which paths
// the runtime opens and how often.
static std::vector<std::string> g_dlopenPaths;

extern "C" void* dlopen(const char* file, int mode) {
    using RealDlopen = void* (*)(const char*, int);
    static RealDlopen real = reinterpret_cast<RealDlopen>(dlsym(RTLD_NEXT, "dlopen"));
    g_dlopenPaths.push_back(file ? file : "");
    return real(file, mode);
}

namespace {

using CounterPtr = utlAutoIf<ICounter, &IID_ICounter>;
using FactoryPtr = utlAutoIf<COM_IClassFactory, &COM_IID_IClassFactory>;
using ErrorInfoPtr = utlAutoIf<COM_IErrorInfo, &COM_IID_IErrorInfo>;

void* const kUntouched = reinterpret_cast<void*>(0xdeadbeef);

class Activation : public ComponentTest {
protected:
    void SetUp() override {
        ComponentTest::SetUp();
        COM_ClearErrorInfo();
        g_dlopenPaths.clear();
    }

    // Writes CLSID\<id>\InprocServer32 by hand, as a damaged or foreign
    // registration would.
    void RegisterServerPath(const COM_GUID& clsid, const wchar_t* library) const {
        RegistryPtr registry = Registry();
        ASSERT_EQ(registry->Open(1, L"CLSID"), S_OK);
        ASSERT_EQ(registry->CreateKey((TextOf(clsid) + L"\\InprocServer32").c_str(), 1), S_OK);
        ASSERT_EQ(registry->SetValueString(L"", library), S_OK);
        registry->Close();
    }

    std::wstring DefaultValue(const std::wstring& path) const {
        RegistryPtr registry = Registry();
        wchar_t* value = nullptr;
        if (FAILED(registry->Open(1, path.c_str())) || FAILED(registry->GetValueString(L"", &value)))
            return L"<missing>";
        registry->Close();
        return Take(value);
    }

    // The current error's description and location, or "<none>".
    static std::wstring CurrentError() {
        ErrorInfoPtr info;
        if (COM_GetErrorInfo(info.Out()) != S_OK) return L"<none>";
        wchar_t* description = nullptr;
        wchar_t* location = nullptr;
        info->GetDescription(&description);
        info->GetLocation(&location);
        return Take(description) + L" @ " + Take(location);
    }

    static long Increment(const CounterPtr& counter) {
        long value = 0;
        EXPECT_EQ(counter->Increment(&value), S_OK);
        return value;
    }
};

}  // namespace

// Built-in classes need no registry file; their factories are module locks.
TEST_F(Activation, BuiltInFactoriesNeedNoRegistryFileAndAreModuleLocks) {
    EXPECT_EQ(CanUnloadNow(), S_OK);
    FactoryPtr served;
    EXPECT_EQ(COM_GetClassFactory(COM_CLSID_Registry, served.OutVoid()), S_OK);
    served.Reset();
    void* out = nullptr;
    ASSERT_EQ(GetClassObject(COM_CLSID_Registry, COM_IID_IClassFactory, &out), S_OK);
    auto* factory = static_cast<COM_IClassFactory*>(out);
    EXPECT_EQ(CanUnloadNow(), S_FALSE);
    EXPECT_FALSE(std::filesystem::exists(PathOf("Registry.XML")));

    void* wrong = kUntouched;
    EXPECT_EQ(factory->QueryInterface(COM_IID_IRegistry, &wrong), E_NOINTERFACE);
    EXPECT_EQ(wrong, nullptr);
    EXPECT_EQ(factory->Release(), 1u);
    EXPECT_EQ(CanUnloadNow(), S_OK);

    out = kUntouched;
    EXPECT_EQ(GetClassObject(CLSID_Counter, COM_IID_IClassFactory, &out), CLASS_E_CLASSNOTAVAILABLE);
    EXPECT_EQ(out, kUntouched);
}

TEST_F(Activation, UnregisteredClassNamesItsIdentifierInTheError) {
    void* out = kUntouched;
    EXPECT_EQ(COM_CreateInstance(CLSID_Counter, nullptr, IID_ICounter, &out),
              CLASS_E_CLASSNOTAVAILABLE);
    EXPECT_EQ(CurrentError(), TextOf(CLSID_Counter) + L" @ JCOM_API:COM_CreateInstance");
}

// Neither a class key without its server subkey nor an overlong library name
// (refused, not overflowed) opens anything.
TEST_F(Activation, ClassKeyWithoutServerSubkeyOrWithAnOverlongNameOpensNothing) {
    RegistryPtr registry = Registry();
    ASSERT_EQ(registry->Open(1, L"CLSID"), S_OK);
    ASSERT_EQ(registry->CreateKey((TextOf(CLSID_Counter) + L"\\ProgID").c_str(), 0), S_OK);
    // A named value on the class key is not where the library name lives.
    ASSERT_EQ(registry->OpenKey(TextOf(CLSID_Counter).c_str()), S_OK);
    ASSERT_EQ(registry->SetValueString(L"InprocServer32", L"libtestcounter.so"), S_OK);
    registry->Close();

    void* out = kUntouched;
    EXPECT_EQ(COM_CreateInstance(CLSID_Counter, nullptr, IID_ICounter, &out),
              CLASS_E_CLASSNOTAVAILABLE);
    RegisterServerPath(CLSID_Counter, (L"lib" + std::wstring(5000, L'x') + L".so").c_str());
    EXPECT_EQ(COM_CreateInstance(CLSID_Counter, nullptr, IID_ICounter, &out), CO_E_DLLNOTFOUND);
    EXPECT_TRUE(g_dlopenPaths.empty());
}

// The library is looked for only in the working directory, by base name,
// whatever directory the registration names and wherever the registry lives.
TEST_F(Activation, RegisteredComponentIsLoadedOnceByBaseNameFromTheWorkingDirectory) {
    std::filesystem::create_directory(PathOf("registry"));
    setenv("COMLIB", PathOf("registry").c_str(), 1);
    CopyComponent(COMPONENT_testcounter);
    RegisterServerPath(CLSID_Counter, L"/opt/x/libtestcounter.so");

    CounterPtr first;
    CounterPtr second;
    ASSERT_EQ(COM_CreateInstance(CLSID_Counter, nullptr, IID_ICounter, first.OutVoid()), S_OK);
    ASSERT_EQ(COM_CreateInstance(CLSID_Counter, nullptr, IID_ICounter, second.OutVoid()), S_OK);
    EXPECT_EQ(g_dlopenPaths, std::vector<std::string>{"./libtestcounter.so"});
    // Two objects, each with its own state.
    EXPECT_EQ(Increment(first), 1);
    EXPECT_EQ(Increment(first), 2);
    EXPECT_EQ(Increment(second), 1);
    EXPECT_TRUE(std::filesystem::exists(PathOf("registry/Registry.XML")));
}

TEST_F(Activation, EachSpellingOfALibraryIsLoadedOnItsOwn) {
    CopyComponent(COMPONENT_testcounter);
    const COM_GUID other = {0x5A1E0099, 0, 0x4000, {0x80, 0, 0, 0, 0, 0, 0, 0x99}};
    RegisterServerPath(CLSID_Counter, L"libtestcounter.so");
    RegisterServerPath(other, L"./libtestcounter.so");

    CounterPtr counter;
    ASSERT_EQ(COM_CreateInstance(CLSID_Counter, nullptr, IID_ICounter, counter.OutVoid()), S_OK);
    // The library knows no such class; its own answer is passed on.
    void* out = kUntouched;
    EXPECT_EQ(COM_CreateInstance(other, nullptr, IID_ICounter, &out), CLASS_E_CLASSNOTAVAILABLE);
    EXPECT_EQ(g_dlopenPaths,
              (std::vector<std::string>{"./libtestcounter.so", "./libtestcounter.so"}));
}

// The loader's text names the path opened, not the registered one.
TEST_F(Activation, MissingLibraryReportsTheLoadersTextForThePathOpened) {
    RegisterServerPath(CLSID_Counter, L"/opt/app/libmissing.so");
    void* out = kUntouched;
    EXPECT_EQ(COM_CreateInstance(CLSID_Counter, nullptr, IID_ICounter, &out), CO_E_DLLNOTFOUND);
    const std::wstring error = CurrentError();
    EXPECT_EQ(error.rfind(L"./libmissing.so: ", 0), 0u) << error.c_str();
    EXPECT_EQ(error.find(L"/opt/app"), std::wstring::npos) << error.c_str();
    EXPECT_NE(error.find(L" @ JCOM_API:COM_CreateInstance"), std::wstring::npos);
}

TEST_F(Activation, LibraryWithoutBothEntryPointsIsRejectedWithoutErrorInfo) {
    CopyComponent(COMPONENT_testnounload);
    RegisterServerPath(CLSID_NoUnload, L"libtestnounload.so");
    void* out = kUntouched;
    EXPECT_EQ(COM_CreateInstance(CLSID_NoUnload, nullptr, IID_ICounter, &out), CO_E_ERRORINDLL);
    EXPECT_EQ(CurrentError(), L"<none>");
    // Not remembered: the next activation tries to load it again.
    EXPECT_EQ(COM_CreateInstance(CLSID_NoUnload, nullptr, IID_ICounter, &out), CO_E_ERRORINDLL);
    EXPECT_EQ(g_dlopenPaths.size(), 2u);
}

TEST_F(Activation, FactoryFailuresArePassedOn) {
    CopyComponent(COMPONENT_testfaulty);
    RegisterServerPath(CLSID_FailingFactory, L"libtestfaulty.so");
    RegisterServerPath(CLSID_NullFactory, L"libtestfaulty.so");

    void* out = kUntouched;
    EXPECT_EQ(COM_CreateInstance(CLSID_FailingFactory, nullptr, IID_ICounter, &out),
              kFailingFactoryResult);
    // Success without a factory is a broken invariant, not a status.
    EXPECT_THROW(COM_CreateInstance(CLSID_NullFactory, nullptr, IID_ICounter, &out),
                 utlAutoIfBase::XBadPtrException);
}

TEST_F(Activation, ComponentObjectsLockTheirOwnModuleOnly) {
    void* counterLibrary = LoadComponent(COMPONENT_testcounter);
    ASSERT_NE(counterLibrary, nullptr);
    RegisterServerPath(CLSID_Counter, L"libtestcounter.so");

    {
        CounterPtr counter;
        ASSERT_EQ(COM_CreateInstance(CLSID_Counter, nullptr, IID_ICounter, counter.OutVoid()), S_OK);
        EXPECT_EQ(CallEntry(counterLibrary, "CanUnloadNow"), S_FALSE);
        EXPECT_EQ(CanUnloadNow(), S_OK);
    }
    EXPECT_EQ(CallEntry(counterLibrary, "CanUnloadNow"), S_OK);

    // The module object never leaves a component.
    EXPECT_EQ(dlsym(counterLibrary, "g_theModule"), nullptr);
}

// ProgID lookups: ClassLookups and the thread tests.
TEST_F(Activation, DisplayNameAndDescriptionAreReadFromTheRegistration) {
    InstallComponent(COMPONENT_testcounter);
    wchar_t* text = nullptr;
    EXPECT_EQ(COM_GetDisplayNameFromClsid(CLSID_Counter, &text), S_OK);
    EXPECT_EQ(Take(text), L"Test counter");
    EXPECT_EQ(COM_GetDescriptionFromClsid(CLSID_Counter, &text), S_OK);
    EXPECT_EQ(Take(text), L"Counts calls");
}

TEST_F(Activation, InstallationsAreCountedAndTheLastOneRemovesTheClass) {
    void* library = LoadComponent(COMPONENT_testcounter);
    const std::wstring classKey = L"CLSID\\" + TextOf(CLSID_Counter);

    ASSERT_EQ(CallEntry(library, "DllRegisterServer"), S_OK);
    ASSERT_EQ(CallEntry(library, "DllRegisterServer"), S_OK);
    EXPECT_EQ(DefaultValue(classKey + L"\\InstallCount"), L"2");
    EXPECT_EQ(DefaultValue(classKey + L"\\InprocServer32"), L"libtestcounter.so");
    EXPECT_EQ(DefaultValue(classKey), L"Test.Counter");
    EXPECT_EQ(DefaultValue(L"Test.Counter\\CLSID"), TextOf(CLSID_Counter));

    // The class stays installed elsewhere: everything remains.
    EXPECT_EQ(CallEntry(library, "DllUnregisterServer"), S_OK);
    EXPECT_EQ(DefaultValue(classKey + L"\\InstallCount"), L"1");
    EXPECT_EQ(DefaultValue(L"Test.Counter\\CLSID"), TextOf(CLSID_Counter));

    EXPECT_EQ(CallEntry(library, "DllUnregisterServer"), S_OK);
    EXPECT_EQ(DefaultValue(classKey + L"\\InstallCount"), L"<missing>");
    EXPECT_EQ(DefaultValue(L"Test.Counter\\CLSID"), L"<missing>");
    RegistryPtr registry = Registry();
    EXPECT_EQ(registry->Open(1, classKey.c_str()), REGDB_E_KEYMISSING);
    EXPECT_EQ(registry->Open(1, L"Test.Counter"), REGDB_E_KEYMISSING);
}

TEST_F(Activation, RuntimeRegistersItsBuiltInClasses) {
    ASSERT_EQ(DllRegisterServer(), S_OK);
    const struct {
        const COM_GUID* clsid;
        const wchar_t* progId;
    } builtIns[] = {{&COM_CLSID_Registry, L"ZarvoCOM.Registry"},
                    {&COM_CLSID_CategoryManager, L"ZarvoCategoryManager"},
                    {&COM_CLSID_Memory, L"ZarvoCom.Memory"},
                    {&COM_CLSID_HResultDecoderBinder, L"ZarvoCOM.Decoder"}};
    for (const auto& builtIn : builtIns) {
        const std::wstring classKey = L"CLSID\\" + TextOf(*builtIn.clsid);
        EXPECT_EQ(DefaultValue(classKey + L"\\InprocServer32"), L"libveltcom.so");
        EXPECT_EQ(DefaultValue(classKey + L"\\ProgID"), builtIn.progId);
        EXPECT_EQ(DefaultValue(classKey + L"\\InstallCount"), L"1");
        EXPECT_EQ(DefaultValue(std::wstring(builtIn.progId) + L"\\CLSID"), TextOf(*builtIn.clsid));
    }
    EXPECT_EQ(DllUnregisterServer(), S_OK);
    RegistryPtr registry = Registry();
    EXPECT_EQ(registry->Open(1, (L"CLSID\\" + TextOf(COM_CLSID_Registry)).c_str()),
              REGDB_E_KEYMISSING);
}

TEST_F(Activation, MonikerValueNamesAreRegisteredAndRemovedWithTheClass) {
    COM_CComModule module(nullptr, "libsample.so");
    const COM_GUID clsid = {0x5A1E0077, 0, 0x4000, {0x80, 0, 0, 0, 0, 0, 0, 0x77}};
    ASSERT_EQ(module.UpdateRegistryClass(clsid, L"Sample.Binder", 0, 1, nullptr, nullptr, L"sample",
                                         L"a,b"),
              S_OK);
    RegistryPtr registry = Registry();
    ASSERT_EQ(registry->Open(1, L"Moniker\\sample"), S_OK);
    for (const wchar_t* name : {L"a", L"b"}) {
        wchar_t* value = nullptr;
        EXPECT_EQ(registry->GetValueString(name, &value), S_OK) << name;
        EXPECT_EQ(Take(value), TextOf(clsid));
    }
    EXPECT_EQ(DefaultValue(L"CLSID\\" + TextOf(clsid) + L"\\InprocServer32"), L"libsample.so");

    ASSERT_EQ(module.UpdateRegistryClass(clsid, L"Sample.Binder", 0, 0, nullptr, nullptr, L"sample",
                                         L"a,b"),
              S_OK);
    ASSERT_EQ(registry->Open(1, L"Moniker\\sample"), S_OK);
    EXPECT_EQ(registry->GetValueString(L"a", nullptr), REGDB_E_INVALIDVALUE);
    EXPECT_EQ(registry->GetValueString(L"b", nullptr), REGDB_E_INVALIDVALUE);
}

namespace {

// A library that other users could have replaced is refused before it is
// opened, so none of its code runs.
class Loading : public Activation {
protected:
    void TearDown() override {
        unsetenv("VELTCOM_ALLOW_INSECURE_LIBRARIES");
        Activation::TearDown();
    }

    // Registers the counter and copies it into the working directory.
    void InstallCounterCopy() {
        CopyComponent(COMPONENT_testcounter);
        RegisterServerPath(CLSID_Counter, L"/opt/app/libtestcounter.so");
    }

    HRESULT ActivateCounter() {
        CounterPtr counter;
        return COM_CreateInstance(CLSID_Counter, nullptr, IID_ICounter, counter.OutVoid());
    }
};

}  // namespace

TEST_F(Loading, LibrariesOthersCouldReplaceAreRefusedBeforeOpening) {
    const struct {
        const char* name;
        std::function<void()> arrange;
        const wchar_t* reason;
    } cases[] = {
        {"world-writable file",
         [this] { chmod(PathOf("libtestcounter.so").c_str(), 0666); },
         L"the file is writable by every user"},
        {"world-writable directory without sticky bit",
         [this] { chmod(m_dir.c_str(), 0777); },
         L"is writable by every user and has no sticky bit"},
        {"link into a world-writable directory",
         [this] {
             std::filesystem::create_directory(PathOf("open"));
             chmod(PathOf("open").c_str(), 0777);
             std::filesystem::rename(PathOf("libtestcounter.so"),
                                     PathOf("open/libtestcounter.so"));
             std::filesystem::create_symlink("open/libtestcounter.so",
                                             PathOf("libtestcounter.so"));
         },
         L"/open is writable by every user and has no sticky bit"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        InstallCounterCopy();
        chmod(m_dir.c_str(), 0700);
        c.arrange();
        COM_ClearErrorInfo();
        g_dlopenPaths.clear();

        EXPECT_EQ(ActivateCounter(), CO_E_DLLNOTFOUND);
        EXPECT_TRUE(g_dlopenPaths.empty());
        const std::wstring error = CurrentError();
        EXPECT_EQ(error.rfind(L"./libtestcounter.so: refused, ", 0), 0u) << error.c_str();
        EXPECT_NE(error.find(c.reason), std::wstring::npos) << error.c_str();
        EXPECT_NE(error.find(L"VELTCOM_ALLOW_INSECURE_LIBRARIES=1"), std::wstring::npos);
        std::filesystem::remove_all(PathOf("open"));
        std::filesystem::remove(PathOf("libtestcounter.so"));
    }
}

TEST_F(Loading, LibraryOwnedByAnotherUserIsRefused) {
    if (geteuid() != 0) GTEST_SKIP() << "giving a file away needs root";
    InstallCounterCopy();
    ASSERT_EQ(chown(PathOf("libtestcounter.so").c_str(), 12345, 12345), 0);
    EXPECT_EQ(ActivateCounter(), CO_E_DLLNOTFOUND);
    EXPECT_TRUE(g_dlopenPaths.empty());
    EXPECT_NE(CurrentError().find(L"owned by user 12345, neither root nor this process's user"),
              std::wstring::npos)
        << CurrentError().c_str();
}

TEST_F(Loading, StickyWorldWritableDirectoryIsAccepted) {
    InstallCounterCopy();
    chmod(m_dir.c_str(), 01777);
    EXPECT_EQ(ActivateCounter(), S_OK) << CurrentError().c_str();
}

TEST_F(Loading, RefusalCanBeTurnedOff) {
    InstallCounterCopy();
    chmod(PathOf("libtestcounter.so").c_str(), 0666);
    setenv("VELTCOM_ALLOW_INSECURE_LIBRARIES", "1", 1);
    EXPECT_EQ(ActivateCounter(), S_OK) << CurrentError().c_str();
    EXPECT_EQ(g_dlopenPaths, std::vector<std::string>{"./libtestcounter.so"});
}

