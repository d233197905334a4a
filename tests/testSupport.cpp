#include "testSupport.h"

#include <dlfcn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <climits>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

pid_t SpawnChild(const std::function<int()>& body) {
    const pid_t pid = fork();
    if (pid == 0) _exit(body());
    return pid;
}

int ChildResult(pid_t pid) {
    int status = 0;
    if (waitpid(pid, &status, 0) != pid) return -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

void TempDirTest::SetUp() {
    char cwd[PATH_MAX];
    ASSERT_NE(getcwd(cwd, sizeof cwd), nullptr);
    m_previousDir = cwd;
    char pattern[] = "/tmp/veltcom-test-XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    m_dir = pattern;
    ASSERT_EQ(chdir(m_dir.c_str()), 0);
    setenv("COMLIB", m_dir.c_str(), 1);
}

void TempDirTest::TearDown() {
    if (!m_previousDir.empty()) {
        EXPECT_EQ(chdir(m_previousDir.c_str()), 0);
    }
    std::error_code ignored;
    if (!m_dir.empty()) std::filesystem::remove_all(m_dir, ignored);
}

std::string TempDirTest::ReadFile(const std::string& name) const {
    std::ifstream in(PathOf(name), std::ios::binary);
    std::ostringstream content;
    content << in.rdbuf();
    return content.str();
}

void TempDirTest::WriteFile(const std::string& name, const std::string& content) const {
    std::ofstream out(PathOf(name), std::ios::binary | std::ios::trunc);
    out << content;
}

void ComponentTest::TearDown() {
    for (void* library : m_libraries) dlclose(library);
    TempDirTest::TearDown();
}

void ComponentTest::CopyComponent(const char* builtPath) const {
    const std::filesystem::path source(builtPath);
    std::filesystem::copy_file(source, PathOf(source.filename()),
                               std::filesystem::copy_options::overwrite_existing);
}

void* ComponentTest::LoadComponent(const char* builtPath) {
    CopyComponent(builtPath);
    const std::string copy = "./" + std::filesystem::path(builtPath).filename().string();
    void* library = dlopen(copy.c_str(), RTLD_NOW);
    EXPECT_NE(library, nullptr) << dlerror();
    if (library) m_libraries.push_back(library);
    return library;
}

void* ComponentTest::InstallComponent(const char* builtPath) {
    void* library = LoadComponent(builtPath);
    if (library) {
        EXPECT_EQ(CallEntry(library, "DllRegisterServer"), S_OK) << builtPath;
    }
    return library;
}

HRESULT ComponentTest::CallEntry(void* library, const char* entry) {
    auto function = reinterpret_cast<HRESULT (*)()>(dlsym(library, entry));
    return function ? function() : E_NOTIMPL;
}
