// Moniker display names, the hresult binder and status decoding, as an
// application sees them through the shared library, with real decoder
// components registered under Moniker\hresult.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <filesystem>
#include <string>

#include "decoderComponents.h"
#include "testSupport.h"

namespace {

using MonikerPtr = utlAutoIf<COM_IMoniker, &COM_IID_IMoniker>;
using DecoderPtr = utlAutoIf<COM_IDecodeHResult, &COM_IID_IDecodeHResult>;

const unsigned long kEatenSentinel = 0xdeadbeef;
COM_IMoniker* const kMonikerSentinel = reinterpret_cast<COM_IMoniker*>(0xdeadbeef);
void* const kSentinel = reinterpret_cast<void*>(0xdeadbeef);
wchar_t* const kTextSentinel = reinterpret_cast<wchar_t*>(0xdeadbeef);

// A class no component registers.
const COM_GUID kUnregisteredClass = {0x5A1E01FF, 0x0000, 0x4000, {0x80, 0, 0, 0, 0, 0, 0x01, 0xFF}};



std::wstring Recorded(const wchar_t* code, const wchar_t* data) {
    return std::wstring(L"recording decoder: code ") + code + L", flags 0, data <" + data + L">";
}

// Sets a string value below hive 1, creating the key.
void SetValue(const wchar_t* key, const wchar_t* name, const std::wstring& value) {
    RegistryPtr registry;
    ASSERT_EQ(registry.CreateInstance(COM_CLSID_Registry), S_OK);
    ASSERT_EQ(registry->Open(1, L""), S_OK);
    ASSERT_EQ(registry->CreateKey(key, 1), S_OK);
    ASSERT_EQ(registry->SetValueString(name, value.c_str()), S_OK);
    registry->Close();
}

// A string value below hive 1; false when the key or the value is missing.
bool ReadValue(const wchar_t* key, const wchar_t* name, std::wstring& value) {
    RegistryPtr registry;
    wchar_t* text = nullptr;
    if (FAILED(registry.CreateInstance(COM_CLSID_Registry)) || FAILED(registry->Open(1, key)) ||
        FAILED(registry->GetValueString(name, &text)))
        return false;
    value = Take(text);
    registry->Close();
    return true;
}

class Monikers : public ComponentTest {
protected:
    void SetUp() override {
        ComponentTest::SetUp();
        // The runtime's own classes, the hresult binder among them.
        ASSERT_EQ(DllRegisterServer(), S_OK);
        m_recording = InstallComponent(COMPONENT_testdecoder);
        m_plain = InstallComponent(COMPONENT_testplaindecoder);
        ASSERT_TRUE(m_recording && m_plain);
        // Nothing of the runtime may stay alive: the tests count on it.
        COM_ClearErrorInfo();
        ASSERT_EQ(CanUnloadNow(), S_OK);
    }

    // S_OK once every object of the component is released.
    static HRESULT ComponentCanUnloadNow(void* handle) {
        return reinterpret_cast<HRESULT (*)()>(dlsym(handle, "CanUnloadNow"))();
    }

    // The hresult binder, made as the decoding route makes it.
    static MonikerPtr Binder() {
        wchar_t name[] = L"hresult:";
        unsigned long eaten = 0;
        MonikerPtr moniker;
        EXPECT_EQ(COM_MkParseName(name, &eaten, moniker.Out()), S_OK);
        return moniker;
    }

    // Binds `rest` for COM_IDecodeHResult; the output is null on failure.
    static HRESULT Bind(const std::wstring& rest, DecoderPtr& decoder) {
        std::wstring name = rest;
        void* out = kSentinel;
        const HRESULT hr = Binder()->BindToObject(&name[0], COM_IID_IDecodeHResult, &out);
        if (out == kSentinel) {
            ADD_FAILURE() << "output left unwritten for " << rest.substr(0, 40);
            out = nullptr;
        }
        decoder.Attach(static_cast<COM_IDecodeHResult*>(out));
        return hr;
    }

    static std::wstring DecodeWith(DecoderPtr& decoder, int hr) {
        wchar_t* text = nullptr;
        EXPECT_EQ(decoder->DecodeHResult(hr, 0, &text), S_OK);
        return Take(text);
    }

    void* m_recording = nullptr;
    void* m_plain = nullptr;
};

// Without the runtime's own registration nothing binds "hresult:".
using MonikersUnregistered = TempDirTest;

TEST_F(Monikers, NullArgumentsGiveEPointerAndWriteNothing) {
    wchar_t name[] = L"hresult:67";
    unsigned long eaten = kEatenSentinel;
    COM_IMoniker* moniker = kMonikerSentinel;
    EXPECT_EQ(COM_MkParseName(nullptr, &eaten, &moniker), E_POINTER);
    EXPECT_EQ(COM_MkParseName(name, nullptr, &moniker), E_POINTER);
    EXPECT_EQ(COM_MkParseName(name, &eaten, nullptr), E_POINTER);
    EXPECT_EQ(eaten, kEatenSentinel);
    EXPECT_EQ(moniker, kMonikerSentinel);

    void* out = kSentinel;
    wchar_t rest[] = L"67";
    EXPECT_EQ(Binder()->BindToObject(nullptr, COM_IID_IDecodeHResult, &out), E_POINTER);
    EXPECT_EQ(out, kSentinel);
    EXPECT_EQ(Binder()->BindToObject(rest, COM_IID_IDecodeHResult, nullptr), E_POINTER);

    EXPECT_EQ(COM_DecodeHRESULT(0x80670001, 0, nullptr), E_POINTER);
}

TEST_F(Monikers, NamesWithoutABinderGiveClassNotAvailableAndWriteNothing) {
    SetValue(L"Moniker\\garbage", L"", L"not an identifier");
    SetValue(L"Moniker\\braced", L"", L"{53CEC1E2-60FE-45B4-AA3A-E2F091C58E0A}");
    SetValue(L"Moniker\\novalue\\below", L"", TextOf(COM_CLSID_HResultDecoderBinder));
    const std::wstring names[] = {
        L"hresult", L":67", L"", L"nosuch:67", L"HRESULT:67", L"{bad}:67", L"a<b>&c:67",
        L"hresult\\:67", L"\\hresult:67", L"hresult\\\\x:67", std::wstring(6000, L'x') + L":67",
        L"garbage:67", L"braced:67", L"novalue:67",
    };
    for (std::wstring name : names) {
        unsigned long eaten = kEatenSentinel;
        COM_IMoniker* moniker = kMonikerSentinel;
        EXPECT_EQ(COM_MkParseName(&name[0], &eaten, &moniker), CLASS_E_CLASSNOTAVAILABLE)
            << name.substr(0, 40);
        EXPECT_EQ(eaten, kEatenSentinel) << name.substr(0, 40);
        EXPECT_EQ(moniker, kMonikerSentinel) << name.substr(0, 40);
    }
}

TEST_F(Monikers, HresultPrefixGivesTheBinderWithOneReferenceForTheCaller) {
    for (const wchar_t* text : {L"hresult:67", L"hresult:"}) {
        std::wstring name = text;
        unsigned long eaten = kEatenSentinel;
        COM_IMoniker* moniker = nullptr;
        ASSERT_EQ(COM_MkParseName(&name[0], &eaten, &moniker), S_OK) << text;
        ASSERT_NE(moniker, nullptr);
        EXPECT_EQ(eaten, 8u) << "the prefix and its colon";
        EXPECT_EQ(CanUnloadNow(), S_FALSE) << "a living binder locks the runtime";

        void* unknown = kSentinel;
        EXPECT_EQ(moniker->QueryInterface(COM_IID_IUnknown, &unknown), S_OK);
        EXPECT_EQ(unknown, moniker);
        void* registry = kSentinel;
        EXPECT_EQ(moniker->QueryInterface(COM_IID_IRegistry, &registry), E_NOINTERFACE);
        EXPECT_EQ(registry, nullptr);

        EXPECT_EQ(moniker->Release(), 1u) << "the query's reference";
        EXPECT_EQ(moniker->Release(), 0u) << "the caller's reference is the last";
        EXPECT_EQ(CanUnloadNow(), S_OK);
    }
}

TEST_F(Monikers, OnlyTheFirstColonEndsThePrefix) {
    SetValue(L"Moniker\\a", L"", TextOf(COM_CLSID_HResultDecoderBinder));
    wchar_t name[] = L"a:b:c";
    unsigned long eaten = kEatenSentinel;
    MonikerPtr moniker;
    ASSERT_EQ(COM_MkParseName(name, &eaten, moniker.Out()), S_OK);
    EXPECT_EQ(eaten, 2u);
    void* out = kSentinel;
    EXPECT_EQ(moniker->BindToObject(name + eaten, COM_IID_IDecodeHResult, &out),
              CLASS_E_CLASSNOTAVAILABLE)
        << "\"b:c\" names no facility";
    EXPECT_EQ(out, nullptr);
}

TEST_F(Monikers, BinderCreationFailureIsPassedOnWithThePrefixConsumed) {
    SetValue(L"Moniker\\plain", L"", TextOf(CLSID_PlainDecoder));
    SetValue(L"Moniker\\ghost", L"", TextOf(kUnregisteredClass));

    wchar_t noMoniker[] = L"plain:x";
    unsigned long eaten = kEatenSentinel;
    COM_IMoniker* moniker = kMonikerSentinel;
    EXPECT_EQ(COM_MkParseName(noMoniker, &eaten, &moniker), E_NOINTERFACE);
    EXPECT_EQ(eaten, 6u);
    EXPECT_EQ(moniker, nullptr);
    EXPECT_EQ(ComponentCanUnloadNow(m_plain), S_OK);

    wchar_t unregistered[] = L"ghost:x";
    eaten = kEatenSentinel;
    EXPECT_EQ(COM_MkParseName(unregistered, &eaten, &moniker), CLASS_E_CLASSNOTAVAILABLE);
    EXPECT_EQ(eaten, 6u) << "set before the binder is created";
}

TEST_F(Monikers, DataAfterTheFirstBangReachesTheDecoder) {
    struct Case {
        const wchar_t* rest;
        const wchar_t* data;
    };
    for (const Case& c : {Case{L"67!xyz", L"xyz"}, Case{L"67!a!b", L"a!b"}, Case{L"67!", L""},
                          Case{L"67", L""}}) {
        DecoderPtr decoder;
        ASSERT_EQ(Bind(c.rest, decoder), S_OK) << c.rest;
        EXPECT_EQ(DecodeWith(decoder, 0x80670001), Recorded(L"80670001", c.data)) << c.rest;
    }
    // A bang with nothing after it asks nothing of the decoder.
    DecoderPtr plain;
    ASSERT_EQ(Bind(L"68!", plain), S_OK);
    EXPECT_EQ(DecodeWith(plain, 0x80680001), L"plain decoder: code 80680001, flags 0");
}

TEST_F(Monikers, DataTheDecoderCannotTakeFailsTheBindAndReleasesTheDecoder) {
    struct Case {
        const wchar_t* rest;
        HRESULT expected;
        void* component;
    };
    const Case cases[] = {
        {L"68!x", MK_E_EXTENSIONNOTSUPPORTED, m_plain},
        {L"67!" DECODER_DATA_UNSUPPORTED, MK_E_EXTENSIONNOTSUPPORTED, m_recording},
        {L"67!" DECODER_DATA_FAILING, CLASS_E_CLASSNOTAVAILABLE, m_recording},
    };
    for (const Case& c : cases) {
        DecoderPtr decoder;
        EXPECT_EQ(Bind(c.rest, decoder), c.expected) << c.rest;
        EXPECT_TRUE(decoder.IsNull()) << c.rest;
        EXPECT_EQ(ComponentCanUnloadNow(c.component), S_OK) << c.rest;
    }
}

TEST_F(Monikers, FacilitiesWithoutAUsableDecoderGiveClassNotAvailable) {
    SetValue(L"Moniker\\hresult", L"6A", L"not an identifier");
    SetValue(L"Moniker\\hresult", L"6B", L"{5A1E0101-0000-4000-8000-000000000101}");
    SetValue(L"Moniker\\hresult", L"6C", TextOf(kUnregisteredClass));
    const std::wstring rests[] = {
        L"6F", L"1fff", L"", L"!x", L"6A", L"6B", L"6C", std::wstring(6000, L'6'),
    };
    for (const std::wstring& rest : rests) {
        DecoderPtr decoder;
        EXPECT_EQ(Bind(rest, decoder), CLASS_E_CLASSNOTAVAILABLE) << rest.substr(0, 40);
        EXPECT_TRUE(decoder.IsNull()) << rest.substr(0, 40);
    }
}

TEST_F(Monikers, RegistrationNamesTheBinderAsTheDefaultOfMonikerHresult) {
    std::wstring value;
    ASSERT_TRUE(ReadValue(L"Moniker\\hresult", L"", value));
    EXPECT_EQ(value, L"_53CEC1E2-60FE-45b4-AA3A-E2F091C58E0A_");
    ASSERT_TRUE(ReadValue(L"Moniker\\hresult", L"67", value));
    EXPECT_EQ(value, TextOf(CLSID_RecordingDecoder));

    wchar_t* progId = nullptr;
    ASSERT_EQ(COM_GetProgIDFromClsid(COM_CLSID_HResultDecoderBinder, &progId), S_OK);
    EXPECT_EQ(Take(progId), L"ZarvoCOM.Decoder");
}

TEST_F(Monikers, UnregistrationRemovesTheBindingOnlyWithTheLastInstallation) {
    ASSERT_EQ(DllRegisterServer(), S_OK);
    ASSERT_EQ(DllUnregisterServer(), S_OK);
    std::wstring value;
    EXPECT_TRUE(ReadValue(L"Moniker\\hresult", L"", value)) << "another installation remains";
    wchar_t* text = kTextSentinel;
    EXPECT_EQ(COM_DecodeHRESULT(0x80670001, 0, &text), S_OK);
    EXPECT_EQ(Take(text), Recorded(L"80670001", L""));

    ASSERT_EQ(DllUnregisterServer(), S_OK);
    EXPECT_FALSE(ReadValue(L"Moniker\\hresult", L"", value));
    EXPECT_TRUE(ReadValue(L"Moniker\\hresult", L"67", value)) << "the decoders' own values stay";
    text = kTextSentinel;
    EXPECT_EQ(COM_DecodeHRESULT(0x80670001, 0, &text), CLASS_E_CLASSNOTAVAILABLE);
    EXPECT_EQ(text, kTextSentinel);
}

TEST_F(Monikers, DecoderSeesFlagsZeroWhateverTheCallerPassed) {
    for (unsigned int flags : {0u, 1u, 0x80000000u, 0xFFFFFFFFu}) {
        wchar_t* text = kTextSentinel;
        ASSERT_EQ(COM_DecodeHRESULT(0x80670001, flags, &text), S_OK) << flags;
        EXPECT_EQ(Take(text), Recorded(L"80670001", L"")) << flags;
    }
    EXPECT_EQ(ComponentCanUnloadNow(m_recording), S_OK) << "the decoder is released";
    EXPECT_EQ(CanUnloadNow(), S_OK) << "the binder is released";
}

TEST_F(Monikers, HigherFacilitiesAreNamedInUpperCaseHexadecimalWhateverTheSeverity) {
    struct Case {
        int hr;
        std::wstring text;
    };
    const Case cases[] = {
        {static_cast<int>(0x9FFF0002), Recorded(L"9FFF0002", L"")},
        {0x1FFF0003, Recorded(L"1FFF0003", L"")},
        {0x00680001, L"plain decoder: code 00680001, flags 0"},
    };
    for (const Case& c : cases) {
        wchar_t* text = kTextSentinel;
        EXPECT_EQ(COM_DecodeHRESULT(c.hr, 0, &text), S_OK) << std::hex << c.hr;
        EXPECT_EQ(Take(text), c.text);
    }
}

TEST_F(Monikers, SystemFacilityGivesTheSystemTextAloneWithSOk) {
    // A decoder registered for the facility is not asked.
    SetValue(L"Moniker\\hresult", L"62", TextOf(CLSID_RecordingDecoder));
    for (int number : {2, 13}) {
        for (uint32_t severity : {0x80000000u, 0u}) {
            const int hr = static_cast<int>(severity | 0x00620000u | number);
            wchar_t* text = kTextSentinel;
            ASSERT_EQ(COM_DecodeHRESULT(hr, 0, &text), S_OK) << std::hex << hr;
            const std::string system = std::strerror(number);
            EXPECT_EQ(Take(text), std::wstring(system.begin(), system.end())) << std::hex << hr;
        }
    }
    wchar_t* text = kTextSentinel;
    ASSERT_EQ(COM_DecodeHRESULT(static_cast<int>(0x8062FFFF), 0, &text), S_OK);
    EXPECT_EQ(Take(text).find(L'['), std::wstring::npos) << "no bracketed code";
}

TEST_F(Monikers, TableFacilitiesGiveTheTableTextWithSFalse) {
    SetValue(L"Moniker\\hresult", L"63", TextOf(CLSID_RecordingDecoder));
    struct Case {
        uint32_t hr;
        const wchar_t* text;
    };
    const Case cases[] = {
        {0x00000000, L"OK status [       0]"},
        {0x00000001, L"FALSE status [       1]"},
        {0x80004001, L"Method not implemented [80004001]"},
        {0x80040111, L"CoClass not available [80040111]"},
        {0x80630001, L"Unknown error [80630001]"},
    };
    for (const Case& c : cases) {
        wchar_t* text = kTextSentinel;
        EXPECT_EQ(COM_DecodeHRESULT(static_cast<int>(c.hr), 0xFFFFFFFF, &text), S_FALSE)
            << std::hex << c.hr;
        EXPECT_EQ(Take(text), c.text);
    }
}

TEST_F(Monikers, FacilityWithoutDecoderGivesClassNotAvailableAndWritesNoText) {
    for (uint32_t hr : {0x806F0005u, 0x80640001u, 0x00650000u}) {
        wchar_t* text = kTextSentinel;
        EXPECT_EQ(COM_DecodeHRESULT(static_cast<int>(hr), 0, &text), CLASS_E_CLASSNOTAVAILABLE)
            << std::hex << hr;
        EXPECT_EQ(text, kTextSentinel) << std::hex << hr;
    }
}

TEST_F(Monikers, DecoderFailureIsReturnedUnchanged) {
    wchar_t* text = kTextSentinel;
    EXPECT_EQ(COM_DecodeHRESULT(static_cast<int>(0x80670000u | kFailingCodeNumber), 0, &text),
              kDecoderFailure);
    EXPECT_EQ(text, kTextSentinel) << "the decoder wrote nothing";
    EXPECT_EQ(ComponentCanUnloadNow(m_recording), S_OK);
    EXPECT_EQ(CanUnloadNow(), S_OK);
}

TEST_F(MonikersUnregistered, HigherFacilitiesFailWithoutTheBinderRegistered) {
    wchar_t name[] = L"hresult:67";
    unsigned long eaten = kEatenSentinel;
    COM_IMoniker* moniker = kMonikerSentinel;
    EXPECT_EQ(COM_MkParseName(name, &eaten, &moniker), CLASS_E_CLASSNOTAVAILABLE);
    EXPECT_EQ(eaten, kEatenSentinel);
    EXPECT_EQ(moniker, kMonikerSentinel);

    wchar_t* text = kTextSentinel;
    EXPECT_EQ(COM_DecodeHRESULT(static_cast<int>(0x80670001), 0, &text), CLASS_E_CLASSNOTAVAILABLE);
    EXPECT_EQ(text, kTextSentinel);
}

}  // namespace
