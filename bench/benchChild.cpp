// Runs one first-in-the-process step and prints how long it took, in
// nanoseconds, on standard output. The registry object is made once per
// process, so every sample of a load needs a process of its own.
//
//   benchChild load                 the first registry object of the process
//   benchChild xerces-init          XMLPlatformUtils::Initialize alone
//   benchChild register <count>     registers classes 0..count-1 as a component
//                                   does (prints nothing; for the format check)
#include <xercesc/util/PlatformUtils.hpp>

#include <chrono>
#include <cstdio>
#include <cstdlib>
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
    const std::string mode = argc > 1 ? argv[1] : "";
    if (mode == "load") return Load();
    if (mode == "xerces-init") return XercesInit();
    if (mode == "register" && argc > 2) return Register(static_cast<unsigned>(std::strtoul(argv[2], nullptr, 10)));
    std::fprintf(stderr, "usage: %s load | xerces-init | register <count>\n", argv[0]);
    return 2;
}
