// Activation as applications and components see it: built-in classes, class
// lookup through the registry, loading of component libraries, and the
// error information left behind on failure.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <functional>
#include <string>
#include <utility>
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

// Writes CLSID\<id>\InprocServer32 by hand, as a damaged or foreign
// registration would.
void RegisterServerPath(const COM_GUID& clsid, const std::wstring& library) {
    RegistryPtr registry = Registry();
    ASSERT_EQ(registry->Open(1, L"CLSID"), S_OK);
    ASSERT_EQ(registry->CreateKey((TextOf(clsid) + L"\\InprocServer32").c_str(), 1), S_OK);
    ASSERT_EQ(registry->SetValueString(L"", library.c_str()), S_OK);
}

std::wstring DefaultValue(const std::wstring& path) {
    RegistryPtr registry = Registry();
    wchar_t* value = nullptr;
    if (FAILED(registry->Open(1, path.c_str())) || FAILED(registry->GetValueString(L"", &value)))
        return L"<missing>";
    return Take(value);
}

// The current error's description and location, or "<none>".
std::wstring CurrentError() {
    ErrorInfoPtr info;
    if (COM_GetErrorInfo(info.Out()) != S_OK) return L"<none>";
    wchar_t* description = nullptr;
    wchar_t* location = nullptr;
    info->GetDescription(&description);
    info->GetLocation(&location);
    return Take(description) + L" @ " + Take(location);
}

using Activation = ComponentTest;

}  // namespace

// Built-in classes need no registry file; their factories are module locks.
TEST_F(Activation, BuiltInFactoriesNeedNoRegistryFileAndAreModuleLocks) {
    FactoryPtr factory;
    ASSERT_EQ(COM_GetClassFactory(COM_CLSID_Registry, factory.OutVoid()), S_OK);
    EXPECT_EQ(CanUnloadNow(), S_FALSE);
    EXPECT_FALSE(std::filesystem::exists(PathOf("Registry.XML")));

    void* wrong = Unwritten<void>();
    EXPECT_EQ(factory->QueryInterface(COM_IID_IRegistry, &wrong), E_NOINTERFACE);
    EXPECT_EQ(wrong, nullptr);
    EXPECT_EQ(factory.Detach()->Release(), 1u);
    EXPECT_EQ(CanUnloadNow(), S_OK);

    void* out = Unwritten<void>();
    EXPECT_EQ(GetClassObject(CLSID_Counter, COM_IID_IClassFactory, &out), CLASS_E_CLASSNOTAVAILABLE);
    EXPECT_EQ(out, Unwritten<void>());
}

// What each registration of a class gives: the activation's status, the
// paths the loader is asked to open and the error left behind. A library is
// looked for only in the working directory, by base name, whatever directory
// the registration names and wherever the registry lives; each spelling of a
// name is loaded once, on its own. A library that other users could replace
// is refused before it is opened, so none of its code runs.
TEST_F(Activation, EachRegistrationGivesItsStatusOpensAndError) {
    std::filesystem::create_directory(PathOf("registry"));
    setenv("COMLIB", PathOf("registry").c_str(), 1);
    CopyComponent(COMPONENT_testnounload);
    CopyComponent(COMPONENT_testfaulty);
    const COM_GUID other = {0x5A1E0099, 0, 0x4000, {0x80, 0, 0, 0, 0, 0, 0, 0x99}};
    const std::wstring refused = L"./libtestcounter.so: refused, ";
    const std::wstring override = L"VELTCOM_ALLOW_INSECURE_LIBRARIES=1";
    struct Case {
        const char* name;
        COM_GUID clsid;
        std::wstring library;  // registered as the class's server, unless empty
        std::function<void()> arrange;
        HRESULT expected;
        std::vector<std::string> opened;
        // The whole error, or with fragments its start; not checked if empty.
        std::wstring error = L"";
        std::vector<std::wstring> fragments = {};
    };
    std::vector<Case> cases = {
        {"unregistered", CLSID_Counter, L"", [] {}, CLASS_E_CLASSNOTAVAILABLE, {},
         TextOf(CLSID_Counter) + L" @ JCOM_API:COM_CreateInstance"},
        {"server named on the class key, not below it", other, L"",
         [&other] {
             RegistryPtr registry = Registry();
             ASSERT_EQ(registry->Open(1, L"CLSID"), S_OK);
             ASSERT_EQ(registry->CreateKey((TextOf(other) + L"\\ProgID").c_str(), 0), S_OK);
             ASSERT_EQ(registry->OpenKey(TextOf(other).c_str()), S_OK);
             ASSERT_EQ(registry->SetValueString(L"InprocServer32", L"libtestcounter.so"), S_OK);
         },
         CLASS_E_CLASSNOTAVAILABLE, {}, TextOf(other) + L" @ JCOM_API:COM_CreateInstance"},
        {"overlong name, refused not overflowed", other, L"lib" + std::wstring(5000, L'x') + L".so",
         [] {}, CO_E_DLLNOTFOUND, {}, L"./libxxx", {L"library name too long"}},
        {"missing library: the loader's text names the path opened", CLSID_Counter,
         L"/opt/app/libmissing.so", [] {}, CO_E_DLLNOTFOUND, {"./libmissing.so"},
         L"./libmissing.so: ", {L" @ JCOM_API:COM_CreateInstance"}},
        {"without both entry points", CLSID_NoUnload, L"libtestnounload.so", [] {},
         CO_E_ERRORINDLL, {"./libtestnounload.so"}, L"<none>"},
        {"not remembered: opened again", CLSID_NoUnload, L"libtestnounload.so", [] {},
         CO_E_ERRORINDLL, {"./libtestnounload.so"}, L"<none>"},
        {"the factory's own failure", CLSID_FailingFactory, L"libtestfaulty.so", [] {},
         kFailingFactoryResult, {"./libtestfaulty.so"}},
        {"world-writable file", CLSID_Counter, L"/opt/app/libtestcounter.so",
         [this] { chmod(PathOf("libtestcounter.so").c_str(), 0666); }, CO_E_DLLNOTFOUND, {},
         refused, {L"the file is writable by every user", override}},
        {"world-writable directory without sticky bit", CLSID_Counter,
         L"/opt/app/libtestcounter.so", [this] { chmod(m_dir.c_str(), 0777); }, CO_E_DLLNOTFOUND,
         {}, refused, {L"is writable by every user and has no sticky bit", override}},
        {"link into a world-writable directory", CLSID_Counter, L"/opt/app/libtestcounter.so",
         [this] {
             std::filesystem::create_directory(PathOf("open"));
             chmod(PathOf("open").c_str(), 0777);
             std::filesystem::rename(PathOf("libtestcounter.so"), PathOf("open/libtestcounter.so"));
             std::filesystem::create_symlink("open/libtestcounter.so", PathOf("libtestcounter.so"));
         },
         CO_E_DLLNOTFOUND, {}, refused, {L"/open is writable by every user and has no sticky bit"}},
        {"sticky world-writable directory", CLSID_Counter, L"/opt/x/libtestcounter.so",
         [this] { chmod(m_dir.c_str(), 01777); }, S_OK, {"./libtestcounter.so"}},
        {"the same spelling again: loaded once", CLSID_Counter, L"/opt/x/libtestcounter.so",
         [] {}, S_OK, {}},
        {"another spelling, whose library knows no such class", other, L"./libtestcounter.so",
         [] {}, CLASS_E_CLASSNOTAVAILABLE, {"./libtestcounter.so"}},
        {"refusal turned off", CLSID_Counter, L"/opt/env/libtestcounter.so",
         [this] {
             chmod(PathOf("libtestcounter.so").c_str(), 0666);
             setenv("VELTCOM_ALLOW_INSECURE_LIBRARIES", "1", 1);
         },
         S_OK, {"./libtestcounter.so"}},
    };
    if (geteuid() == 0) {
        cases.push_back({"owned by another user", CLSID_Counter, L"/opt/root/libtestcounter.so",
                         [this] { chown(PathOf("libtestcounter.so").c_str(), 12345, 12345); },
                         CO_E_DLLNOTFOUND, {}, refused,
                         {L"owned by user 12345, neither root nor this process's user"}});
    }
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        std::filesystem::remove_all(PathOf("open"));
        std::filesystem::remove(PathOf("libtestcounter.so"));
        CopyComponent(COMPONENT_testcounter);
        chmod(m_dir.c_str(), 0700);
        unsetenv("VELTCOM_ALLOW_INSECURE_LIBRARIES");
        if (!c.library.empty()) RegisterServerPath(c.clsid, c.library);
        c.arrange();
        COM_ClearErrorInfo();
        g_dlopenPaths.clear();

        CounterPtr counter;
        EXPECT_EQ(COM_CreateInstance(c.clsid, nullptr, IID_ICounter, counter.OutVoid()),
                  c.expected);
        EXPECT_EQ(g_dlopenPaths, c.opened);
        const std::wstring error = CurrentError();
        if (!c.error.empty()) {
            EXPECT_EQ(c.fragments.empty() ? error : error.substr(0, c.error.size()), c.error);
        }
        for (const std::wstring& fragment : c.fragments)
            EXPECT_NE(error.find(fragment), std::wstring::npos) << error.c_str();
        long count = 0;
        EXPECT_TRUE(counter.IsNull() || (counter->Increment(&count) == S_OK && count == 1))
            << "each activation makes an object of its own";
    }
    unsetenv("VELTCOM_ALLOW_INSECURE_LIBRARIES");
    COM_ClearErrorInfo();

    // An object locks its own module, not the runtime's; the module object
    // never leaves a component.
    RegisterServerPath(CLSID_Counter, L"/opt/x/libtestcounter.so");
    void* library = dlopen("./libtestcounter.so", RTLD_NOW | RTLD_NOLOAD);
    CounterPtr counter;
    ASSERT_EQ(counter.CreateInstance(CLSID_Counter), S_OK);
    EXPECT_EQ(CallEntry(library, "CanUnloadNow"), S_FALSE);
    EXPECT_EQ(CanUnloadNow(), S_OK);
    counter.Reset();
    EXPECT_EQ(CallEntry(library, "CanUnloadNow"), S_OK);
    EXPECT_EQ(dlsym(library, "g_theModule"), nullptr);
    dlclose(library);
}

// Registration writes each class's entries, and the last unregistration
// removes the class and its ProgID (installations are counted as the tool's
// register and unregister commands show).
TEST_F(Activation, RegistrationWritesTheEntriesAndUnregistrationRemovesThem) {
    InstallComponent(COMPONENT_testcounter);
    wchar_t* text = nullptr;
    EXPECT_EQ(COM_GetDisplayNameFromClsid(CLSID_Counter, &text), S_OK);
    EXPECT_EQ(Take(text), L"Test counter");
    EXPECT_EQ(COM_GetDescriptionFromClsid(CLSID_Counter, &text), S_OK);
    EXPECT_EQ(Take(text), L"Counts calls");

    ASSERT_EQ(DllRegisterServer(), S_OK);
    const std::pair<const COM_GUID*, const wchar_t*> builtIns[] = {
        {&COM_CLSID_Registry, L"ZarvoCOM.Registry"},
        {&COM_CLSID_CategoryManager, L"ZarvoCategoryManager"},
        {&COM_CLSID_Memory, L"ZarvoCom.Memory"},
        {&COM_CLSID_HResultDecoderBinder, L"ZarvoCOM.Decoder"}};
    for (const auto& [clsid, progId] : builtIns) {
        const std::wstring classKey = L"CLSID\\" + TextOf(*clsid);
        EXPECT_EQ(DefaultValue(classKey), progId);
        EXPECT_EQ(DefaultValue(classKey + L"\\ProgID"), progId);
        EXPECT_EQ(DefaultValue(classKey + L"\\InprocServer32"), L"libveltcom.so");
        EXPECT_EQ(DefaultValue(classKey + L"\\InstallCount"), L"1");
        EXPECT_EQ(DefaultValue(std::wstring(progId) + L"\\CLSID"), TextOf(*clsid));
    }
    EXPECT_EQ(DllUnregisterServer(), S_OK);
    RegistryPtr registry = Registry();
    for (const auto& [clsid, progId] : builtIns) {
        EXPECT_EQ(registry->Open(1, (L"CLSID\\" + TextOf(*clsid)).c_str()), REGDB_E_KEYMISSING);
        EXPECT_EQ(registry->Open(1, progId), REGDB_E_KEYMISSING) << progId;
    }
}
