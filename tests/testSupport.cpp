#include "testSupport.h"

#include <unistd.h>

#include <climits>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

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
