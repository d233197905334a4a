// Private declarations of the category manager and its two enumerators.
#ifndef VELTCOM_CATEGORIES_INTERNAL_H
#define VELTCOM_CATEGORIES_INTERNAL_H

#include <atomic>
#include <memory>

#include "veltcom.h"

// Opens hive 1 and walks down to ComponentCategories and, when `catKey` is
// given, to that category. A failing step throws its status.
void OpenCategories(COM_IRegistry* registry, const wchar_t* catKey);

using CatRegistryPtr = utlAutoIf<COM_IRegistry, &COM_IID_IRegistry>;

// Declares categories and membership. It keeps nothing in memory: every
// operation opens the shared registry, does its one change or read and
// closes it again. Its count is atomic: services hand one manager to many
// threads.
class CCatMgr : public COM_ICatRegister,
                public COM_ICatInformation,
                public COM_CComCoClass<CCatMgr, &COM_CLSID_CategoryManager> {
public:
    // Never hands out an object whose registry could not be created.
    static HRESULT CreateInstance(const COM_GUID& riid, void** ppv);
    COM_DECLARE_REGISTRY(L"ZarvoCategoryManager", nullptr, nullptr)

    HRESULT Initialize();

    HRESULT QueryInterface(const COM_GUID& riid, void** ppv) override;
    unsigned long AddRef() override;
    unsigned long Release() override;

    HRESULT RegisterCategory(const COM_GUID& catid, const wchar_t* description) override;
    HRESULT RegisterClassInCategory(const COM_GUID& catid, const COM_GUID& clsid) override;
    HRESULT UnRegisterCategory(const COM_GUID& catid) override;
    HRESULT UnRegisterClassInCategory(const COM_GUID& catid, const COM_GUID& clsid) override;
    // Shared by both interfaces.
    HRESULT EnumCategories(COM_IEnumCATEGORYINFO** ppenum) override;
    HRESULT EnumClassesOfCategory(const COM_GUID& catid, COM_IEnumCLSID** ppenum) override;
    HRESULT GetCategoryDescription(const COM_GUID& catid, wchar_t** description) override;

private:
    CCatMgr();
    ~CCatMgr() override;
    CCatMgr(const CCatMgr&) = delete;
    CCatMgr& operator=(const CCatMgr&) = delete;

    std::atomic<unsigned long> m_cRef{1};
    CatRegistryPtr m_spRegistry;
};

// The key names an enumerator steps through. A clone shares them with its
// source, so the strings go once, with the last enumerator that uses them.
using CatNameList = std::shared_ptr<const CVecBstr>;

// Cursor and lifetime shared by both enumerators. The count is atomic; the
// cursor belongs to one thread at a time. Derived supplies
// FillElement(name, element), which throws a failing status as an int.
template <class Derived, class Interface, const COM_GUID* piid, class Element>
class CCatEnumBase : public Interface {
public:
    HRESULT QueryInterface(const COM_GUID& riid, void** ppv) override;
    unsigned long AddRef() override;
    unsigned long Release() override;

    HRESULT get_Count(unsigned long* count) override;
    HRESULT get_Index(unsigned long* index) override;
    HRESULT set_Index(unsigned long index) override;
    HRESULT Next(unsigned long celt, Element** rgelt, unsigned long* pceltFetched) override;
    HRESULT Skip(unsigned long count) override;
    HRESULT SkipEnd() override;
    HRESULT Reset() override;
    HRESULT Clone(Interface** out) override;

protected:
    CCatEnumBase();
    // A clone starts without references of its own.
    CCatEnumBase(const CCatEnumBase& source);
    ~CCatEnumBase() override;
    CCatEnumBase& operator=(const CCatEnumBase&) = delete;

    // Makes the object, initialises it with `args` and asks it for `riid`;
    // an object that fails to initialise is destroyed.
    template <class... Args>
    static HRESULT Create(const COM_GUID& riid, void** ppv, Args&&... args);

    // Takes the snapshot of the current key's sub-key names.
    HRESULT ReadNames();
    unsigned long NameCount() const { return static_cast<unsigned long>(m_spNames->size()); }

    std::atomic<unsigned long> m_cRef{1};
    CatNameList m_spNames;
    unsigned long m_nIndex = 0;
    CatRegistryPtr m_spRegistry;
};

// All categories with their descriptions. Each record handed out is 1040
// bytes of task memory; the description is read when the record is made.
class CCatEnumerator
    : public CCatEnumBase<CCatEnumerator, COM_IEnumCATEGORYINFO, &COM_IID_IEnumCATEGORYINFO,
                          COM_CATEGORYINFO> {
public:
    static HRESULT CreateInstance(const COM_GUID& riid, void** ppv, COM_IRegistry* registry);
    virtual HRESULT Initialize(COM_IRegistry* registry);

private:
    friend class CCatEnumBase;
    CCatEnumerator() = default;
    CCatEnumerator(const CCatEnumerator&) = default;
    void FillElement(const wchar_t* name, COM_CATEGORYINFO* info);
};

// The member classes of one category, each handed out as 16 bytes of task
// memory.
class CClsidEnumerator
    : public CCatEnumBase<CClsidEnumerator, COM_IEnumCLSID, &COM_IID_IEnumCLSID, COM_GUID> {
public:
    static HRESULT CreateInstance(const COM_GUID& riid, void** ppv, const COM_GUID& catid,
                                  COM_IRegistry* registry);
    virtual HRESULT Initialize(const COM_GUID& catid, COM_IRegistry* registry);

private:
    friend class CCatEnumBase;
    CClsidEnumerator() = default;
    CClsidEnumerator(const CClsidEnumerator&) = default;
    void FillElement(const wchar_t* name, COM_GUID* clsid);

    COM_GUID m_catid = COM_GUID_NULL;
};

#endif
