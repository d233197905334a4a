// The registry's figures at one size: activation and ProgID lookup with the
// target class first and last, a registry load and a first activation in a
// fresh process, and one change, each beside its anchor. The registry object
// is one per process, so each size runs in a process of its own:
//
//   bench_registry --classes=<n> --scratch=<directory> [--first-activation-only] [benchmark options]
//
// --first-activation-only keeps to a fresh process's first activation, its
// floor and the memory it adds, for sizes where the other figures take long.
#include <benchmark/benchmark.h>
#include <xercesc/framework/MemBufInputSource.hpp>
#include <xercesc/parsers/XercesDOMParser.hpp>
#include <xercesc/util/PlatformUtils.hpp>

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "benchClasses.h"
#include "registryGenerator.h"

namespace {

struct Options {
    uint32_t classes = 10;
    std::string scratch;
    bool firstActivationOnly = false;
};

Options g_options;
std::string g_directory;
std::string g_pristine;  // the generated file's bytes

using RegistryPtr = utlAutoIf<COM_IRegistry, &COM_IID_IRegistry>;

std::string Name(const char* figure) { return std::string(figure) + "/" + std::to_string(g_options.classes); }

void Activate(benchmark::State& state, uint32_t index) {
    const COM_GUID clsid = bench::ClassId(index);
    for (auto _ : state) {
        COM_IUnknown* object = nullptr;
        const HRESULT hr = COM_CreateInstance(clsid, nullptr, COM_IID_IUnknown, reinterpret_cast<void**>(&object));
        if (FAILED(hr)) {
            state.SkipWithError("COM_CreateInstance failed");
            break;
        }
        object->Release();
    }
}

void ActivateBuiltIn(benchmark::State& state) {
    for (auto _ : state) {
        COM_IUnknown* object = nullptr;
        if (FAILED(COM_CreateInstance(COM_CLSID_Memory, nullptr, COM_IID_IUnknown, reinterpret_cast<void**>(&object)))) {
            state.SkipWithError("COM_CreateInstance failed");
            break;
        }
        object->Release();
    }
}

void LookUpProgId(benchmark::State& state, uint32_t index) {
    std::wstring progId = bench::ProgId(index);
    const COM_GUID expected = bench::ClassId(index);
    for (auto _ : state) {
        COM_GUID clsid{};
        if (COM_GetCLSIDFromProgID(&progId[0], &clsid) != S_OK || clsid != expected) {
            state.SkipWithError("COM_GetCLSIDFromProgID failed");
            break;
        }
    }
}

// One sample per fresh process; the child times its own step, so process
// start-up stays out of the figure.
void InChild(benchmark::State& state, const char* mode) {
    for (auto _ : state) {
        std::string output;
        if (!bench::RunChild(BENCH_CHILD_PATH, g_directory, mode, nullptr, output)) {
            state.SkipWithError("the helper process failed");
            break;
        }
        state.SetIterationTime(std::strtod(output.c_str(), nullptr) / 1e9);
    }
}

// A fresh process's first activation and its floor, run one after the other
// in alternating order so that whatever else the machine does falls on both.
struct Pair {
    double activationNs = 0, floorNs = 0;
    double activationRss = 0, floorRss = 0;
};

std::vector<Pair> g_pairs;

// Runs a child that prints nanoseconds and resident bytes.
bool TimeChild(const char* mode, double& ns, double& rss) {
    std::string output;
    if (!bench::RunChild(BENCH_CHILD_PATH, g_directory, mode, nullptr, output)) return false;
    char* end = nullptr;
    ns = std::strtod(output.c_str(), &end);
    rss = std::strtod(end, nullptr);
    return ns > 0 && rss > 0;
}

// Pair number `index`, run when no figure has asked for it yet: the figures
// take their samples from the same pairs, each figure's repetition the next
// ones. Null when a child failed.
const Pair* PairAt(size_t index) {
    while (g_pairs.size() <= index) {
        Pair pair;
        const bool floorFirst = g_pairs.size() % 2 == 0;
        const bool ran = floorFirst ? TimeChild("floor", pair.floorNs, pair.floorRss) &&
                                          TimeChild("first-activation", pair.activationNs, pair.activationRss)
                                    : TimeChild("first-activation", pair.activationNs, pair.activationRss) &&
                                          TimeChild("floor", pair.floorNs, pair.floorRss);
        if (!ran) return nullptr;
        g_pairs.push_back(pair);
    }
    return &g_pairs[index];
}

double Median(std::vector<double> values) {
    const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
    std::nth_element(values.begin(), middle, values.end());
    return *middle;
}

// first_activation/n carries the memory the registry adds, rss_added: the
// median over its samples of the difference to the floor's process.
void FirstActivationOrFloor(benchmark::State& state, bool activation) {
    static size_t nextPair[2];  // per figure: floor, first activation
    std::vector<double> added;
    for (auto _ : state) {
        const Pair* pair = PairAt(nextPair[activation]++);
        if (!pair) {
            state.SkipWithError("the helper process failed");
            break;
        }
        state.SetIterationTime((activation ? pair->activationNs : pair->floorNs) / 1e9);
        if (activation) added.push_back(pair->activationRss - pair->floorRss);
    }
    if (!added.empty()) state.counters["rss_added"] = Median(added);
}

void BareParse(benchmark::State& state) {
    xercesc::XMLPlatformUtils::Initialize();
    for (auto _ : state) {
        xercesc::XercesDOMParser parser;
        xercesc::MemBufInputSource source(reinterpret_cast<const XMLByte*>(g_pristine.data()), g_pristine.size(),
                                          "REGISTRY");
        parser.parse(source);
        if (!parser.getDocument() || parser.getErrorCount() != 0) {
            state.SkipWithError("the registry file does not parse");
            break;
        }
    }
    xercesc::XMLPlatformUtils::Terminate();
}

// A value that alternates, so that every call is a real change and the file
// keeps its size.
void ChangeValue(benchmark::State& state) {
    RegistryPtr registry;
    if (FAILED(registry.CreateInstance(COM_CLSID_Registry))) {
        state.SkipWithError("no registry");
        return;
    }
    bool flip = false;
    for (auto _ : state) {
        flip = !flip;
        if (FAILED(registry->Open(5, L"")) || FAILED(registry->SetValueString(L"BenchSetting", flip ? L"a" : L"b")) ||
            FAILED(registry->Close())) {
            state.SkipWithError("SetValueString failed");
            break;
        }
    }
}

bool WriteSyncRename(const std::string& bytes, const std::string& temporary, const std::string& target) {
    const int fd = open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) return false;
    bool written = write(fd, bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size());
    written = fsync(fd) == 0 && written;
    written = close(fd) == 0 && written;
    return written && rename(temporary.c_str(), target.c_str()) == 0;
}

// The anchors: bytes as large as a registry file, written the careful way.
void WriteCarefully(benchmark::State& state, const std::string& bytes) {
    const std::string temporary = g_directory + "/anchor.tmp";
    const std::string target = g_directory + "/anchor.XML";
    for (auto _ : state) {
        if (!WriteSyncRename(bytes, temporary, target)) {
            state.SkipWithError("writing the file failed");
            break;
        }
    }
}

using Entry = HRESULT (*)();

// The entry point of the 200-class component, loaded once; null when missing.
Entry ComponentEntry(const char* name) {
    static void* library = dlopen(BENCH_MANY_PATH, RTLD_NOW);
    return library ? reinterpret_cast<Entry>(dlsym(library, name)) : nullptr;
}

// A component's installation, 200 classes with ProgID, display name and
// description, into the registry this process has loaded; removed again
// untimed, so that every sample starts from the same file.
void RegisterComponent(benchmark::State& state) {
    const Entry registerServer = ComponentEntry("DllRegisterServer");
    const Entry unregisterServer = ComponentEntry("DllUnregisterServer");
    if (!registerServer || !unregisterServer) {
        state.SkipWithError("the 200-class component cannot be loaded");
        return;
    }
    for (auto _ : state) {
        if (registerServer() != S_OK) {
            state.SkipWithError("DllRegisterServer failed");
            break;
        }
        state.PauseTiming();
        const HRESULT removed = unregisterServer();
        state.ResumeTiming();
        if (removed != S_OK) {
            state.SkipWithError("DllUnregisterServer failed");
            break;
        }
    }
}

// The anchor of an installation: the file it leaves, written the careful way.
void WriteInstalledBytes(benchmark::State& state) {
    const Entry registerServer = ComponentEntry("DllRegisterServer");
    const Entry unregisterServer = ComponentEntry("DllUnregisterServer");
    if (!registerServer || registerServer() != S_OK) {
        state.SkipWithError("DllRegisterServer failed");
        return;
    }
    const std::string bytes = bench::ReadFile(g_directory + "/Registry.XML");
    unregisterServer();
    WriteCarefully(state, bytes);
}

// The anchor of a change: the registry file's current bytes.
void WriteFileBytes(benchmark::State& state) { WriteCarefully(state, bench::ReadFile(g_directory + "/Registry.XML")); }

// Loads from a fresh process take long at large sizes; a few samples do.
int LoadSamples() {
    return g_options.classes >= 100000 ? 3 : g_options.classes >= 10000 ? 5 : g_options.classes >= 1000 ? 10 : 20;
}

void RegisterBenchmarks() {
    benchmark::RegisterBenchmark(Name("first_activation").c_str(), FirstActivationOrFloor, true)
        ->UseManualTime()
        ->Iterations(LoadSamples());
    benchmark::RegisterBenchmark(Name("floor").c_str(), FirstActivationOrFloor, false)
        ->UseManualTime()
        ->Iterations(LoadSamples());
    if (g_options.firstActivationOnly) return;
    const uint32_t last = g_options.classes - 1;
    benchmark::RegisterBenchmark(Name("activate_first").c_str(), Activate, 0u);
    benchmark::RegisterBenchmark(Name("activate_last").c_str(), Activate, last);
    benchmark::RegisterBenchmark(Name("activate_builtin").c_str(), ActivateBuiltIn);
    benchmark::RegisterBenchmark(Name("progid_first").c_str(), LookUpProgId, 0u);
    benchmark::RegisterBenchmark(Name("progid_last").c_str(), LookUpProgId, last);
    benchmark::RegisterBenchmark(Name("load").c_str(), InChild, "load")->UseManualTime()->Iterations(LoadSamples());
    benchmark::RegisterBenchmark(Name("xerces_init").c_str(), InChild, "xerces-init")
        ->UseManualTime()
        ->Iterations(LoadSamples());
    benchmark::RegisterBenchmark(Name("bare_parse").c_str(), BareParse);
    benchmark::RegisterBenchmark(Name("change").c_str(), ChangeValue);
    benchmark::RegisterBenchmark(Name("write_fsync_rename").c_str(), WriteFileBytes);
    benchmark::RegisterBenchmark(Name("register_200").c_str(), RegisterComponent);
    benchmark::RegisterBenchmark(Name("write_fsync_rename_installed").c_str(), WriteInstalledBytes);
}

// Takes this program's own options out of argv, leaving the rest to the
// benchmark library.
bool TakeOptions(int& argc, char** argv) {
    int kept = 1;
    for (int i = 1; i < argc; ++i) {
        const char* arg = argv[i];
        if (std::strncmp(arg, "--classes=", 10) == 0) {
            g_options.classes = static_cast<uint32_t>(std::strtoul(arg + 10, nullptr, 10));
        } else if (std::strncmp(arg, "--scratch=", 10) == 0) {
            g_options.scratch = arg + 10;
        } else if (std::strcmp(arg, "--first-activation-only") == 0) {
            g_options.firstActivationOnly = true;
        } else {
            argv[kept++] = argv[i];
        }
    }
    argc = kept;
    return g_options.classes > 0 && !g_options.scratch.empty();
}

bool Prepare() {
    mkdir(g_options.scratch.c_str(), 0755);
    const std::string mismatch = bench::CheckGeneratorFormat(g_options.scratch, BENCH_CHILD_PATH);
    if (!mismatch.empty()) {
        std::fprintf(stderr, "generated registries no longer match the runtime's format: %s\n", mismatch.c_str());
        return false;
    }
    g_directory = bench::PrepareRegistryDirectory(g_options.scratch, g_options.classes, BENCH_COMPONENT_PATH);
    if (g_directory.empty() || chdir(g_directory.c_str()) != 0) {
        std::fprintf(stderr, "cannot prepare the registry in %s\n", g_options.scratch.c_str());
        return false;
    }
    setenv("COMLIB", g_directory.c_str(), 1);
    // The first process to read a new file may rebuild what later ones only
    // read: the figures are those of the processes after it.
    std::string output;
    if (!bench::RunChild(BENCH_CHILD_PATH, g_directory, "first-activation", nullptr, output)) {
        std::fprintf(stderr, "the first generated class cannot be activated in a fresh process\n");
        return false;
    }
    if (g_options.firstActivationOnly) return true;
    g_pristine = bench::ReadFile(g_directory + "/Registry.XML");
    // Loads the registry and the component once: the figures are those of a
    // process that has both.
    COM_IUnknown* object = nullptr;
    if (FAILED(COM_CreateInstance(bench::ClassId(0), nullptr, COM_IID_IUnknown, reinterpret_cast<void**>(&object)))) {
        std::fprintf(stderr, "the first generated class cannot be activated\n");
        return false;
    }
    object->Release();
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    if (!TakeOptions(argc, argv)) {
        std::fprintf(stderr,
                     "usage: %s --classes=<n> --scratch=<directory> [--first-activation-only] [benchmark options]\n",
                     argv[0]);
        return 2;
    }
    // Absolute, since the process moves into the registry's directory.
    if (g_options.scratch[0] != '/') {
        char cwd[4096];
        if (!getcwd(cwd, sizeof cwd)) return 1;
        g_options.scratch = std::string(cwd) + "/" + g_options.scratch;
    }
    benchmark::Initialize(&argc, argv);
    if (!Prepare()) return 1;
    RegisterBenchmarks();
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
