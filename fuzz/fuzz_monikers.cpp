// Moniker display names against a registry holding the runtime's own classes
// and one decoder value, facility 6F naming the binder's own class: only the
// prefix "hresult" (as the registry stores names) finds a binder, the outputs
// are written only as the contract says, binding the rest gives one of the
// binder's statuses, and nothing is written to the registry.
#include <fstream>
#include <sstream>

#include "fuzzSupport.h"

namespace {

std::string FileContent(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream content;
    content << in.rdbuf();
    return content.str();
}

const std::string& RegistryFile() {
    static const std::string path = ScratchDirectory() + "/Registry.XML";
    return path;
}

using RegistryPtr = utlAutoIf<COM_IRegistry, &COM_IID_IRegistry>;

std::string g_registryAfterSetUp;

// Facility 6F is bound to the binder's own class, which takes no data.
bool RegisterDecoder() {
    RegistryPtr registry;
    wchar_t* text = nullptr;
    if (registry.CreateInstance(COM_CLSID_Registry) != S_OK || registry->Open(1, L"") != S_OK ||
        registry->OpenKey(L"Moniker\\hresult") != S_OK ||
        COM_CLSIDToString(COM_CLSID_HResultDecoderBinder, &text) != S_OK)
        return false;
    const HRESULT hr = registry->SetValueString(L"6F", text);
    COM_SysFreeString(text);
    return hr == S_OK;
}

// The status BindToObject gives for `rest`. The empty value name, the key's
// default, names the binder itself and is refused; a name that the registry
// cuts to nothing (its characters' low 16 bits are zero) still reads that
// default and binds the binder.
HRESULT ExpectedBinding(const std::wstring& rest) {
    const size_t bang = rest.find(L'!');
    const std::wstring valueName = rest.substr(0, bang);
    const bool hasData = bang != std::wstring::npos && bang + 1 < rest.size();
    const std::u16string stored = EscapedName(valueName);
    if (valueName.empty() || (stored != u"6F" && !stored.empty())) return CLASS_E_CLASSNOTAVAILABLE;
    return hasData ? static_cast<HRESULT>(0x80680004) : S_OK;
}

void CheckBinding(COM_IMoniker* moniker, std::wstring rest) {
    void* object = reinterpret_cast<void*>(0xdeadbeef);
    const HRESULT hr = moniker->BindToObject(&rest[0], COM_IID_IUnknown, &object);
    const HRESULT expected = ExpectedBinding(rest);
    FUZZ_CHECK(hr == expected, "binding %s gave 0x%08X, not 0x%08X", Printable(rest).c_str(),
               static_cast<unsigned>(hr), static_cast<unsigned>(expected));
    if (hr == S_OK) {
        FUZZ_CHECK(object && object != reinterpret_cast<void*>(0xdeadbeef), "no object");
        static_cast<COM_IUnknown*>(object)->Release();
    } else {
        FUZZ_CHECK(!object, "a failed binding left an object");
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    ScratchDirectory();
    if (DllRegisterServer() != S_OK || !RegisterDecoder()) return 1;
    g_registryAfterSetUp = FileContent(RegistryFile());
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzedDataProvider in(data, size);
    std::wstring name = WideText(in, 64);
    const size_t colon = name.find(L':');
    const bool known =
        colon != std::wstring::npos && EscapedName(name.substr(0, colon)) == u"hresult";

    unsigned long eaten = 0xdeadbeef;
    COM_IMoniker* moniker = reinterpret_cast<COM_IMoniker*>(0xdeadbeef);
    const HRESULT hr = COM_MkParseName(&name[0], &eaten, &moniker);
    if (!known) {
        FUZZ_CHECK(hr == CLASS_E_CLASSNOTAVAILABLE, "%s parsed with 0x%08X",
                   Printable(name).c_str(), static_cast<unsigned>(hr));
        FUZZ_CHECK(eaten == 0xdeadbeef && moniker == reinterpret_cast<COM_IMoniker*>(0xdeadbeef),
                   "a failed parse wrote its outputs");
    } else {
        FUZZ_CHECK(hr == S_OK && moniker, "%s parsed with 0x%08X", Printable(name).c_str(),
                   static_cast<unsigned>(hr));
        FUZZ_CHECK(eaten == colon + 1, "%lu characters eaten of %s", eaten,
                   Printable(name).c_str());
        CheckBinding(moniker, name.substr(eaten));
        moniker->Release();
    }
    FUZZ_CHECK(FileContent(RegistryFile()) == g_registryAfterSetUp, "the registry file changed");
    return 0;
}
