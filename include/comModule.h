// Modules, class factories and the object map. Every module (the runtime and
// each component library) has one module object, g_theModule, and one static
// object map that binds each of its class identifiers to the class's factory
// and registration functions. The same table serves GetClassObject,
// self-registration and CanUnloadNow.
//
// A component library declares its classes and map, then defines its module:
//
//     class CWidget : public IWidget, public COM_CComObjectRoot,
//                     public COM_CComCoClass<CWidget, &CLSID_Widget> {
//     public:
//         COM_DECLARE_REGISTRY(L"Sample.Widget", L"Widget", nullptr)
//         COM_IMPLEMENT_REFCOUNT()
//         HRESULT QueryInterface(const COM_GUID& iid, void** out) override;
//         ...
//     };
//     COM_BEGIN_OBJECT_MAP(s_objectMap)
//         COM_OBJECT_ENTRY(CLSID_Widget, CWidget)
//     COM_END_OBJECT_MAP()
//     COM_DEFINE_MODULE(s_objectMap, "libwidget.so")
//
// and is built with hidden visibility, so that only the four entry points
// leave it.
#ifndef VELTCOM_COMMODULE_H
#define VELTCOM_COMMODULE_H

#include <atomic>
#include <new>

#include "comApi.h"
#include "comBase.h"
#include "comUnknown.h"

// Symbols that must stay inside the module that defines them.
#define VELTCOM_LOCAL __attribute__((visibility("hidden")))

// One row of a module's object map; the map ends with a row whose class
// identifier pointer is null.
struct COM_OBJMAP_ENTRY {
    const COM_GUID* pclsid;
    COM_IClassFactory* pFactory;
    HRESULT (*pfnUpdateRegistry)(int reg);
    // Null-terminated list of the class's category identifiers, or null.
    const COM_GUID* const* (*pfnGetCategoryMap)();
};

class VELTCOM_API COM_CComModule {
public:
    // moduleName is the library's file name, written as InprocServer32 of
    // every class the module registers; the runtime loads it by that name.
    constexpr COM_CComModule(const COM_OBJMAP_ENTRY* objectMap, const char* moduleName)
        : m_nLockCnt(0), m_pObjectMap(objectMap), m_pszModuleName(moduleName) {}

    // Objects take one lock while their reference count is above zero; a
    // reference to a class factory is a lock too. Any thread may take and
    // give back locks.
    int Lock() { return m_nLockCnt.fetch_add(1, std::memory_order_relaxed) + 1; }
    int Unlock() { return m_nLockCnt.fetch_sub(1, std::memory_order_acq_rel) - 1; }
    int GetLockCount() const { return m_nLockCnt.load(std::memory_order_acquire); }
    HRESULT CanUnloadNow() const { return GetLockCount() == 0 ? S_OK : S_FALSE; }

    const COM_OBJMAP_ENTRY* GetObjectMap() const { return m_pObjectMap; }

    // The factory of a class of this module's map, for `iid`; an unknown
    // class gives CLASS_E_CLASSNOTAVAILABLE and leaves `out` alone.
    HRESULT GetClassObject(const COM_GUID& clsid, const COM_GUID& iid, void** out);

    HRESULT GetModuleName(wchar_t** name);
    HRESULT GetModulePath(wchar_t** path);

    // Registers (non-zero) or unregisters (0) every class of the map and its
    // category memberships. Any failure makes the result S_FALSE.
    HRESULT RegisterServer(int reg);

    // Writes or removes one class's registry entries, counting installations:
    // the entries go only when the last installation is removed (S_FALSE
    // while others remain). monikerValueNames is a comma-separated list of
    // value names written under Moniker\<monikerName>.
    HRESULT UpdateRegistryClass(const COM_GUID& clsid, const wchar_t* progId, unsigned int flags,
                                int reg, const wchar_t* displayName,
                                const wchar_t* description, const wchar_t* monikerName,
                                const wchar_t* monikerValueNames);

private:
    // Components built against this header share the module object's
    // layout: the atomic count must stay a plain 32-bit integer in memory.
    static_assert(sizeof(std::atomic<int>) == sizeof(int) && std::atomic<int>::is_always_lock_free,
                  "the lock count keeps the layout of an int");
    std::atomic<int> m_nLockCnt;
    const COM_OBJMAP_ENTRY* m_pObjectMap;
    const char* m_pszModuleName;
};

// Each module defines its own. It is hidden whatever the module's build
// flags say, so that under RTLD_GLOBAL a component never binds to another
// module's object of the same name.
extern COM_CComModule g_theModule VELTCOM_LOCAL;

// Reference counting for classes of a module: the count starts at 0 and
// holds one module lock while above 0. Counts are atomic, so any thread may
// add and drop references; the release that reaches 0 sees every write other
// threads made to the object before their own releases.
class COM_CComObjectRoot {
public:
    unsigned long InternalAddRef() {
        const unsigned long before = m_cRef.fetch_add(1, std::memory_order_relaxed);
        if (before == 0) g_theModule.Lock();
        return before + 1;
    }
    unsigned long InternalRelease() {
        const unsigned long after = m_cRef.fetch_sub(1, std::memory_order_acq_rel) - 1;
        if (after == 0) g_theModule.Unlock();
        return after;
    }

protected:
    std::atomic<unsigned long> m_cRef{0};
};

// AddRef and Release of a class derived from COM_CComObjectRoot.
#define COM_IMPLEMENT_REFCOUNT()                                   \
    unsigned long AddRef() override { return InternalAddRef(); }   \
    unsigned long Release() override {                             \
        unsigned long count = InternalRelease();                   \
        if (count == 0) delete this;                               \
        return count;                                              \
    }

// The one static factory object of a class T. It has no count of its own:
// a reference to it is a lock on the module, and it is never deleted.
template <class T>
class COM_CClassFactory : public COM_IClassFactory {
public:
    constexpr COM_CClassFactory() {}
    HRESULT QueryInterface(const COM_GUID& iid, void** out) override {
        if (!out) return E_POINTER;
        if (iid == COM_IID_IUnknown || iid == COM_IID_IClassFactory) {
            *out = static_cast<COM_IClassFactory*>(this);
            AddRef();
            return S_OK;
        }
        *out = nullptr;
        return E_NOINTERFACE;
    }
    unsigned long AddRef() override {
        g_theModule.Lock();
        return 1;
    }
    unsigned long Release() override {
        g_theModule.Unlock();
        return 1;
    }
    HRESULT CreateInstance(const COM_GUID& iid, void** out) override {
        return T::CreateInstance(iid, out);
    }
};

// A class's default creation: a new T, holding one reference while it is
// asked for `iid`; when the query fails the object goes again at once.
template <class T>
HRESULT COM_CreateNewObject(const COM_GUID& iid, void** out) {
    if (!out) return E_POINTER;
    T* object = new (std::nothrow) T;
    if (!object) {
        *out = nullptr;
        return E_OUTOFMEMORY;
    }
    object->AddRef();
    const HRESULT hr = object->QueryInterface(iid, out);
    object->Release();
    return hr;
}

// Binds class T to its class identifier and supplies its factory, its
// default creation and an empty category map. A class may hide any of them
// with a static member of its own.
template <class T, const COM_GUID* pclsid>
class COM_CComCoClass {
public:
    static const COM_GUID& GetObjectCLSID() { return *pclsid; }
    static const COM_GUID* const* GetCategoryMap() { return nullptr; }

    static HRESULT CreateInstance(const COM_GUID& iid, void** out) {
        return COM_CreateNewObject<T>(iid, out);
    }

    static COM_CClassFactory<T> _theClassFactory;
};

template <class T, const COM_GUID* pclsid>
COM_CClassFactory<T> COM_CComCoClass<T, pclsid>::_theClassFactory;

// The registration function of a class: its entries, with a ProgID and an
// optional display name and description (null for none).
#define COM_DECLARE_REGISTRY(progId, displayName, description)                         \
    static HRESULT UpdateRegistry(int reg) {                                          \
        return g_theModule.UpdateRegistryClass(GetObjectCLSID(), progId, 0, reg,      \
                                               displayName, description, nullptr,     \
                                               nullptr);                              \
    }

#define COM_BEGIN_OBJECT_MAP(name) static const COM_OBJMAP_ENTRY name[] = {
#define COM_OBJECT_ENTRY(clsid, T) \
    {&clsid, &T::_theClassFactory, &T::UpdateRegistry, &T::GetCategoryMap},
#define COM_END_OBJECT_MAP() \
    { nullptr, nullptr, nullptr, nullptr } \
    }                                      \
    ;

// Defines the module object and the four entry points a component library
// exports.
#define COM_DEFINE_MODULE(objectMap, moduleName)                                       \
    COM_CComModule g_theModule(objectMap, moduleName);                                 \
    extern "C" HRESULT GetClassObject(const COM_GUID& clsid, const COM_GUID& iid,      \
                                      void** out) {                                    \
        return g_theModule.GetClassObject(clsid, iid, out);                            \
    }                                                                                  \
    extern "C" HRESULT CanUnloadNow() { return g_theModule.CanUnloadNow(); }           \
    extern "C" HRESULT DllRegisterServer() { return g_theModule.RegisterServer(1); }   \
    extern "C" HRESULT DllUnregisterServer() { return g_theModule.RegisterServer(0); }

#endif
