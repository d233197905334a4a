// The runtime's exported flat functions.
#ifndef VELTCOM_COMAPI_H
#define VELTCOM_COMAPI_H

#include <string>

#include "comBase.h"
#include "comUnknown.h"

class COM_IMoniker;

extern "C" {

// Nothing needs initialising: both do nothing and return S_OK.
VELTCOM_API HRESULT COM_Initialize();
VELTCOM_API HRESULT COM_Uninitialize();

// Activation. The outer object is ignored: aggregation is not supported.
VELTCOM_API HRESULT COM_CreateInstance(const COM_GUID& clsid, COM_IUnknown* outer,
                                       const COM_GUID& iid, void** out);
VELTCOM_API HRESULT COM_GetClassFactory(const COM_GUID& clsid, void** factory);
VELTCOM_API HRESULT COM_GetCLSIDFromProgID(wchar_t* progId, COM_GUID* clsid);
VELTCOM_API HRESULT COM_GetProgIDFromClsid(const COM_GUID& clsid, wchar_t** progId);
VELTCOM_API HRESULT COM_GetDisplayNameFromClsid(const COM_GUID& clsid, wchar_t** name);
VELTCOM_API HRESULT COM_GetDescriptionFromClsid(const COM_GUID& clsid, wchar_t** description);
VELTCOM_API HRESULT COM_MkParseName(wchar_t* name, unsigned long* eaten, COM_IMoniker** moniker);

// The process-wide current error.
VELTCOM_API HRESULT COM_CreateErrorInfo(COM_IErrorInfo** out);
VELTCOM_API HRESULT COM_GetErrorInfo(COM_IErrorInfo** out);
VELTCOM_API HRESULT COM_SetErrorInfo(COM_IErrorInfo* info);
VELTCOM_API HRESULT COM_ClearErrorInfo();

VELTCOM_API HRESULT COM_DecodeHRESULT(int hr, unsigned int flags, wchar_t** text);
VELTCOM_API HRESULT COM_GetService(const COM_GUID& guidService, unsigned int context,
                                   const COM_GUID& riid, void** ppv);

// System strings: a length prefix of 8 bytes stands before the characters and
// a zero wchar_t after them. Null is a valid string of length 0.
VELTCOM_API wchar_t* COM_SysAllocString(const wchar_t* text);
VELTCOM_API wchar_t* COM_SysAllocStringLen(const wchar_t* text, unsigned long count);
VELTCOM_API wchar_t* COM_SysAllocStringByteLen(const unsigned char* bytes, unsigned long count);
VELTCOM_API int COM_SysReAllocString(wchar_t** target, const wchar_t* text);
VELTCOM_API int COM_SysReAllocStringLen(wchar_t** target, const wchar_t* text, unsigned long count);
VELTCOM_API int COM_SysFreeString(wchar_t* s);
VELTCOM_API unsigned long COM_SysStringLen(wchar_t* s);
VELTCOM_API unsigned int COM_SysStringByteLen(wchar_t* s);

// Task memory: 0 on success, 1 on failure (not an HRESULT).
VELTCOM_API int COM_TaskMemAlloc(unsigned long size, void** out);
VELTCOM_API int COM_TaskMemFree(void* p);
VELTCOM_API HRESULT COM_GetSysStats(long* allocs, long* frees);
VELTCOM_API HRESULT COM_ResetSysStats();

// Identifier text form: _XXXXXXXX-XXXX-xxxx-XXXX-XXXXXXXXXXXX_
VELTCOM_API HRESULT COM_CLSIDToString(const COM_GUID& id, wchar_t** text);
VELTCOM_API HRESULT COM_StringToCLSID(const wchar_t* text, COM_GUID* id);
VELTCOM_API HRESULT COM_GenerateCLSID(COM_GUID* id);

// Entry points that every component library exports, the runtime included.
VELTCOM_API HRESULT GetClassObject(const COM_GUID& clsid, const COM_GUID& iid, void** out);
VELTCOM_API HRESULT CanUnloadNow();
VELTCOM_API HRESULT DllRegisterServer();
VELTCOM_API HRESULT DllUnregisterServer();
}

// Accepted for callers that expect it; the handler is neither stored nor called.
VELTCOM_API void COM_RegisterExitHandler(void (*handler)(), int);

// The built-in text of a status code: a message, a blank and the code in
// hexadecimal, blank-padded to 8 digits, between square brackets.
VELTCOM_API std::wstring COM_HRESULT_Expansion(int hr);

#endif
