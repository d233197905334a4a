// register and unregister: a library's own self-registration entry points.
#include <dlfcn.h>
#include <link.h>
#include <sys/stat.h>

#include <cstring>
#include <iostream>
#include <map>

#include "libraryTrust.h"
#include "toolInternal.h"

namespace {

struct ServerVerb {
    const char* command;   // "register"
    const char* entry;     // "DllRegisterServer"
    const char* done;      // "registered"
    const char* activity;  // "register"
};

const ServerVerb kRegister = {"register", "DllRegisterServer", "registered", "register"};
const ServerVerb kUnregister = {"unregister", "DllUnregisterServer", "unregistered",
                                "unregister"};

using EnumPtr = utlAutoIf<COM_IEnumBSTR, &COM_IID_IEnumBSTR>;
using TransactionPtr = utlAutoIf<COM_IRegistryTransaction, &COM_IID_IRegistryTransaction>;

// What an installation writes for a class, as the registry holds it.
struct ClassItems {
    std::string progId, server, installCount;
    bool operator==(const ClassItems& o) const {
        return progId == o.progId && server == o.server && installCount == o.installCount;
    }
};
// By class key.
using ClassTable = std::map<std::wstring, ClassItems>;

struct ServerResult {
    std::string library;
    HRESULT hr = S_OK;
    std::string text;
    std::string errorInfo;
    std::string detail;
    // The classes whose items the library wrote or removed, as written or as
    // they were before the removal.
    std::vector<ClassItems> classes;
};

std::string SubkeyDefault(COM_IRegistry* registry, const std::wstring& classPath, const wchar_t* item) {
    wchar_t* value = nullptr;
    if (FAILED(registry->Open(1, (classPath + L"\\" + item).c_str())) ||
        FAILED(registry->GetValueString(L"", &value)))
        return "";
    return TakeBstr(value);
}

// Read through the runtime, so that an open transaction's changes are seen.
ClassTable ReadClasses(COM_IRegistry* registry) {
    ClassTable classes;
    EnumPtr names;
    if (FAILED(registry->Open(1, L"CLSID")) || FAILED(registry->EnumKeys(names.Out()))) return classes;
    wchar_t* name = nullptr;
    unsigned long fetched = 0;
    while (names->Next(1, &name, &fetched) == S_OK && fetched == 1) {
        const std::wstring path = L"CLSID\\" + std::wstring(name);
        COM_SysFreeString(name);
        classes[path] = {SubkeyDefault(registry, path, L"ProgID"),
                         SubkeyDefault(registry, path, L"InprocServer32"),
                         SubkeyDefault(registry, path, L"InstallCount")};
    }
    registry->Close();
    return classes;
}

// The classes of `from` that `to` lacks or holds otherwise.
std::vector<ClassItems> Differing(const ClassTable& from, const ClassTable& to) {
    std::vector<ClassItems> differing;
    for (const auto& entry : from) {
        const auto other = to.find(entry.first);
        if (other == to.end() || !(other->second == entry.second)) differing.push_back(entry.second);
    }
    return differing;
}

// The path of a library this process has loaded whose file is `name` or a
// version of it (`name`.1, `name`.1.0.0); empty when there is none. The
// runtime is loaded by its SONAME, libveltcom.so.1, and registers its own
// classes as libveltcom.so.
std::string LoadedLibraryPath(const std::string& name) {
    struct Search {
        const std::string& name;
        std::string found;
    } search{name, ""};
    dl_iterate_phdr(
        [](dl_phdr_info* info, size_t, void* data) {
            Search& s = *static_cast<Search*>(data);
            const char* slash = std::strrchr(info->dlpi_name, '/');
            const std::string base = slash ? slash + 1 : info->dlpi_name;
            if (base.compare(0, s.name.size(), s.name) != 0) return 0;
            const std::string version = base.substr(s.name.size());
            if (!version.empty() &&
                (version[0] != '.' || version.find_first_not_of(".0123456789") != std::string::npos))
                return 0;
            s.found = info->dlpi_name;
            return 1;
        },
        &search);
    return search.found;
}

// The library is opened by the path given. A bare name means the file in
// the working directory when there is one there, as the runtime loads
// components; else a library this process has loaded already, the runtime
// itself among them; else the loader's own search.
std::string LoadPath(const std::string& library) {
    if (library.find('/') != std::string::npos) return library;
    struct stat info;
    if (stat(("./" + library).c_str(), &info) == 0) return "./" + library;
    const std::string loaded = LoadedLibraryPath(library);
    return loaded.empty() ? library : loaded;
}

// Only S_OK is a clean result: the runtime's RegisterServer answers S_FALSE
// when any class or category failed.
bool Succeeded(HRESULT hr) { return SUCCEEDED(hr) && hr != S_FALSE; }

// Runs the library's entry point within a transaction of the tool's own, which
// the runtime's registration joins, and commits what it wrote.
void CallInTransaction(const ServerVerb& verb, void* entry, ServerResult& result) {
    COM_ClearErrorInfo();
    TransactionPtr transaction;
    result.hr = transaction.QueryFrom(Registry());
    if (SUCCEEDED(result.hr)) result.hr = transaction->Begin();
    if (FAILED(result.hr)) {
        result.errorInfo = CurrentErrorInfo();
        return;
    }
    const ClassTable before = ReadClasses(Registry());
    try {
        result.hr = reinterpret_cast<HRESULT (*)()>(entry)();
    } catch (...) {
        result.hr = E_UNEXPECTED;
        result.detail = std::string(verb.entry) + " let an exception escape";
    }
    result.errorInfo = CurrentErrorInfo();
    if (result.hr == S_FALSE)
        result.detail = std::string(verb.entry) + " reports that some class failed to " +
                        verb.activity;
    const ClassTable after = ReadClasses(Registry());
    result.classes = &verb == &kRegister ? Differing(after, before) : Differing(before, after);
    const HRESULT committed = transaction->Commit();
    if (FAILED(committed)) {
        result.hr = committed;
        result.detail = "nothing it wrote could be saved";
        result.classes.clear();
    }
}

ServerResult CallEntry(const ServerVerb& verb, const std::string& library) {
    ServerResult result;
    result.library = library;
    const std::string path = LoadPath(library);
    dlerror();
    // Kept open: classes it registered may be activated by this process, and
    // the runtime never closes a component library either.
    void* handle = dlopen(path.c_str(), RTLD_LAZY | RTLD_GLOBAL);
    if (!handle) {
        const char* reason = dlerror();
        result.hr = CO_E_DLLNOTFOUND;
        result.detail = reason ? reason : "cannot load " + path;
    } else if (void* entry = OwnSymbol(handle, verb.entry)) {
        CallInTransaction(verb, entry, result);
    } else {
        result.hr = CO_E_ERRORINDLL;
        result.detail = path + " defines no " + verb.entry + " of its own";
    }
    result.text = StatusText(result.hr);
    return result;
}

void PrintJson(const std::vector<ServerResult>& results, const ServerVerb& verb) {
    CJsonWriter json(std::cout);
    json.BeginObject().Key("command").String(verb.command);
    json.Key("registry").String(RegistryFilePath()).Key("results").BeginArray();
    for (const ServerResult& r : results) {
        json.BeginObject()
            .Key("library").String(r.library)
            .Key("entry").String(verb.entry)
            .Key("ok").Bool(Succeeded(r.hr))
            .Key("code").String(HexCode(r.hr))
            .Key("text").String(r.text)
            .Key("detail").OptionalString(!r.detail.empty(), r.detail)
            .Key("errorInfo").OptionalString(!r.errorInfo.empty(), r.errorInfo)
            .Key("classes").BeginArray();
        for (const ClassItems& c : r.classes)
            json.BeginObject().Key("progId").String(c.progId).Key("inprocServer32").String(c.server).EndObject();
        json.EndArray().EndObject();
    }
    json.EndArray().EndObject();
}

int RunServers(CToolContext& context, const ServerVerb& verb) {
    ExpectArgs(context, 1, static_cast<size_t>(-1));
    // Self-registration writes the registry: it must be readable first.
    if (FAILED(EnsureRegistry())) return kExitFailed;

    std::vector<ServerResult> results;
    int exitCode = kExitOk;
    if (!context.json) std::cout << "registry file: " << RegistryFilePath() << "\n";
    for (const std::string& library : context.args) {
        results.push_back(CallEntry(verb, library));
        const ServerResult& r = results.back();
        // What a library that failed in part still wrote is kept, and shown.
        if (!context.json && (Succeeded(r.hr) || r.hr == S_FALSE)) {
            if (Succeeded(r.hr)) {
                std::cout << verb.done << " " << r.library << ": " << HexCode(r.hr) << " " << r.text;
                if (!r.errorInfo.empty()) std::cout << "; error info: " << r.errorInfo;
                std::cout << "\n";
            }
            for (const ClassItems& c : r.classes) std::cout << "  " << c.progId << ": " << c.server << "\n";
        }
        if (Succeeded(r.hr)) continue;
        exitCode = kExitFailed;
        std::string detail = r.detail;
        if (!r.errorInfo.empty())
            detail += (detail.empty() ? "" : "; ") + std::string("error info: ") + r.errorInfo;
        ReportError(std::string(verb.command) + " " + r.library, r.hr, detail);
    }
    if (context.json) PrintJson(results, verb);
    return exitCode;
}

}  // namespace

int RunRegister(CToolContext& context) { return RunServers(context, kRegister); }

int RunUnregister(CToolContext& context) { return RunServers(context, kUnregister); }
