// Identifier text both ways: every identifier written as text reads back as
// itself, and any text that reads as an identifier has the written form's
// shape and writes back to the same digits.
#include <cstring>
#include <cwchar>
#include <cwctype>

#include "fuzzSupport.h"

namespace {

bool SameId(const COM_GUID& a, const COM_GUID& b) { return std::memcmp(&a, &b, sizeof a) == 0; }

// The written form, made independently of the runtime.
std::wstring ExpectedText(const COM_GUID& id) {
    wchar_t text[64];
    std::swprintf(text, 64, L"_%08X-%04X-%04x-%02X%02X-%02X%02X%02X%02X%02X%02X_", id.Data1,
                  id.Data2, id.Data3, id.Data4[0], id.Data4[1], id.Data4[2], id.Data4[3],
                  id.Data4[4], id.Data4[5], id.Data4[6], id.Data4[7]);
    return text;
}

std::wstring WriteAndReadBack(const COM_GUID& id) {
    wchar_t* text = nullptr;
    FUZZ_CHECK(COM_CLSIDToString(id, &text) == S_OK && text, "writing failed");
    const std::wstring written(text, COM_SysStringLen(text));
    COM_SysFreeString(text);
    FUZZ_CHECK(written == ExpectedText(id), "written as %s", Printable(written).c_str());
    COM_GUID back = {};
    FUZZ_CHECK(COM_StringToCLSID(written.c_str(), &back) == S_OK, "%s not read",
               Printable(written).c_str());
    FUZZ_CHECK(SameId(back, id), "%s read back differently", Printable(written).c_str());
    return written;
}

// Only the low byte of a character is classified; case is not significant.
wchar_t Folded(wchar_t c) { return std::towlower(static_cast<wint_t>(c & 0xFF)); }

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzedDataProvider in(data, size);
    COM_GUID id;
    in.ConsumeData(&id, sizeof id);
    WriteAndReadBack(id);

    const std::wstring text = WideText(in, 48);
    const COM_GUID untouched = {0xDEADBEEF, 0xBEEF, 0xDEAD, {1, 2, 3, 4, 5, 6, 7, 8}};
    COM_GUID read = untouched;
    const HRESULT hr = COM_StringToCLSID(text.c_str(), &read);
    FUZZ_CHECK(hr == S_OK || hr == E_INVALIDARG, "status 0x%08X", static_cast<unsigned>(hr));
    if (hr != S_OK) {
        FUZZ_CHECK(SameId(read, untouched), "a failed read wrote the identifier");
        return 0;
    }
    FUZZ_CHECK(text.size() >= 38, "%zu characters read as an identifier", text.size());
    const std::wstring written = WriteAndReadBack(read);
    for (size_t i = 0; i < 38; ++i)
        FUZZ_CHECK(Folded(text[i]) == Folded(written[i]), "%s read as %s", Printable(text).c_str(),
                   Printable(written).c_str());
    return 0;
}
