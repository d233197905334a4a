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
HRESULT COM_DecodeHRESULT(int hr, unsigned int flags, wchar_t** text) {
    return CComPlatformUtils::COM_DecodeHRESULT(hr, flags, text);
}
}

void COM_RegisterExitHandler(void (*)(), int) {}

extern "C" {

HRESULT COM_CreateInstance(const COM_GUID& clsid, COM_IUnknown* outer, const COM_GUID& iid,
                           void** out) {
    return CComClassFactory::CreateInstance(clsid, outer, iid, out);
}
HRESULT COM_GetClassFactory(const COM_GUID& clsid, void** factory) {
    return CComClassFactory::GetClassFactory(clsid, factory);
}
HRESULT COM_GetCLSIDFromProgID(wchar_t* progId, COM_GUID* clsid) {
    return CComClassFactory::GetCLSIDFromProgID(progId, clsid);
}
HRESULT COM_GetProgIDFromClsid(const COM_GUID& clsid, wchar_t** progId) {
    return CComClassFactory::GetProgIDFromClsid(clsid, progId);
}
HRESULT COM_GetDisplayNameFromClsid(const COM_GUID& clsid, wchar_t** name) {
    return CComClassFactory::GetDisplayNameFromClsid(clsid, name);
}
HRESULT COM_GetDescriptionFromClsid(const COM_GUID& clsid, wchar_t** description) {
    return CComClassFactory::GetDescriptionFromClsid(clsid, description);
}
HRESULT COM_MkParseName(wchar_t* name, unsigned long* eaten, COM_IMoniker** moniker) {
    return CComClassFactory::MkParseName(name, eaten, moniker);
}

HRESULT COM_GetService(const COM_GUID& guidService, unsigned int context, const COM_GUID& riid,
                       void** ppv) {
    CServiceCollection* services = TheServiceCollection();
    if (!services) return E_OUTOFMEMORY;
    return services->GetService(guidService, context, riid, ppv);
}

HRESULT GetClassObject(const COM_GUID& clsid, const COM_GUID& iid, void** out) {
    return CComClassFactory::StaticGetClassObject(clsid, iid, out);
}
HRESULT CanUnloadNow() { return g_theModule.CanUnloadNow(); }
HRESULT DllRegisterServer() { return g_theModule.RegisterServer(1); }
HRESULT DllUnregisterServer() { return g_theModule.RegisterServer(0); }
}
