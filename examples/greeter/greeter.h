// What the greeter component offers to the applications that use it: the
// class and interface identifiers, the interface itself, the category the
// component declares and the status codes of its own facility. A client
// includes this header and never links against the component.
#ifndef SAMPLE_GREETER_H
#define SAMPLE_GREETER_H

#include <veltcom.h>

// {003CA0BC-6346-4477-8A8B-7056D8EF2EC4}
const COM_GUID IID_ISampleGreeter = {0x003CA0BC, 0x6346, 0x4477, {0x8A, 0x8B, 0x70, 0x56, 0xD8, 0xEF, 0x2E, 0xC4}};
// The greeter class, ProgID "Sample.Greeter".
const COM_GUID CLSID_SampleGreeter = {0x11E54F7E, 0x9DD5, 0x4B8B, {0xB8, 0x87, 0x5B, 0x97, 0xF1, 0x1E, 0x05, 0x00}};
// The decoder of the greeter's status codes, ProgID "Sample.GreeterStatus".
const COM_GUID CLSID_SampleGreeterStatus = {0x1786257F, 0x5F23, 0x4033, {0xBF, 0x50, 0x4A, 0x68, 0x7B, 0x28, 0xC2, 0xE1}};
// The category of greeters; other components may put their classes in it.
const COM_GUID CATID_SampleGreeters = {0x27D97DA4, 0x5D1F, 0x47BE, {0xB1, 0xBC, 0x76, 0x0C, 0xE4, 0x5B, 0x59, 0x71}};

// The greeter's facility, 0x71: the runtime hands every code of it to the
// decoder registered as the value "71" of Moniker\hresult.
const unsigned int GREETER_FACILITY = 0x71;
#define GREETER_FACILITY_NAME L"71"

// Greet succeeded for a name this object had greeted before.
const HRESULT GREETER_S_AGAIN = static_cast<HRESULT>(0x00710001u);
// Greet was given no name, or an empty one.
const HRESULT GREETER_E_NONAME = static_cast<HRESULT>(0x80710002u);
// SetLanguage was given a language the greeter does not speak.
const HRESULT GREETER_E_LANGUAGE = static_cast<HRESULT>(0x80710003u);

class ISampleGreeter : public COM_IUnknown {
public:
    // Sets the language of later greetings: "en" (the first), "de", "fr" or
    // "es". Anything else gives GREETER_E_LANGUAGE and keeps the language.
    virtual HRESULT SetLanguage(const wchar_t* language) = 0;
    // A greeting for `name`, as a system string the caller frees with
    // COM_SysFreeString. S_OK the first time this object greets the name,
    // GREETER_S_AGAIN afterwards; on failure *greeting is null.
    virtual HRESULT Greet(const wchar_t* name, wchar_t** greeting) = 0;
};

#endif
