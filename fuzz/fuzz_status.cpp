// Status decoding: every code gets the text of its facility's rule, and the
// table's text always ends with the code in brackets.
#include <cstring>
#include <cwchar>

#include "fuzzSupport.h"

namespace {

// " [", the code in upper-case hexadecimal padded with blanks to 8, "]".
std::wstring Suffix(int hr) {
    wchar_t text[16];
    std::swprintf(text, 16, L" [%8X]", static_cast<unsigned>(hr));
    return text;
}

std::wstring Widened(const char* text) {
    std::wstring wide(std::strlen(text), L'\0');
    wide.resize(std::mbstowcs(&wide[0], text, wide.size()));
    return wide;
}

// The system's text for an error number it has a name for; for any other
// number the system's text is made up, and the runtime writes its own.
std::wstring SystemText(int number) {
    if (!strerrorname_np(number)) return L"Unknown Exception" + std::to_wstring(number);
    return Widened(std::strerror(number));
}

bool EndsWith(const std::wstring& text, const std::wstring& end) {
    return text.size() >= end.size() &&
           text.compare(text.size() - end.size(), end.size(), end) == 0;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    // The runtime's own classes, the hresult binder among them, and no
    // decoder for any facility.
    ScratchDirectory();
    return DllRegisterServer() == S_OK ? 0 : 1;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzedDataProvider in(data, size);
    const int hr = in.ConsumeIntegral<int>();
    const unsigned flags = in.ConsumeIntegral<unsigned>();
    const unsigned facility = (static_cast<unsigned>(hr) >> 16) & 0x1FFF;

    const std::wstring expansion = COM_HRESULT_Expansion(hr);
    FUZZ_CHECK(EndsWith(expansion, Suffix(hr)) && expansion.size() > Suffix(hr).size(),
               "0x%08X expands to %s", static_cast<unsigned>(hr), Printable(expansion).c_str());

    wchar_t* const untouched = reinterpret_cast<wchar_t*>(0xdeadbeef);
    wchar_t* text = untouched;
    const HRESULT result = COM_DecodeHRESULT(hr, flags, &text);
    if (facility >= 100) {
        // No decoder is registered for any facility.
        FUZZ_CHECK(result == CLASS_E_CLASSNOTAVAILABLE && text == untouched,
                   "0x%08X decoded with status 0x%08X", static_cast<unsigned>(hr),
                   static_cast<unsigned>(result));
        return 0;
    }
    FUZZ_CHECK(text != untouched && text, "no text for 0x%08X", static_cast<unsigned>(hr));
    const std::wstring decoded(text, COM_SysStringLen(text));
    COM_SysFreeString(text);
    FUZZ_CHECK(decoded.size() == std::wcslen(decoded.c_str()), "text holds a zero character");
    if (facility == 98) {
        FUZZ_CHECK(result == S_OK && decoded == SystemText(hr & 0xFFFF), "0x%08X decoded as %s",
                   static_cast<unsigned>(hr), Printable(decoded).c_str());
    } else {
        FUZZ_CHECK(result == S_FALSE && decoded == expansion, "0x%08X decoded as %s",
                   static_cast<unsigned>(hr), Printable(decoded).c_str());
    }
    return 0;
}
