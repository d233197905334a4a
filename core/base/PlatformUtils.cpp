// System strings, task memory, identifier text and text conversion.
#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <new>

#include "baseInternal.h"

long CComPlatformUtils::s_nAllocs = 0;
long CComPlatformUtils::s_nFrees = 0;

namespace {

// The length prefix stands in the 8 bytes before the first character.
const size_t kPrefixSize = sizeof(uint64_t);

// Block sizes are computed in 32-bit signed arithmetic; anything larger than
// that is refused rather than allocated at a wrong size.
const unsigned long kMaxBlock = INT32_MAX;

// Prefix and terminator.
const unsigned long kOverhead = kPrefixSize + sizeof(wchar_t);

unsigned char* BlockOf(const wchar_t* s) {
    return reinterpret_cast<unsigned char*>(const_cast<wchar_t*>(s)) - kPrefixSize;
}

uint64_t PrefixOf(const wchar_t* s) {
    uint64_t prefix;
    std::memcpy(&prefix, BlockOf(s), kPrefixSize);
    return prefix;
}

// Allocates prefix + payload + terminator, stores `byteLength` in the prefix
// and returns the payload; null when the block is too large or malloc fails.
unsigned char* AllocBlock(unsigned long payload, uint64_t byteLength) {
    if (payload > kMaxBlock - kOverhead) return nullptr;
    unsigned char* block = static_cast<unsigned char*>(std::malloc(payload + kOverhead));
    if (!block) return nullptr;
    std::memcpy(block, &byteLength, kPrefixSize);
    return block + kPrefixSize;
}

}  // namespace

wchar_t* CComPlatformUtils::COM_SysAllocString(const wchar_t* text) {
    if (!text) return nullptr;
    return COM_SysAllocStringLen(text, std::wcslen(text));
}

wchar_t* CComPlatformUtils::COM_SysAllocStringLen(const wchar_t* text, unsigned long count) {
    // One test for every count whose block does not fit.
    if (count > (kMaxBlock - kOverhead) / sizeof(wchar_t)) return nullptr;
    const unsigned long bytes = count * sizeof(wchar_t);
    unsigned char* payload = AllocBlock(bytes, bytes);
    if (!payload) return nullptr;
    wchar_t* s = reinterpret_cast<wchar_t*>(payload);
    // The terminator goes first, so that the copy is the last step and
    // nothing has to outlive it.
    s[count] = L'\0';
    if (!text) return s;
    return static_cast<wchar_t*>(std::memcpy(s, text, bytes));
}

wchar_t* CComPlatformUtils::COM_SysAllocStringByteLen(const unsigned char* bytes,
                                                      unsigned long count) {
    if (count > kMaxBlock) return nullptr;
    const unsigned long rounded = (count + 3) & ~3UL;
    unsigned char* payload = AllocBlock(rounded, count);
    if (!payload) return nullptr;
    if (bytes) std::memcpy(payload, bytes, count);
    // A single zero byte at the rounded end; the padding before it and the
    // three bytes after it are left as they are.
    payload[rounded] = 0;
    return reinterpret_cast<wchar_t*>(payload);
}

int CComPlatformUtils::COM_SysReAllocStringLen(wchar_t** target, const wchar_t* text,
                                               unsigned long count) {
    // An empty request fails by design.
    if (!text || count == 0 || !target) return 0;
    wchar_t* fresh = COM_SysAllocStringLen(text, count);
    if (!fresh) return 0;
    wchar_t* old = *target;
    *target = fresh;
    COM_SysFreeString(old);
    return 1;
}

int CComPlatformUtils::COM_SysReAllocString(wchar_t** target, const wchar_t* text) {
    if (!text || !target) return 0;
    return COM_SysReAllocStringLen(target, text, std::wcslen(text));
}

int CComPlatformUtils::COM_SysFreeString(wchar_t* s) {
    if (s) std::free(BlockOf(s));
    return 1;
}

unsigned long CComPlatformUtils::COM_SysStringLen(wchar_t* s) {
    return s ? PrefixOf(s) / sizeof(wchar_t) : 0;
}

unsigned int CComPlatformUtils::COM_SysStringByteLen(wchar_t* s) {
    return s ? static_cast<unsigned int>(PrefixOf(s)) : 0;
}

int CComPlatformUtils::COM_TaskMemAlloc(unsigned long size, void** out) {
    if (!out) return 1;
    *out = std::malloc(size);
    return *out ? 0 : 1;
}

int CComPlatformUtils::COM_TaskMemFree(void* p) {
    std::free(p);
    return 0;
}

HRESULT CComPlatformUtils::COM_GetSysStats(long* allocs, long* frees) {
    if (allocs) *allocs = s_nAllocs;
    if (frees) *frees = s_nFrees;
    return S_OK;
}

HRESULT CComPlatformUtils::COM_ResetSysStats() {
    s_nAllocs = 0;
    s_nFrees = 0;
    return S_OK;
}

HRESULT CComPlatformUtils::COM_CLSIDToString(const COM_GUID& id, wchar_t** text) {
    if (!text) return E_POINTER;
    wchar_t wide[kClassIdLength + 1];
    FormatClassId(id, wide);
    *text = COM_SysAllocStringLen(wide, kClassIdLength);
    return *text ? S_OK : E_OUTOFMEMORY;
}

HRESULT CComPlatformUtils::COM_StringToCLSID(const wchar_t* text, COM_GUID* id) {
    if (!id || !text) return E_POINTER;
    return ParseClassId(text, *id);
}

HRESULT CComPlatformUtils::COM_GenerateCLSID(COM_GUID*) {
    // Components are given fixed identifiers at build time.
    return E_NOTIMPL;
}

// The conversion state is the caller's own: the hidden state of mbtowc and
// wctomb would be shared by every thread.
size_t WidenMultibyte(const char* text, size_t count, wchar_t* out) {
    std::mbstate_t state{};
    size_t written = 0;
    size_t used = 0;
    while (used < count) {
        const size_t n = std::mbrtowc(&out[written], text + used, count - used, &state);
        // An invalid sequence, or one cut off by the end of the bytes.
        if (n == static_cast<size_t>(-1) || n == static_cast<size_t>(-2)) throw std::bad_alloc();
        if (n == 0) break;
        used += n;
        ++written;
    }
    return written;
}

namespace {

// Every locale the C library offers reads ASCII as ASCII: such text, the
// usual path or message, needs no conversion call per character.
bool IsAscii(const char* text, size_t length) {
    for (size_t i = 0; i < length; ++i) {
        if (static_cast<unsigned char>(text[i]) >= 0x80) return false;
    }
    return true;
}

}  // namespace

void AppendWidened(std::wstring& out, const char* text) {
    const size_t length = std::strlen(text);
    const size_t start = out.size();
    out.resize(start + length);
    if (IsAscii(text, length)) {
        std::copy(text, text + length, &out[start]);
        return;
    }
    out.resize(start + WidenMultibyte(text, length, &out[start]));
}

std::string NarrowWide(const wchar_t* text) {
    std::string out;
    char buffer[MB_LEN_MAX];
    std::mbstate_t state{};
    for (; *text; ++text) {
        if (*text > 0 && *text < 0x80) {
            out.push_back(static_cast<char>(*text));
            continue;
        }
        const size_t n = std::wcrtomb(buffer, *text, &state);
        if (n == static_cast<size_t>(-1)) throw std::bad_alloc();
        out.append(buffer, n);
    }
    return out;
}

const char* SystemErrorMessage(int number) {
    // The system always answers, with a made-up text for unknown numbers; the
    // number has a text of its own only when the system knows its name. The
    // text is strerror's; strerror_r gives it without strerror's buffer,
    // which every thread shares.
    if (!strerrorname_np(number)) return nullptr;
    thread_local char buffer[256];
    return strerror_r(number, buffer, sizeof buffer);
}

void AppendSystemErrorText(std::wstring& out, long number) {
    if (const char* message = SystemErrorMessage(static_cast<int>(number))) {
        AppendWidened(out, message);
        return;
    }
    char digits[32];
    std::snprintf(digits, sizeof digits, "%li", number);
    out += L"Unknown Exception";
    AppendWidened(out, digits);
}

std::wstring a2wStr(const char* text, unsigned long count, int) {
    std::unique_ptr<wchar_t[]> buffer(new wchar_t[count]());
    WidenMultibyte(text, count, buffer.get());
    return std::wstring(buffer.get(), count);
}

namespace {

// The operating system's error numbers, rendered by the system itself.
const unsigned kFacilitySystemErrors = 98;
// Up to here the built-in table knows the facilities; above, components do.
const unsigned kLastTableFacility = 99;

unsigned FacilityOf(int hr) { return (static_cast<uint32_t>(hr) >> 16) & 0x1FFF; }

// Hands `content` to the caller as a new system string.
HRESULT StoreText(const std::wstring& content, wchar_t** text, HRESULT result) {
    *text = COM_SysAllocStringLen(content.data(), content.size());
    return *text ? result : E_OUTOFMEMORY;
}

// The built-in table's text. S_FALSE tells the caller that the text is the
// library's generic one.
HRESULT StoreTableText(int hr, wchar_t** text) {
    return StoreText(COM_HRESULT_Expansion(hr), text, S_FALSE);
}

// The system's own text for the error number in the low 16 bits, without
// the bracketed code the table would add. A text the locale cannot convert
// raises std::bad_alloc, leaving `text` unwritten.
HRESULT StoreSystemText(int hr, wchar_t** text) {
    std::wstring message;
    AppendSystemErrorText(message, hr & 0xFFFF);
    return StoreText(message, text, S_OK);
}

}  // namespace

bool IsBuiltInFacility(int hr) { return FacilityOf(hr) <= kLastTableFacility; }

HRESULT DecodeBuiltInHRESULT(int hr, wchar_t** text) {
    return FacilityOf(hr) == kFacilitySystemErrors ? StoreSystemText(hr, text)
                                                   : StoreTableText(hr, text);
}
