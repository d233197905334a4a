// Shared test fixtures.
#ifndef VELTCOM_TESTS_SUPPORT_H
#define VELTCOM_TESTS_SUPPORT_H

#include <gtest/gtest.h>
#include <veltcom.h>

#include <sys/types.h>

#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

using RegistryPtr = utlAutoIf<COM_IRegistry, &COM_IID_IRegistry>;

// The identifier's text form, as registry keys name it.
inline std::wstring TextOf(const COM_GUID& id) {
    wchar_t* text = nullptr;
    EXPECT_EQ(COM_CLSIDToString(id, &text), S_OK);
    const std::wstring result = text ? text : L"";
    COM_SysFreeString(text);
    return result;
}

// Output slots are filled with this before a call, to see whether the call
// wrote them.
template <class T>
T* Unwritten() {
    return reinterpret_cast<T*>(0xdeadbeef);
}

// Copies a system string handed out to the caller, and frees it.
inline std::wstring Take(wchar_t* text) {
    if (text == Unwritten<wchar_t>()) return L"<not written>";
    const std::wstring result = text ? std::wstring(text, COM_SysStringLen(text)) : L"";
    COM_SysFreeString(text);
    return result;
}

// The system's own text for an error number, widened in the current locale.
inline std::wstring SystemText(int number) {
    const char* text = std::strerror(number);
    std::wstring wide(std::strlen(text), L'\0');
    wide.resize(std::mbstowcs(&wide[0], text, wide.size()));
    return wide;
}

// The object's reference count, read through AddRef and Release.
inline unsigned long RefCount(COM_IUnknown* object) {
    object->AddRef();
    return object->Release();
}

// The process's registry object.
inline RegistryPtr Registry() {
    RegistryPtr registry;
    EXPECT_EQ(registry.CreateInstance(COM_CLSID_Registry), S_OK);
    return registry;
}

// Runs `body` in a child process made by fork, whose exit code is its
// result: a test assertion in a child would go unseen.
pid_t SpawnChild(const std::function<int()>& body);
// The child's exit code, or 128 + the signal that ended it.
int ChildResult(pid_t pid);
// Runs `body` in a child process and waits for its result.
inline int InChild(const std::function<int()>& body) { return ChildResult(SpawnChild(body)); }

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

// A TempDirTest that puts built component libraries where the runtime looks
// for them: the working directory.
class ComponentTest : public TempDirTest {
protected:
    void TearDown() override;

    void CopyComponent(const char* builtPath) const;
    // Copies the component and opens the copy; it stays open until the test
    // ends.
    void* LoadComponent(const char* builtPath);
    // Loads the component and runs its own registration, as an installer
    // would.
    void* InstallComponent(const char* builtPath);
    // Calls one of a library's entry points; E_NOTIMPL when it has none.
    static HRESULT CallEntry(void* library, const char* entry);

private:
    std::vector<void*> m_libraries;
};

#endif
