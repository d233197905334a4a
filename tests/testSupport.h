// Shared test fixtures.
#ifndef VELTCOM_TESTS_SUPPORT_H
#define VELTCOM_TESTS_SUPPORT_H

#include <gtest/gtest.h>

#include <string>

// Runs a test in a fresh temporary directory that is also the working
// directory, with COMLIB pointing at it; removed again afterwards.
class TempDirTest : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;

    // The path of a file in the test's directory.
    std::string PathOf(const std::string& name) const { return m_dir + "/" + name; }
    std::string ReadFile(const std::string& name) const;
    void WriteFile(const std::string& name, const std::string& content) const;

    std::string m_dir;

private:
    std::string m_previousDir;
};

#endif
