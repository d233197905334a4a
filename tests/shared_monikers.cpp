// Moniker display names, the hresult binder and status decoding, as an
// application sees them through the shared library, with real decoder
// components registered under Moniker\hresult.
#include <gtest/gtest.h>

#include <cstdint>
#include <tuple>
#include <utility>
#include <vector>

#include "decoderComponents.h"
#include "testSupport.h"

namespace {

using MonikerPtr = utlAutoIf<COM_IMoniker, &COM_IID_IMoniker>;
using DecoderPtr = utlAutoIf<COM_IDecodeHResult, &COM_IID_IDecodeHResult>;
using Result = std::pair<HRESULT, std::wstring>;

const unsigned long kUnwrittenCount = 0xdeadbeef;
const std::wstring kNoText = Take(Unwritten<wchar_t>());
const HRESULT kNone = CLASS_E_CLASSNOTAVAILABLE;

std::wstring Recorded(const wchar_t* code, const wchar_t* data = L"") {
    return std::wstring(L"recording decoder: code ") + code + L", flags 0, data <" + data + L">";
}

// Sets a string value below hive 1, creating the key.
void SetValue(const wchar_t* key, const wchar_t* name, const std::wstring& value) {
    RegistryPtr registry = Registry();
    ASSERT_EQ(registry->Open(1, L""), S_OK);
    ASSERT_EQ(registry->CreateKey(key, 1), S_OK);
    ASSERT_EQ(registry->SetValueString(name, value.c_str()), S_OK);
}

// A string value of Moniker\hresult, or the failing status.
Result HresultValue(const wchar_t* name) {
    RegistryPtr registry = Registry();
    wchar_t* text = Unwritten<wchar_t>();
    HRESULT hr = registry->Open(1, L"Moniker\\hresult");
    if (SUCCEEDED(hr)) hr = registry->GetValueString(name, &text);
    return {hr, Take(text)};
}

// The decoding result and text.
Result Decode(uint32_t hr, unsigned int flags = 0) {
    wchar_t* text = Unwritten<wchar_t>();
    const HRESULT result = COM_DecodeHRESULT(static_cast<int>(hr), flags, &text);
    return {result, Take(text)};
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

    void* m_recording = nullptr;
    void* m_plain = nullptr;
};

// Null arguments give E_POINTER and write nothing.
TEST_F(Monikers, PrefixUpToTheFirstColonIsEatenOnceFoundAndItsBinderHasOneReference) {
    wchar_t hresult[] = L"hresult:67";
    unsigned long eaten = kUnwrittenCount;
    COM_IMoniker* moniker = Unwritten<COM_IMoniker>();
    EXPECT_EQ(COM_MkParseName(nullptr, &eaten, &moniker), E_POINTER);
    EXPECT_EQ(COM_MkParseName(hresult, nullptr, &moniker), E_POINTER);
    EXPECT_EQ(COM_MkParseName(hresult, &eaten, nullptr), E_POINTER);
    EXPECT_EQ(COM_DecodeHRESULT(0x80670001, 0, nullptr), E_POINTER);
    EXPECT_TRUE(eaten == kUnwrittenCount && moniker == Unwritten<COM_IMoniker>());

    SetValue(L"Moniker\\plain", L"", TextOf(CLSID_PlainDecoder));
    SetValue(L"Moniker\\ghost", L"", TextOf(COM_GUID_NULL));
    SetValue(L"Moniker\\garbage", L"", L"not an identifier");
    SetValue(L"Moniker\\braced", L"", L"{53CEC1E2-60FE-45B4-AA3A-E2F091C58E0A}");
    SetValue(L"Moniker\\novalue\\below", L"", TextOf(COM_CLSID_HResultDecoderBinder));
    // The binder's row comes first, before failures leave error information
    // that holds the runtime. A found prefix is eaten even when its binder
    // cannot be made; names that find no binder leave both outputs alone
    // (those of the registry without these keys: the fuzz target's seeds).
    std::vector<std::tuple<std::wstring, HRESULT, unsigned long>> cases = {
        {L"hresult:b:c", S_OK, 8}, {L"plain:x", E_NOINTERFACE, 6}, {L"ghost:x", kNone, 6},
        {std::wstring(6000, L'x') + L":67", kNone, kUnwrittenCount}};
    for (const wchar_t* name : {L"garbage:67", L"braced:67", L"novalue:67"})
        cases.emplace_back(name, kNone, kUnwrittenCount);
    for (auto [name, expected, expectedEaten] : cases) {
        unsigned long eaten = kUnwrittenCount;
        COM_IMoniker* moniker = Unwritten<COM_IMoniker>();
        EXPECT_EQ(COM_MkParseName(&name[0], &eaten, &moniker), expected) << name.substr(0, 40);
        EXPECT_EQ(eaten, expectedEaten) << name.substr(0, 40);
        EXPECT_TRUE(expectedEaten != kUnwrittenCount || moniker == Unwritten<COM_IMoniker>());
        if (FAILED(expected)) continue;
        EXPECT_EQ(CanUnloadNow(), S_FALSE) << "a living binder locks the runtime";
        EXPECT_EQ(moniker->Release(), 0u) << "the caller's reference is the only one";
        EXPECT_EQ(CanUnloadNow(), S_OK);
    }
    EXPECT_EQ(CallEntry(m_plain, "CanUnloadNow"), S_OK) << "the refused object is released";
}

TEST_F(Monikers, BindingFindsTheFacilitysDecoderAndHandsItTheDataAfterTheFirstBang) {
    SetValue(L"Moniker\\hresult", L"6A", L"not an identifier");
    SetValue(L"Moniker\\hresult", L"6B", L"{5A1E0101-0000-4000-8000-000000000101}");
    SetValue(L"Moniker\\hresult", L"6C", TextOf(COM_GUID_NULL));
    const std::pair<std::wstring, Result> cases[] = {
        {L"67!a!b", {S_OK, Recorded(L"80670001", L"a!b")}},
        {L"67", {S_OK, Recorded(L"80670001")}},
        // Nothing after the bang asks nothing of the decoder.
        {L"68!", {S_OK, L"plain decoder: code 80670001, flags 0"}},
        {L"68!x", {MK_E_EXTENSIONNOTSUPPORTED, L""}},
        {L"67!" DECODER_DATA_UNSUPPORTED, {MK_E_EXTENSIONNOTSUPPORTED, L""}},
        {L"67!" DECODER_DATA_FAILING, {kNone, L""}},
        // Value names are matched as written; the rest are registered above.
        {L"1fff", {kNone, L""}}, {L"6A", {kNone, L""}}, {L"6B", {kNone, L""}},
        {L"6C", {kNone, L""}}, {std::wstring(6000, L'6'), {kNone, L""}}};
    wchar_t prefix[] = L"hresult:";
    unsigned long eaten = 0;
    MonikerPtr binder;
    ASSERT_EQ(COM_MkParseName(prefix, &eaten, binder.Out()), S_OK);
    EXPECT_EQ(binder->BindToObject(nullptr, COM_IID_IDecodeHResult, nullptr), E_POINTER);
    for (auto [rest, expected] : cases) {
        void* out = Unwritten<void>();
        const HRESULT hr = binder->BindToObject(&rest[0], COM_IID_IDecodeHResult, &out);
        ASSERT_EQ(out == nullptr, FAILED(hr)) << rest.substr(0, 40);
        DecoderPtr decoder;
        decoder.Attach(static_cast<COM_IDecodeHResult*>(out));
        wchar_t* text = nullptr;
        EXPECT_TRUE(!out || decoder->DecodeHResult(static_cast<int>(0x80670001), 0, &text) == S_OK);
        EXPECT_EQ(Result(hr, Take(text)), expected) << rest.substr(0, 40);
    }
    // Decoders refused for their data are released.
    EXPECT_EQ(CallEntry(m_plain, "CanUnloadNow"), S_OK);
    EXPECT_EQ(CallEntry(m_recording, "CanUnloadNow"), S_OK);
}

TEST_F(Monikers, UnregistrationRemovesTheBindingOnlyWithTheLastInstallation) {
    const Result binding(S_OK, L"_53CEC1E2-60FE-45b4-AA3A-E2F091C58E0A_");
    EXPECT_EQ(HresultValue(L""), binding);

    // Registered twice: the first unregistration answers S_FALSE.
    ASSERT_EQ(DllRegisterServer(), S_OK);
    ASSERT_EQ(DllUnregisterServer(), S_OK);
    EXPECT_EQ(HresultValue(L""), binding);
    ASSERT_EQ(DllUnregisterServer(), S_OK);
    EXPECT_TRUE(FAILED(HresultValue(L"").first));
    EXPECT_EQ(HresultValue(L"67").second, TextOf(CLSID_RecordingDecoder)) << "decoders' stay";
    // A decoder's own values go with its class.
    ASSERT_EQ(CallEntry(m_recording, "DllUnregisterServer"), S_OK);
    EXPECT_EQ(HresultValue(L"67").first, REGDB_E_INVALIDVALUE);
    EXPECT_EQ(HresultValue(L"1FFF").first, REGDB_E_INVALIDVALUE);
}

// Facilities from 100 on go to the decoder named for them in upper-case hex,
// which sees flags 0; lower ones are decoded without asking a decoder, even
// one registered for them (their other codes: the fuzz target's seeds).
TEST_F(Monikers, HigherFacilitiesGoToTheDecoderNamedInUpperCaseHexWhichSeesFlagsZero) {
    SetValue(L"Moniker\\hresult", L"62", TextOf(CLSID_RecordingDecoder));
    SetValue(L"Moniker\\hresult", L"63", TextOf(CLSID_RecordingDecoder));
    const std::pair<uint32_t, Result> cases[] = {
        // Facility 98: the system's text alone; 99: the table's.
        {0x80620002, {S_OK, SystemText(2)}},
        {0x80630001, {S_FALSE, L"Unknown error [80630001]"}},
        {0x80670001, {S_OK, Recorded(L"80670001")}},
        {0x9FFF0002, {S_OK, Recorded(L"9FFF0002")}},
        {0x1FFF0003, {S_OK, Recorded(L"1FFF0003")}},
        // No decoder for the facility, or one that fails: nothing is written.
        {0x80640001, {kNone, kNoText}}, {0x00650000, {kNone, kNoText}},
        {0x80670000 | kFailingCodeNumber, {kDecoderFailure, kNoText}}};
    for (const auto& [hr, expected] : cases) {
        for (unsigned int flags : {0u, 1u, 0x80000000u, 0xFFFFFFFFu})
            EXPECT_EQ(Decode(hr, flags), expected) << std::hex << hr << " " << flags;
    }
    EXPECT_EQ(CallEntry(m_recording, "CanUnloadNow"), S_OK) << "the decoder is released";
    EXPECT_EQ(CanUnloadNow(), S_OK) << "the binder is released";
}

}  // namespace
