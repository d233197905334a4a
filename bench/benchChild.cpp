// Runs one first-in-the-process step and prints how long it took, in
// nanoseconds, on standard output. The registry object is made once per
// process, so every sample of a load needs a process of its own.
//
//   benchChild load                 the first registry object of the process
//   benchChild xerces-init          XMLPlatformUtils::Initialize alone
//   benchChild first-activation     generated class 0 through the registry, timed
//                                   from the start of main, as a new user's
//                                   program does
//   benchChild floor                the same object with no registry: the
//                                   component opened by its path
//   benchChild register <count>     registers classes 0..count-1 as a component
//                                   does (prints nothing; for the format check)
//
// first-activation and floor print the resident memory the process then has,
// in bytes, as a second field.
#include <xercesc/util/PlatformUtils.hpp>

#include <dlfcn.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "benchClasses.h"

namespace {

using Clock = std::chrono::steady_clock;

int Report(Clock::time_point start) {
    const auto elapsed = std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now() - start);
    std::printf("%lld\n", static_cast<long long>(elapsed.count()));
    return 0;
}

int Load() {
    const Clock::time_point start = Clock::now();
    COM_IUnknown* registry = nullptr;
    const HRESULT hr = COM_CreateInstance(COM_CLSID_Registry, nullptr, COM_IID_IRegistry,
                                          reinterpret_cast<void**>(&registry));
    if (FAILED(hr)) {
        std::fprintf(stderr, "registry load failed: 0x%08X\n", static_cast<unsigned>(hr));
        return 1;
    }
    Report(start);
    registry->Release();
    return 0;
}

int XercesInit() {
    const Clock::time_point start = Clock::now();
    xercesc::XMLPlatformUtils::Initialize();
    return Report(start);
}

// VmRSS of /proc/self/status in bytes; 0 when it cannot be read.
long long ResidentBytes() {
    FILE* status = std::fopen("/proc/self/status", "r");
    if (!status) return 0;
    long long kilobytes = 0;
    char line[256];
    while (std::fgets(line, sizeof line, status)) {
        if (std::sscanf(line, "VmRSS: %lld kB", &kilobytes) == 1) break;
    }
    std::fclose(status);
    return kilobytes * 1024;
}

// Reports the time to the object in hand and the memory the process holds
// with it.
int ReportObject(Clock::time_point start, COM_IUnknown* object) {
    const auto elapsed = std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now() - start);
    std::printf("%lld %lld\n", static_cast<long long>(elapsed.count()), ResidentBytes());
    object->Release();
    return 0;
}

int FirstActivation(Clock::time_point start) {
    COM_IUnknown* object = nullptr;
    const HRESULT hr = COM_CreateInstance(bench::ClassId(0), nullptr, COM_IID_IUnknown,
                                          reinterpret_cast<void**>(&object));
    if (FAILED(hr)) {
        std::fprintf(stderr, "activating class 0 failed: 0x%08X\n", static_cast<unsigned>(hr));
        return 1;
    }
    return ReportObject(start, object);
}

// Opened as the runtime opens a component, from the working directory.
int Floor(Clock::time_point start) {
    const std::string path = std::string("./") + bench::kComponentFile;
    void* library = dlopen(path.c_str(), RTLD_LAZY | RTLD_GLOBAL);
    using GetClassObjectFunction = HRESULT (*)(const COM_GUID&, const COM_GUID&, void**);
    const auto getClassObject =
        library ? reinterpret_cast<GetClassObjectFunction>(dlsym(library, "GetClassObject")) : nullptr;
    COM_IClassFactory* factory = nullptr;
    if (!getClassObject ||
        FAILED(getClassObject(bench::ClassId(0), COM_IID_IClassFactory, reinterpret_cast<void**>(&factory)))) {
        std::fprintf(stderr, "no class factory from %s\n", path.c_str());
        return 1;
    }
    COM_IUnknown* object = nullptr;
    const HRESULT hr = factory->CreateInstance(COM_IID_IUnknown, reinterpret_cast<void**>(&object));
    factory->Release();
    if (FAILED(hr)) {
        std::fprintf(stderr, "the factory failed: 0x%08X\n", static_cast<unsigned>(hr));
        return 1;
    }
    return ReportObject(start, object);
}

int Register(unsigned count) {
    COM_CComModule module(nullptr, bench::kComponentFile);
    for (unsigned i = 0; i < count; ++i) {
        const HRESULT hr = module.UpdateRegistryClass(bench::ClassId(i), bench::ProgId(i).c_str(), 0, 1, nullptr,
                                                      nullptr, nullptr, nullptr);
        if (FAILED(hr)) {
            std::fprintf(stderr, "registering class %u failed: 0x%08X\n", i, static_cast<unsigned>(hr));
            return 1;
        }
    }
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    const Clock::time_point start = Clock::now();
    const char* mode = argc > 1 ? argv[1] : "";
    if (std::strcmp(mode, "first-activation") == 0) return FirstActivation(start);
    if (std::strcmp(mode, "floor") == 0) return Floor(start);
    if (std::strcmp(mode, "load") == 0) return Load();
    if (std::strcmp(mode, "xerces-init") == 0) return XercesInit();
    if (std::strcmp(mode, "register") == 0 && argc > 2) {
        return Register(static_cast<unsigned>(std::strtoul(argv[2], nullptr, 10)));
    }
    std::fprintf(stderr, "usage: %s load | xerces-init | first-activation | floor | register <count>\n", argv[0]);
    return 2;
}
