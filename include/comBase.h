// Identifiers, status codes and the export convention shared by the runtime
// and every component built against it.
#ifndef VELTCOM_COMBASE_H
#define VELTCOM_COMBASE_H

#include <cstdint>
#include <cstring>

// Symbols the runtime exports. Everything else in libveltcom.so is hidden, and
// components are built the same way, so that a component's own symbols never
// bind to the runtime's symbols of the same name.
#define VELTCOM_API __attribute__((visibility("default")))

typedef int HRESULT;

#define SUCCEEDED(hr) (static_cast<HRESULT>(hr) >= 0)
#define FAILED(hr) (static_cast<HRESULT>(hr) < 0)

#define S_OK static_cast<HRESULT>(0x00000000)
#define S_FALSE static_cast<HRESULT>(0x00000001)
#define E_NOTIMPL static_cast<HRESULT>(0x80004001)
#define E_NOINTERFACE static_cast<HRESULT>(0x80004002)
#define E_POINTER static_cast<HRESULT>(0x80004003)
#define E_FAIL static_cast<HRESULT>(0x80004005)
#define E_UNEXPECTED static_cast<HRESULT>(0x8000FFFF)
#define E_OUTOFMEMORY static_cast<HRESULT>(0x8007000E)
#define E_INVALIDARG static_cast<HRESULT>(0x80070057)
#define CLASS_E_CLASSNOTAVAILABLE static_cast<HRESULT>(0x80040111)
#define REGDB_E_WRITEREGDB static_cast<HRESULT>(0x80040151)
#define REGDB_E_KEYMISSING static_cast<HRESULT>(0x80040152)
#define REGDB_E_INVALIDVALUE static_cast<HRESULT>(0x80040153)
#define CO_E_DLLNOTFOUND static_cast<HRESULT>(0x800401F8)
#define CO_E_ERRORINDLL static_cast<HRESULT>(0x800401F9)
// A moniker extension that the binder does not support.
#define MK_E_EXTENSIONNOTSUPPORTED static_cast<HRESULT>(0x80680004)
// The registry file could not be parsed; or-ed with the XML parser's own code.
#define REGDB_E_PARSEBASE static_cast<HRESULT>(0x806D0000)

// 16-byte identifier of classes, interfaces and categories.
typedef struct _COM_GUID {
    uint32_t Data1;
    uint16_t Data2;
    uint16_t Data3;
    unsigned char Data4[8];
} COM_GUID;

static_assert(sizeof(COM_GUID) == 16, "COM_GUID is a 16-byte binary contract");

// Identifiers are equal when all 16 bytes are; compared as two 64-bit halves.
inline bool operator==(const COM_GUID& a, const COM_GUID& b) {
    uint64_t x[2];
    uint64_t y[2];
    std::memcpy(x, &a, sizeof x);
    std::memcpy(y, &b, sizeof y);
    return x[0] == y[0] && x[1] == y[1];
}

inline bool operator!=(const COM_GUID& a, const COM_GUID& b) { return !(a == b); }

extern "C" {
VELTCOM_API extern const COM_GUID COM_GUID_NULL;

VELTCOM_API extern const COM_GUID COM_IID_IUnknown;
VELTCOM_API extern const COM_GUID COM_IID_IClassFactory;
VELTCOM_API extern const COM_GUID COM_IID_IErrorInfo;
VELTCOM_API extern const COM_GUID COM_IID_ICreateErrorInfo;
VELTCOM_API extern const COM_GUID COM_IID_IRegistry;
VELTCOM_API extern const COM_GUID COM_IID_IRegistryTransaction;
VELTCOM_API extern const COM_GUID COM_IID_IEnumBSTR;
VELTCOM_API extern const COM_GUID COM_IID_IMemory;
VELTCOM_API extern const COM_GUID COM_IID_ICatRegister;
VELTCOM_API extern const COM_GUID COM_IID_ICatInformation;
VELTCOM_API extern const COM_GUID COM_IID_IEnumCATEGORYINFO;
VELTCOM_API extern const COM_GUID COM_IID_IEnumCLSID;
VELTCOM_API extern const COM_GUID COM_IID_IMoniker;
VELTCOM_API extern const COM_GUID COM_IID_IMonikerData;
VELTCOM_API extern const COM_GUID COM_IID_IDecodeHResult;

VELTCOM_API extern const COM_GUID COM_CLSID_Registry;
VELTCOM_API extern const COM_GUID COM_CLSID_CategoryManager;
VELTCOM_API extern const COM_GUID COM_CLSID_Memory;
VELTCOM_API extern const COM_GUID COM_CLSID_HResultDecoderBinder;

VELTCOM_API extern const COM_GUID COM_CATID_UrlHandlers;
VELTCOM_API extern const COM_GUID COM_CATID_ServiceInfoProviders;
VELTCOM_API extern const COM_GUID COM_CATID_ResourceProviders;
VELTCOM_API extern const COM_GUID COM_CATID_LanguageParsers;
}

#endif
