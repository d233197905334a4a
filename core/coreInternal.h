// Private declarations that tie the activation layer together: the object
// map, class lookup and loading, monikers and the shared services.
#ifndef VELTCOM_CORE_INTERNAL_H
#define VELTCOM_CORE_INTERNAL_H

#include <condition_variable>
#include <map>
#include <mutex>
#include <string>
#include <thread>

#include "baseInternal.h"

// Activation: the built-in object map first, then the component libraries
// loaded earlier, then the registry and dlopen.
class VELTCOM_API CComClassFactory {
public:
    static HRESULT CreateInstance(const COM_GUID& clsid, COM_IUnknown* outer, const COM_GUID& iid,
                                  void** out);
    static HRESULT GetClassFactory(const COM_GUID& clsid, void** factory);
    static HRESULT StaticGetClassObject(const COM_GUID& clsid, const COM_GUID& iid, void** out);
    static HRESULT GetCLSIDFromProgID(wchar_t* progId, COM_GUID* clsid);
    static HRESULT GetValueFromClsid(const COM_GUID& clsid, const wchar_t* name, wchar_t** value);
    static HRESULT GetProgIDFromClsid(const COM_GUID& clsid, wchar_t** value);
    static HRESULT GetDisplayNameFromClsid(const COM_GUID& clsid, wchar_t** value);
    static HRESULT GetDescriptionFromClsid(const COM_GUID& clsid, wchar_t** value);
    static HRESULT FreeUnusedLibraries();
    // Creates the binder registered under Moniker\<prefix> for the prefix
    // before the first colon of `name`.
    static HRESULT MkParseName(wchar_t* name, unsigned long* eaten, COM_IMoniker** moniker);
};

// Opens a component library as activation does: by its base name from the
// working directory, refused when another user could have written it, with
// no lock of the runtime held. Null when it cannot be opened, with error
// information at `location` saying why.
void* OpenComponentLibrary(const std::string& name, const wchar_t* location);

// The binder of "hresult:" names: creates the decoder registered for a
// facility under Moniker\hresult.
class CHResultDecoderBinder : public COM_IMoniker,
                              public COM_CComObjectRoot,
                              public COM_CComCoClass<CHResultDecoderBinder,
                                                     &COM_CLSID_HResultDecoderBinder> {
public:
    // Besides the class entries, names this class as the default value of
    // Moniker\hresult.
    static HRESULT UpdateRegistry(int reg);

    COM_IMPLEMENT_REFCOUNT()
    HRESULT QueryInterface(const COM_GUID& iid, void** out) override;
    HRESULT BindToObject(wchar_t* name, const COM_GUID& iid, void** out) override;
};

// The runtime's own classes.
extern const COM_OBJMAP_ENTRY s_com_object_mapZarvoCOM[];

// The shared services of COM_GetService: one object per service identifier
// and number, made through activation on first request and kept, with one
// reference, until the process ends. Any thread may ask: while one thread
// makes a service, others asking for it wait for that object instead of
// making a second one. No lock is held while a component runs.
class CServiceCollection {
public:
    CServiceCollection() = default;
    CServiceCollection(const CServiceCollection&) = delete;
    CServiceCollection& operator=(const CServiceCollection&) = delete;
    ~CServiceCollection();

    HRESULT GetService(const COM_GUID& guidService, unsigned int context, const COM_GUID& riid,
                       void** ppv);
    // 1 with a new reference in *out when the key is present, else 0 with
    // *out untouched.
    int Get(std::wstring& key, COM_IUnknown** out);
    // 0 when the key is present already (nothing changes), else 1 with a
    // reference of the collection's own on `object`.
    int Add(std::wstring& key, COM_IUnknown* object);

private:
    class CMakingClaim;

    // Waits while another thread makes the service under `key`. Then gives
    // the kept object (the collection's reference stays its own), or null
    // with `claimed` telling whether this thread is now the one to make it:
    // false when it was making it already and asks again from inside.
    COM_IUnknown* FindOrClaim(const std::wstring& key, bool& claimed);
    // Ends this thread's claim on `key` and wakes the threads waiting for it.
    void EndClaim(const std::wstring& key);

    std::mutex m_mutex;
    std::condition_variable m_claimEnded;
    std::map<std::wstring, utlAutoIf<COM_IUnknown, &COM_IID_IUnknown>> m_services;
    // Keys whose service is being made, with the thread that makes it.
    std::map<std::wstring, std::thread::id> m_making;
};

// Made once, by the first COM_GetService of any thread; never destroyed.
extern CServiceCollection* g_pServiceCollection;
// The collection, made on first use by whichever thread comes first; null
// when it could not be made.
CServiceCollection* TheServiceCollection();

#endif
