// The registry object: hives, values, loading and saving "Registry.XML";
// and the name enumerator it hands out.
#include "regRegistry.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <new>
#include <vector>

#include <xercesc/framework/MemBufInputSource.hpp>
#include <xercesc/util/OutOfMemoryException.hpp>
#include <xercesc/util/PlatformUtils.hpp>
#include <xercesc/util/XMLException.hpp>
#include <xercesc/util/XMLUni.hpp>

#include "core/coreInternal.h"
#include "unix/regErrorHandler.h"

using xercesc::DOMNode;

const char CXMLRegistry::s_rgcDefaultRegistry[] =
    "<?xml version='1.0' encoding='ISO-8859-1' ?><Software><Quorvane><Version>"
    "<ApplicationData/><Classes><CLSID/><ComponentCategories/><Moniker/></Classes>"
    "</Version></Quorvane></Software>";

namespace {

// Root paths of hives 1 to 5.
const XMLCh* const kHiveRoots[] = {
    u"Software\\Quorvane\\Version\\Classes",          // 1: classes root
    u"Software\\Quorvane\\Version\\User",             // 2: user
    u"Software\\Quorvane\\Version\\System",           // 3: system
    u"Software\\Quorvane",                            // 4: the maker root
    u"Software\\Quorvane\\Version\\ApplicationData",  // 5: application data
};
const unsigned int kHiveCount = sizeof kHiveRoots / sizeof kHiveRoots[0];

const XMLCh kString[] = u"string";
const XMLCh kDword[] = u"dword";

// Runs one operation of the interface: a thrown status is its result, and
// nothing else thrown may cross the interface either.
template <class Operation>
HRESULT Guarded(Operation operation) {
    try {
        return operation();
    } catch (int hr) {
        return hr;
    } catch (const std::bad_alloc&) {
        return E_OUTOFMEMORY;
    } catch (const xercesc::OutOfMemoryException&) {
        return E_OUTOFMEMORY;
    } catch (...) {
        return E_UNEXPECTED;
    }
}

std::wstring RegistryFileName() {
    std::wstring name;
    if (const char* directory = std::getenv("COMLIB")) {
        AppendWidened(name, directory);
        name += L'/';
    }
    name += L"Registry.XML";
    return name;
}

bool FileIsMissing(const std::string& path) {
    struct stat info;
    return stat(path.c_str(), &info) != 0 && errno == ENOENT;
}

// strtol reads only ASCII blanks, signs and digits, so the text up to its
// first other character is all it could ever use; no conversion can fail.
std::string LeadingAscii(const RegString& text) {
    std::string out;
    for (XMLCh c : text) {
        if (c >= 0x80) break;
        out.push_back(static_cast<char>(c));
    }
    return out;
}

}  // namespace

CXMLRegistry::CXMLRegistry() : m_pCurrentKey(nullptr) {}

CXMLRegistry::~CXMLRegistry() {
    m_spErrorHandler.Reset();
    m_spParser.Reset();
    xercesc::XMLPlatformUtils::Terminate();
}

HRESULT CXMLRegistry::CreateInstance(const COM_GUID& iid, void** out) {
    static CXMLRegistry* s_pRegistry = nullptr;
    if (s_pRegistry) return s_pRegistry->QueryInterface(iid, out);
    if (!out) return E_POINTER;
    *out = nullptr;

    try {
        xercesc::XMLPlatformUtils::Initialize(xercesc::XMLUni::fgXercescDefaultLocale);
    } catch (const xercesc::XMLException&) {
        return E_FAIL;
    }
    s_pRegistry = new (std::nothrow) CXMLRegistry;
    if (!s_pRegistry) {
        xercesc::XMLPlatformUtils::Terminate();
        return E_OUTOFMEMORY;
    }

    HRESULT hr;
    try {
        hr = s_pRegistry->Initialize(RegistryFileName().c_str());
    } catch (...) {
        // A name that cannot be converted leaves no half-made registry.
        delete s_pRegistry;
        s_pRegistry = nullptr;
        throw;
    }
    if (FAILED(hr)) {
        delete s_pRegistry;
        s_pRegistry = nullptr;
        return hr;
    }
    return s_pRegistry->QueryInterface(iid, out);
}

HRESULT CXMLRegistry::Initialize(const wchar_t* name) {
    if (!name) return E_POINTER;
    m_strFilePath = NarrowWide(name);
    std::string content;
    HRESULT hr = ReadRegistryFile(content);
    if (FAILED(hr)) return hr;
    return Parse(content);
}

HRESULT CXMLRegistry::ReadRegistryFile(std::string& content) const {
    std::ifstream in(m_strFilePath, std::ios::binary);
    if (!in.is_open()) {
        // Only a missing file is made anew; one that is there but cannot be
        // opened is never overwritten.
        if (!FileIsMissing(m_strFilePath)) return E_FAIL;
        HRESULT hr = WriteDefaultRegistry();
        if (FAILED(hr)) return hr;
        in.open(m_strFilePath, std::ios::binary);
        if (!in.is_open()) return E_FAIL;
    }
    std::vector<char> chunk(1 << 16);
    while (in.read(chunk.data(), chunk.size()) || in.gcount() > 0)
        content.append(chunk.data(), in.gcount());
    // A directory opens but cannot be read.
    return in.bad() ? E_FAIL : S_OK;
}

HRESULT CXMLRegistry::WriteDefaultRegistry() const {
    std::ofstream out(m_strFilePath, std::ios::binary | std::ios::trunc);
    if (!out.is_open()) return REGDB_E_WRITEREGDB;
    out.write(s_rgcDefaultRegistry, sizeof s_rgcDefaultRegistry - 1);
    out.close();
    return out.fail() ? REGDB_E_WRITEREGDB : S_OK;
}

HRESULT CXMLRegistry::Parse(const std::string& content) {
    try {
        m_spErrorHandler.Reset(new DOMErrorHandler(m_strFilePath));
        m_spParser.Reset(new xercesc::XercesDOMParser);
        m_spParser->setErrorHandler(m_spErrorHandler.Get());
        xercesc::MemBufInputSource source(reinterpret_cast<const XMLByte*>(content.data()),
                                          content.size(), "REGISTRY", false);
        m_spParser->parse(source);
    } catch (const xercesc::XMLException& e) {
        return REGDB_E_PARSEBASE | e.getCode();
    } catch (const std::bad_alloc&) {
        return E_OUTOFMEMORY;
    } catch (const xercesc::OutOfMemoryException&) {
        return E_OUTOFMEMORY;
    } catch (...) {
        return E_FAIL;
    }
    return Document() ? S_OK : E_FAIL;
}

HRESULT CXMLRegistry::UpdateRegistryOnDisk() {
    // Written in place: no temporary file, so a crash mid-write truncates.
    // The writer hands the stream large pieces, so its own buffer suffices.
    std::ofstream out(m_strFilePath, std::ios::binary | std::ios::trunc);
    if (!out.is_open()) return REGDB_E_WRITEREGDB;
    out << static_cast<const DOMNode*>(Document());
    out.close();
    return S_OK;
}

HRESULT CXMLRegistry::QueryInterface(const COM_GUID& iid, void** out) {
    if (!out) return E_POINTER;
    if (iid == COM_IID_IUnknown || iid == COM_IID_IRegistry) {
        *out = static_cast<COM_IRegistry*>(this);
        AddRef();
        return S_OK;
    }
    *out = nullptr;
    return E_NOINTERFACE;
}

// The object is never freed; its references only hold the module.
unsigned long CXMLRegistry::AddRef() {
    g_theModule.Lock();
    return 1;
}

unsigned long CXMLRegistry::Release() {
    g_theModule.Unlock();
    return 1;
}

HRESULT CXMLRegistry::Open(unsigned int hive, const wchar_t* subkey) {
    return Guarded([&]() -> HRESULT {
        if (hive == 0 || hive > kHiveCount) return E_INVALIDARG;
        m_strCurrentPath = kHiveRoots[hive - 1];
        if (!subkey) return E_INVALIDARG;
        DOMNode* root = nullptr;
        if (!ResolveKey(Document(), m_strCurrentPath.c_str(), &root)) return REGDB_E_KEYMISSING;
        m_pCurrentKey = root;
        return *subkey ? OpenKey(subkey) : S_OK;
    });
}

HRESULT CXMLRegistry::Close() {
    m_pCurrentKey = nullptr;
    return S_OK;
}

HRESULT CXMLRegistry::OpenKey(const wchar_t* path) {
    return Guarded([&]() -> HRESULT {
        if (!path) return E_POINTER;
        if (!m_pCurrentKey) return REGDB_E_KEYMISSING;
        DOMNode* found = nullptr;
        if (!ResolveKey(m_pCurrentKey, EscapeKey(path).c_str(), &found)) return REGDB_E_KEYMISSING;
        m_pCurrentKey = found;
        return S_OK;
    });
}

HRESULT CXMLRegistry::CreateKey(const wchar_t* path, int open) {
    return Guarded([&]() -> HRESULT {
        if (!path) return E_POINTER;
        if (!m_pCurrentKey) return REGDB_E_KEYMISSING;
        const RegString escaped = EscapeKey(path);
        // Refused before anything is made, so that no half-made path stays in
        // the document to be saved with the next change.
        if (!IsCreatablePath(escaped.c_str())) return E_UNEXPECTED;
        DOMNode* last = nullptr;
        if (!::CreateKey(Document(), m_pCurrentKey, escaped.c_str(), &last))
            return REGDB_E_WRITEREGDB;
        if (open == 1) m_pCurrentKey = last;
        return UpdateRegistryOnDisk();
    });
}

HRESULT CXMLRegistry::DeleteKey(const wchar_t* path) {
    return Guarded([&]() -> HRESULT {
        if (!path) return E_POINTER;
        if (!m_pCurrentKey) return REGDB_E_KEYMISSING;
        if (!::DeleteKey(m_pCurrentKey, EscapeKey(path).c_str())) return REGDB_E_WRITEREGDB;
        return UpdateRegistryOnDisk();
    });
}

HRESULT CXMLRegistry::StoreValue(const wchar_t* name, const XMLCh* type, const RegString& data) {
    const RegString escaped = EscapeKey(name);
    // Control characters would make a file that no parser reads back.
    if (!IsStorableText(escaped.c_str()) || !IsStorableText(data.c_str())) return E_INVALIDARG;
    if (!::SetValue(Document(), m_pCurrentKey, escaped.c_str(), type, data.c_str()))
        return REGDB_E_WRITEREGDB;
    return UpdateRegistryOnDisk();
}

HRESULT CXMLRegistry::SetValueString(const wchar_t* name, const wchar_t* value) {
    return Guarded([&]() -> HRESULT {
        if (!name || !value) return E_POINTER;
        if (!m_pCurrentKey) return REGDB_E_KEYMISSING;
        return StoreValue(name, kString, NarrowTo16(value));
    });
}

HRESULT CXMLRegistry::GetValueString(const wchar_t* name, wchar_t** value) {
    return Guarded([&]() -> HRESULT {
        if (!name) return E_POINTER;
        if (!m_pCurrentKey) return REGDB_E_KEYMISSING;
        RegString type, data;
        if (!GetValue(m_pCurrentKey, EscapeKey(name).c_str(), type, data) || type != kString)
            return REGDB_E_INVALIDVALUE;
        // A null value pointer only asks whether the string value exists.
        if (!value) return S_OK;
        wchar_t* text = AllocWidened(data.c_str());
        if (!text) return E_OUTOFMEMORY;
        *value = text;
        return S_OK;
    });
}

HRESULT CXMLRegistry::SetValueDWORD(const wchar_t* name, unsigned int value) {
    return Guarded([&]() -> HRESULT {
        if (!name) return E_POINTER;
        if (!m_pCurrentKey) return REGDB_E_KEYMISSING;
        // Printed as a long, so the full unsigned range stays positive.
        char digits[20];
        std::snprintf(digits, sizeof digits, "%li", static_cast<long>(value));
        return StoreValue(name, kDword, RegString(digits, digits + std::strlen(digits)));
    });
}

HRESULT CXMLRegistry::GetValueDWORD(const wchar_t* name, unsigned int* value) {
    return Guarded([&]() -> HRESULT {
        if (!name || !value) return E_POINTER;
        if (!m_pCurrentKey) return REGDB_E_KEYMISSING;
        RegString type, data;
        if (!GetValue(m_pCurrentKey, EscapeKey(name).c_str(), type, data) || type != kDword)
            return REGDB_E_INVALIDVALUE;
        // Hand-edited text that is no number reads as 0; trailing text is ignored.
        *value = static_cast<unsigned int>(std::strtol(LeadingAscii(data).c_str(), nullptr, 10));
        return S_OK;
    });
}

HRESULT CXMLRegistry::DeleteValue(const wchar_t* name) {
    return Guarded([&]() -> HRESULT {
        if (!name) return E_POINTER;
        if (!m_pCurrentKey) return REGDB_E_KEYMISSING;
        if (!::DeleteValue(Document(), m_pCurrentKey, EscapeKey(name).c_str()))
            return REGDB_E_WRITEREGDB;
        return UpdateRegistryOnDisk();
    });
}

HRESULT CXMLRegistry::Enumerate(int kind, COM_IEnumBSTR** out) {
    return Guarded([&]() -> HRESULT {
        if (!out) return E_POINTER;
        if (!m_pCurrentKey) return REGDB_E_KEYMISSING;
        return CreateEnumerator(m_pCurrentKey, kind, out);
    });
}

HRESULT CXMLRegistry::EnumKeys(COM_IEnumBSTR** out) { return Enumerate(0, out); }

HRESULT CXMLRegistry::EnumValues(COM_IEnumBSTR** out) { return Enumerate(1, out); }

namespace {

void FreeItems(unsigned int count, wchar_t** items) {
    for (unsigned int i = 0; i < count; ++i)
        COM_SysFreeString(items[i]);
    delete[] items;
}

}  // namespace

CRegEnumItems::~CRegEnumItems() { FreeItems(m_nCount, m_rgItems); }

HRESULT CRegEnumItems::CreateInstance(const COM_GUID& iid, void** out, unsigned int count,
                                      wchar_t** items, unsigned int index) {
    CRegEnumItems* object = new (std::nothrow) CRegEnumItems;
    if (!object) {
        FreeItems(count, items);
        if (out) *out = nullptr;
        return E_OUTOFMEMORY;
    }
    object->AddRef();
    object->Initialize(count, items, index);
    HRESULT hr = object->QueryInterface(iid, out);
    object->Release();
    return hr;
}

HRESULT CRegEnumItems::Initialize(unsigned int count, wchar_t** items, unsigned int index) {
    FreeItems(m_nCount, m_rgItems);
    m_nCount = count;
    m_rgItems = items;
    m_nIndex = index;
    return S_OK;
}

HRESULT CRegEnumItems::QueryInterface(const COM_GUID& iid, void** out) {
    if (!out) return E_POINTER;
    if (iid == COM_IID_IUnknown || iid == COM_IID_IEnumBSTR) {
        *out = static_cast<COM_IEnumBSTR*>(this);
        AddRef();
        return S_OK;
    }
    *out = nullptr;
    return E_NOINTERFACE;
}

HRESULT CRegEnumItems::get_Count(unsigned long* count) {
    if (!count) return E_POINTER;
    *count = m_nCount;
    return S_OK;
}

HRESULT CRegEnumItems::get_Index(unsigned long* index) {
    if (!index) return E_POINTER;
    *index = m_nIndex;
    return S_OK;
}

// The codes are the other way round from Next's, and callers test for them:
// S_FALSE when the position was taken, S_OK when it ran to the end.
HRESULT CRegEnumItems::set_Index(unsigned long index) {
    if (index < m_nCount) {
        m_nIndex = static_cast<uint32_t>(index);
        return S_FALSE;
    }
    m_nIndex = m_nCount;
    return S_OK;
}

HRESULT CRegEnumItems::Next(unsigned long celt, wchar_t** out, unsigned long* fetched) {
    if (!out || !fetched) return E_POINTER;
    *fetched = 0;
    while (*fetched < celt && m_nIndex < m_nCount)
        out[(*fetched)++] = COM_SysAllocString(m_rgItems[m_nIndex++]);
    return *fetched == celt ? S_OK : S_FALSE;
}

// No bound: the index may pass the end, and wraps at 32 bits.
HRESULT CRegEnumItems::Skip(unsigned long count) {
    m_nIndex += static_cast<uint32_t>(count);
    return S_OK;
}

HRESULT CRegEnumItems::SkipEnd() {
    m_nIndex = m_nCount;
    return S_OK;
}

HRESULT CRegEnumItems::Reset() {
    m_nIndex = 0;
    return S_OK;
}

HRESULT CRegEnumItems::Clone(COM_IEnumBSTR** out) {
    if (!out) return E_POINTER;
    wchar_t** copy = new (std::nothrow) wchar_t*[m_nCount];
    if (!copy) return E_OUTOFMEMORY;
    for (uint32_t i = 0; i < m_nCount; ++i)
        copy[i] = COM_SysAllocString(m_rgItems[i]);
    // The new enumerator owns the copies whatever becomes of it.
    return CreateInstance(COM_IID_IEnumBSTR, reinterpret_cast<void**>(out), m_nCount, copy,
                          m_nIndex);
}
