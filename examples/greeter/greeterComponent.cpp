// The greeter component: the greeter class, a member of the component's own
// category, and the decoder of the greeter's facility. Everything it
// registers, and every identifier, comes from greeter.idl; built with
// veltcom_add_component, so only the entry points leave the library.
#include <set>
#include <string>

#include "greeter.h"

namespace {

struct Language {
    const wchar_t* code;
    const wchar_t* hello;
};

const Language kLanguages[] = {
    {L"en", L"Hello"}, {L"de", L"Hallo"}, {L"fr", L"Bonjour"}, {L"es", L"Hola"}};

const wchar_t kLocation[] = L"Sample.Greeter";

class CGreeter : public COM_CImplements<CGreeter, ISampleGreeter> {
public:
    HRESULT SetLanguage(const wchar_t* language) override {
        if (!language) return E_POINTER;
        for (const Language& candidate : kLanguages) {
            if (std::wstring(candidate.code) == language) {
                m_pLanguage = &candidate;
                return S_OK;
            }
        }
        const std::wstring why = L"no greeting known in \"" + std::wstring(language) + L"\"";
        return COM_ReportError(GREETER_E_LANGUAGE, kLocation, why.c_str());
    }

    HRESULT Greet(const wchar_t* name, wchar_t** greeting) override {
        if (!greeting) return E_POINTER;
        *greeting = nullptr;
        if (!name || !*name)
            return COM_ReportError(GREETER_E_NONAME, kLocation, L"Greet was called without a name");
        const std::wstring text = std::wstring(m_pLanguage->hello) + L", " + name + L"!";
        *greeting = COM_SysAllocString(text.c_str());
        if (!*greeting) return E_OUTOFMEMORY;
        return m_greeted.insert(name).second ? S_OK : GREETER_S_AGAIN;
    }

private:
    const Language* m_pLanguage = &kLanguages[0];
    std::set<std::wstring> m_greeted;
};

}  // namespace

// The decoder needs no code of its own: the facility's texts are in greeter.h.
COM_BEGIN_OBJECT_MAP(s_objectMap)
COM_OBJECT_ENTRY_CLASS(CLASS_SampleGreeter, CGreeter)
COM_OBJECT_ENTRY_CLASS(CLASS_SampleGreeterStatus, COM_CStatusDecoder<&FACILITY_GREETER>)
COM_END_OBJECT_MAP()

// VELTCOM_COMPONENT_FILE is the library's file name, set by
// veltcom_add_component. Registration also records ISampleGreeter's type
// information and the category's description from the tables below.
COM_DEFINE_MODULE(s_objectMap, VELTCOM_COMPONENT_FILE)
COM_DEFINE_TYPELIBRARY(TYPELIB_greeter)
