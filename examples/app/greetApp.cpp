// A sample application: finds the greeter by its ProgID, creates it, greets,
// and has the runtime decode the greeter's status codes through the
// component's decoder. It knows the component only through greeter.h, which
// veltcom-idl makes of greeter.idl; the library is found through the registry,
// in the working directory.
//
//     greet [NAME [LANGUAGE]]
//
// Exits with 0 when every step behaved as the greeter promises, 1 otherwise.
#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "greeter.h"

namespace {

using GreeterPtr = utlAutoIf<ISampleGreeter, &IID_ISampleGreeter>;
using ErrorInfoPtr = utlAutoIf<COM_IErrorInfo, &COM_IID_IErrorInfo>;

// Takes ownership of a system string handed out by the runtime or a component.
std::wstring Take(wchar_t* text) {
    const std::wstring result = text ? text : L"";
    COM_SysFreeString(text);
    return result;
}

std::wstring Widen(const char* text) {
    std::wstring result(std::mbstowcs(nullptr, text, 0) + 1, L'\0');
    const size_t count = std::mbstowcs(&result[0], text, result.size());
    result.resize(count == static_cast<size_t>(-1) ? 0 : count);
    return result;
}

// The runtime's text for a status code. For the greeter's facility the
// runtime binds the moniker "hresult:71" and asks the greeter's decoder.
std::wstring Describe(HRESULT hr) {
    wchar_t* text = nullptr;
    const HRESULT decoded = COM_DecodeHRESULT(hr, 0, &text);
    if (FAILED(decoded)) {
        wchar_t buffer[96];
        std::swprintf(buffer, sizeof buffer / sizeof buffer[0], L"(no text: decoding gave %08X)",
                      static_cast<unsigned int>(decoded));
        return buffer;
    }
    return Take(text);
}

// The current error's description and location, when someone set one.
void PrintErrorInfo() {
    ErrorInfoPtr info;
    if (COM_GetErrorInfo(info.Out()) != S_OK || info.IsNull()) return;
    wchar_t* description = nullptr;
    wchar_t* location = nullptr;
    info->GetDescription(&description);
    info->GetLocation(&location);
    std::printf("    error information: %ls (at %ls)\n", Take(description).c_str(),
                Take(location).c_str());
    COM_ClearErrorInfo();
}

void PrintStatus(const char* what, HRESULT hr) {
    std::printf("%s -> %08X: %ls\n", what, static_cast<unsigned int>(hr), Describe(hr).c_str());
}

int Fail(const char* what, HRESULT hr) {
    std::fflush(stdout);
    std::fprintf(stderr, "greet: %s failed: %08X: %ls\n", what, static_cast<unsigned int>(hr),
                 Describe(hr).c_str());
    PrintErrorInfo();
    return 1;
}

}  // namespace

int main(int argc, char** argv) {
    std::setlocale(LC_ALL, "");
    const std::wstring name = argc > 1 ? Widen(argv[1]) : L"World";
    const std::wstring language = argc > 2 ? Widen(argv[2]) : L"fr";

    // The class identifier behind the ProgID, from the registry.
    wchar_t progId[] = L"Sample.Greeter";
    COM_GUID clsid;
    HRESULT hr = COM_GetCLSIDFromProgID(progId, &clsid);
    if (FAILED(hr)) return Fail("looking up Sample.Greeter (is the component registered?)", hr);
    wchar_t* clsidText = nullptr;
    COM_CLSIDToString(clsid, &clsidText);
    std::printf("Sample.Greeter is the class %ls\n", Take(clsidText).c_str());

    GreeterPtr greeter;
    hr = greeter.CreateInstance(clsid);
    if (FAILED(hr)) return Fail("creating Sample.Greeter", hr);
    std::printf("created it and got ISampleGreeter\n");

    hr = greeter->SetLanguage(language.c_str());
    if (FAILED(hr)) return Fail("SetLanguage", hr);

    // First greeting: S_OK. The same name again: the greeter's own success code.
    int failures = 0;
    for (int round = 0; round < 2; ++round) {
        wchar_t* greeting = nullptr;
        hr = greeter->Greet(name.c_str(), &greeting);
        if (FAILED(hr)) return Fail("Greet", hr);
        std::printf("Greet(\"%ls\") says \"%ls\"\n", name.c_str(), Take(greeting).c_str());
        PrintStatus("    status", hr);
        if (hr != (round == 0 ? S_OK : GREETER_S_AGAIN)) ++failures;
    }

    // Two failures, each with the greeter's code, its decoded text and the
    // error information the greeter set.
    hr = greeter->SetLanguage(L"tlh");
    PrintStatus("SetLanguage(\"tlh\")", hr);
    PrintErrorInfo();
    if (hr != GREETER_E_LANGUAGE) ++failures;

    wchar_t* greeting = nullptr;
    hr = greeter->Greet(L"", &greeting);
    Take(greeting);
    PrintStatus("Greet(\"\")", hr);
    PrintErrorInfo();
    if (hr != GREETER_E_NONAME) ++failures;

    std::fflush(stdout);
    if (failures) std::fprintf(stderr, "greet: %d step(s) did not behave as promised\n", failures);
    return failures ? 1 : 0;
}
