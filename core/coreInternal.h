// Private declarations that tie the core's source files together.
#ifndef VELTCOM_CORE_INTERNAL_H
#define VELTCOM_CORE_INTERNAL_H

#include <cstddef>
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

    // Reserved for accounting: nothing in the runtime changes them.
    static long s_nAllocs;
    static long s_nFrees;
};

// The current error-information object of the process: one slot, unguarded.
class VELTCOM_API CComErrorInfo {
public:
    static HRESULT CreateErrorInfo(COM_IErrorInfo** out);
    static HRESULT GetErrorInfo(COM_IErrorInfo** out);
    static HRESULT SetErrorInfo(COM_IErrorInfo* info);
    static HRESULT ClearErrorInfo();

    static utlAutoIf<COM_IErrorInfo, &COM_IID_IErrorInfo> s_spIEI;
};

// The error-information object. Counts into the module while it lives.
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

    unsigned long m_cRef = 1;
    wchar_t* m_bstrDescription = nullptr;
    wchar_t* m_bstrLocation = nullptr;
    HRESULT m_hr = S_OK;
    long m_nLine = 0;
    long m_nColumn = 0;
};

// Reads `digits` hexadecimal digits at text[position]. Only the low 8 bits of
// each character are classified, so U+0141 reads as the digit 'A'. On a
// non-digit nothing is changed and the result is false.
template <class T>
bool GetHex(const wchar_t* text, int& position, int digits, T& value) {
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
const char* SystemErrorMessage(int number);

// The system's text for an error number converted to wide characters; where
// the system has none, "Unknown Exception" directly followed by the number.
void AppendSystemErrorText(std::wstring& out, long number);

#endif
