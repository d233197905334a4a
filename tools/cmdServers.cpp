// register and unregister: a library's own self-registration entry points.
#include <dlfcn.h>
#include <sys/stat.h>

#include <iostream>

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

struct ServerResult {
    std::string library;
    HRESULT hr = S_OK;
    std::string text;
    std::string errorInfo;
    std::string detail;
};

// The library is opened by the path given. A bare name means the file in
// the working directory when there is one there, as the runtime loads
// components; otherwise the loader's own search, which also finds the
// runtime itself by its name.
std::string LoadPath(const std::string& library) {
    if (library.find('/') != std::string::npos) return library;
    struct stat info;
    return stat(("./" + library).c_str(), &info) == 0 ? "./" + library : library;
}

// Only S_OK is a clean result: the runtime's RegisterServer answers S_FALSE
// when any class or category failed.
bool Succeeded(HRESULT hr) { return SUCCEEDED(hr) && hr != S_FALSE; }

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
        COM_ClearErrorInfo();
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
    } else {
        result.hr = CO_E_ERRORINDLL;
        result.detail = path + " defines no " + verb.entry + " of its own";
    }
    result.text = StatusText(result.hr);
    return result;
}

void PrintJson(const std::vector<ServerResult>& results, const ServerVerb& verb) {
    CJsonWriter json(std::cout);
    json.BeginObject().Key("command").String(verb.command).Key("results").BeginArray();
    for (const ServerResult& r : results) {
        json.BeginObject()
            .Key("library").String(r.library)
            .Key("entry").String(verb.entry)
            .Key("ok").Bool(Succeeded(r.hr))
            .Key("code").String(HexCode(r.hr))
            .Key("text").String(r.text)
            .Key("detail").OptionalString(!r.detail.empty(), r.detail)
            .Key("errorInfo").OptionalString(!r.errorInfo.empty(), r.errorInfo)
            .EndObject();
    }
    json.EndArray().EndObject();
}

int RunServers(CToolContext& context, const ServerVerb& verb) {
    ExpectArgs(context, 1, static_cast<size_t>(-1));
    // Self-registration writes the registry: it must be readable first.
    if (FAILED(EnsureRegistry())) return kExitFailed;

    std::vector<ServerResult> results;
    int exitCode = kExitOk;
    for (const std::string& library : context.args) {
        results.push_back(CallEntry(verb, library));
        const ServerResult& r = results.back();
        if (Succeeded(r.hr)) {
            if (!context.json) {
                std::cout << verb.done << " " << r.library << ": " << HexCode(r.hr) << " "
                          << r.text;
                if (!r.errorInfo.empty()) std::cout << "; error info: " << r.errorInfo;
                std::cout << "\n";
            }
            continue;
        }
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
