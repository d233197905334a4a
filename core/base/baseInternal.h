// Private declarations of the runtime's bottom layer: system strings, task
// memory, identifier text, error information, status texts and text
// conversion. Every other layer of the library may use them.
#ifndef VELTCOM_CORE_BASE_INTERNAL_H
#define VELTCOM_CORE_BASE_INTERNAL_H

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <string>

#include "veltcom.h"

// System strings, task memory and identifier text. Each flat function of the
// same name forwards here unchanged.
class VELTCOM_API CComPlatformUtils {
public:
    static wchar_t* COM_SysAllocString(const wchar_t* text);
    static wchar_t* COM_SysAllocStringLen(const wchar_t* text, unsigned long count);
    static wchar_t* COM_SysAllocStringByteLen(const unsigned char* bytes, unsigned long count);
    static int COM_SysReAllocString(wchar_t** target, const wchar_t* text);
    static int COM_SysReAllocStringLen(wchar_t** target, const wchar_t* text, unsigned long count);
    static int COM_SysFreeString(wchar_t* s);
    static unsigned long COM_SysStringLen(wchar_t* s);
    static unsigned int COM_SysStringByteLen(wchar_t* s);

    static int COM_TaskMemAlloc(unsigned long size, void** out);
    static int COM_TaskMemFree(void* p);
    static HRESULT COM_GetSysStats(long* allocs, long* frees);
    static HRESULT COM_ResetSysStats();

    static HRESULT COM_CLSIDToString(const COM_GUID& id, wchar_t** text);
    static HRESULT COM_StringToCLSID(const wchar_t* text, COM_GUID* id);
    static HRESULT COM_GenerateCLSID(COM_GUID* id);

    // The text of a status code by facility: the system's for 98, the
    // built-in table's up to 99 (S_FALSE), a registered decoder's from 100.
    static HRESULT COM_DecodeHRESULT(int hr, unsigned int flags, wchar_t** text);

    // Reserved for accounting: nothing in the runtime changes them.
    static long s_nAllocs;
    static long s_nFrees;
};

// Owns one system string.
class CAutoBstr {
public:
    CAutoBstr() = default;
    CAutoBstr(const CAutoBstr&) = delete;
    CAutoBstr& operator=(const CAutoBstr&) = delete;
    ~CAutoBstr() { COM_SysFreeString(m_p); }

    // Output slot for a call that hands out a new string.
    wchar_t** Out() {
        COM_SysFreeString(m_p);
        m_p = nullptr;
        return &m_p;
    }
    wchar_t* Get() const { return m_p; }
    unsigned long Length() const { return COM_SysStringLen(m_p); }

private:
    wchar_t* m_p = nullptr;
};

// The current error-information object: one slot for the whole process,
// shared by all its threads, so one thread's error can replace another's
// before it is read. The slot itself is guarded.
class VELTCOM_API CComErrorInfo {
public:
    static HRESULT CreateErrorInfo(COM_IErrorInfo** out);
    static HRESULT GetErrorInfo(COM_IErrorInfo** out);
    static HRESULT SetErrorInfo(COM_IErrorInfo* info);
    static HRESULT ClearErrorInfo();

    static utlAutoIf<COM_IErrorInfo, &COM_IID_IErrorInfo> s_spIEI;

private:
    // Puts `info` (a reference the caller owns, or null) in the slot and
    // hands back the reference it held, to be released outside the lock.
    static COM_IErrorInfo* Exchange(COM_IErrorInfo* info);
};

// The error-information object. Counts into the module while it lives. Its
// fields are guarded, so threads that read the current error may share it
// with one that still fills it in.
class CErrorInfo : public COM_IErrorInfo {
public:
    static HRESULT CreateInstance(const COM_GUID& iid, void** out);

    HRESULT QueryInterface(const COM_GUID& iid, void** out) override;
    unsigned long AddRef() override;
    unsigned long Release() override;

    HRESULT SetDescription(wchar_t* text) override;
    HRESULT SetLocation(wchar_t* text) override;
    HRESULT SetLineInfo(long line, long column) override;
    HRESULT SetHRESULT(int code) override;
    HRESULT GetDescription(wchar_t** out) override;
    HRESULT GetLocation(wchar_t** out) override;
    HRESULT GetLineInfo(long* line, long* column) override;
    HRESULT GetHRESULT(int* out) override;

private:
    CErrorInfo();
    ~CErrorInfo() override;

    // Replaces *field by a copy of `text`; a null or empty text changes
    // nothing.
    void StoreText(wchar_t*& field, const wchar_t* text);
    // A new system string copying *field, for the caller.
    wchar_t* CopyText(wchar_t* const& field);

    std::atomic<unsigned long> m_cRef{1};
    wchar_t* m_bstrDescription = nullptr;
    wchar_t* m_bstrLocation = nullptr;
    HRESULT m_hr = S_OK;
    long m_nLine = 0;
    long m_nColumn = 0;
    std::mutex m_mutex;
};

// Reads `digits` hexadecimal digits at text[position]. Only the low 8 bits of
// each character are classified, so U+0141 reads as the digit 'A'. On a
// non-digit nothing is changed and the result is false.
template <class Char, class T>
bool GetHex(const Char* text, int& position, int digits, T& value) {
    uint32_t accumulator = 0;
    for (int i = 0; i < digits; ++i) {
        unsigned char c = static_cast<unsigned char>(text[position + i] & 0xFF);
        uint32_t digit;
        if (c >= '0' && c <= '9')
            digit = c - '0';
        else if (c >= 'A' && c <= 'F')
            digit = c - 'A' + 10;
        else if (c >= 'a' && c <= 'f')
            digit = c - 'a' + 10;
        else
            return false;
        accumulator = (accumulator << 4) + digit;
    }
    if (digits > 0) position += digits;
    value = static_cast<T>(accumulator);
    return true;
}

// The characters of an identifier's text form, without the terminator.
const size_t kClassIdLength = 38;

// Writes the identifier's text form, "_XXXXXXXX-XXXX-xxxx-XXXX-XXXXXXXXXXXX_"
// (the third group in lower case, the others in upper case), and a
// terminator. Its characters are ASCII, the same in every locale, so any
// character type takes them as they are.
template <class Char>
void FormatClassId(const COM_GUID& id, Char (&out)[kClassIdLength + 1]) {
    static const char kUpper[] = "0123456789ABCDEF";
    static const char kLower[] = "0123456789abcdef";
    Char* next = out;
    auto hex = [&next](uint32_t value, int digits, const char* set) {
        for (int shift = (digits - 1) * 4; shift >= 0; shift -= 4)
            *next++ = static_cast<Char>(set[(value >> shift) & 0xF]);
    };
    *next++ = '_';
    hex(id.Data1, 8, kUpper);
    *next++ = '-';
    hex(id.Data2, 4, kUpper);
    *next++ = '-';
    hex(id.Data3, 4, kLower);
    *next++ = '-';
    for (int i = 0; i < 8; ++i) {
        if (i == 2) *next++ = '-';
        hex(id.Data4[i], 2, kUpper);
    }
    *next++ = '_';
    *next = 0;
}

// Reads an identifier's text form, either case, into `id`; E_INVALIDARG, with
// `id` untouched, for text of any other form. Characters after the closing
// underscore are not examined.
template <class Char>
HRESULT ParseClassId(const Char* text, COM_GUID& id) {
    COM_GUID result;
    int pos = 0;
    if (text[pos++] != '_') return E_INVALIDARG;
    if (!GetHex(text, pos, 8, result.Data1)) return E_INVALIDARG;
    if (text[pos++] != '-' || !GetHex(text, pos, 4, result.Data2)) return E_INVALIDARG;
    if (text[pos++] != '-' || !GetHex(text, pos, 4, result.Data3)) return E_INVALIDARG;
    if (text[pos++] != '-') return E_INVALIDARG;
    for (int i = 0; i < 8; ++i) {
        if (i == 2 && text[pos++] != '-') return E_INVALIDARG;
        if (!GetHex(text, pos, 2, result.Data4[i])) return E_INVALIDARG;
    }
    if (text[pos] != '_') return E_INVALIDARG;
    id = result;
    return S_OK;
}

// Converts at most `count` bytes of multibyte text of the current locale,
// stopping at a zero byte, into `out`, which has room for `count` characters.
// Returns the number of characters stored; an invalid sequence throws
// std::bad_alloc.
size_t WidenMultibyte(const char* text, size_t count, wchar_t* out);

// Appends text of the current locale to `out`, converted as above.
void AppendWidened(std::wstring& out, const char* text);

// Converts a wide string to the multibyte form of the current locale; a
// character the locale cannot express throws std::bad_alloc.
std::string NarrowWide(const wchar_t* text);

// The system's text for an error number, or null where the system has none.
// The text stays valid until the same thread asks again.
const char* SystemErrorMessage(int number);

// The system's text for an error number converted to wide characters; where
// the system has none, "Unknown Exception" directly followed by the number.
void AppendSystemErrorText(std::wstring& out, long number);

// The text of a status code the runtime decodes itself: the system's for
// facility 98, the built-in table's for any other (S_FALSE: the table's
// generic text).
HRESULT DecodeBuiltInHRESULT(int hr, wchar_t** text);

// Whether the runtime itself decodes the codes of this code's facility.
bool IsBuiltInFacility(int hr);

#endif
