// The exported flat functions: each forwards unchanged to the static member
// that implements it.
#include "coreInternal.h"

extern "C" {

HRESULT COM_Initialize() { return S_OK; }
HRESULT COM_Uninitialize() { return S_OK; }

HRESULT COM_CreateErrorInfo(COM_IErrorInfo** out) { return CComErrorInfo::CreateErrorInfo(out); }
HRESULT COM_GetErrorInfo(COM_IErrorInfo** out) { return CComErrorInfo::GetErrorInfo(out); }
HRESULT COM_SetErrorInfo(COM_IErrorInfo* info) { return CComErrorInfo::SetErrorInfo(info); }
HRESULT COM_ClearErrorInfo() { return CComErrorInfo::ClearErrorInfo(); }

wchar_t* COM_SysAllocString(const wchar_t* text) {
    return CComPlatformUtils::COM_SysAllocString(text);
}
wchar_t* COM_SysAllocStringLen(const wchar_t* text, unsigned long count) {
    return CComPlatformUtils::COM_SysAllocStringLen(text, count);
}
wchar_t* COM_SysAllocStringByteLen(const unsigned char* bytes, unsigned long count) {
    return CComPlatformUtils::COM_SysAllocStringByteLen(bytes, count);
}
int COM_SysReAllocString(wchar_t** target, const wchar_t* text) {
    return CComPlatformUtils::COM_SysReAllocString(target, text);
}
int COM_SysReAllocStringLen(wchar_t** target, const wchar_t* text, unsigned long count) {
    return CComPlatformUtils::COM_SysReAllocStringLen(target, text, count);
}
int COM_SysFreeString(wchar_t* s) { return CComPlatformUtils::COM_SysFreeString(s); }
unsigned long COM_SysStringLen(wchar_t* s) { return CComPlatformUtils::COM_SysStringLen(s); }
unsigned int COM_SysStringByteLen(wchar_t* s) { return CComPlatformUtils::COM_SysStringByteLen(s); }

int COM_TaskMemAlloc(unsigned long size, void** out) {
    return CComPlatformUtils::COM_TaskMemAlloc(size, out);
}
int COM_TaskMemFree(void* p) { return CComPlatformUtils::COM_TaskMemFree(p); }
HRESULT COM_GetSysStats(long* allocs, long* frees) {
    return CComPlatformUtils::COM_GetSysStats(allocs, frees);
}
HRESULT COM_ResetSysStats() { return CComPlatformUtils::COM_ResetSysStats(); }

HRESULT COM_CLSIDToString(const COM_GUID& id, wchar_t** text) {
    return CComPlatformUtils::COM_CLSIDToString(id, text);
}
HRESULT COM_StringToCLSID(const wchar_t* text, COM_GUID* id) {
    return CComPlatformUtils::COM_StringToCLSID(text, id);
}
HRESULT COM_GenerateCLSID(COM_GUID* id) { return CComPlatformUtils::COM_GenerateCLSID(id); }
}

void COM_RegisterExitHandler(void (*)(), int) {}
