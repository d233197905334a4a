// Component categories: the category manager's two interfaces and their
// enumerators.
#ifndef VELTCOM_COMCATEGORIES_H
#define VELTCOM_COMCATEGORIES_H

#include "comUnknown.h"

// One record handed out by the category enumerator: one block of task
// memory that the caller frees with COM_TaskMemFree.
struct COM_CATEGORYINFO {
    COM_GUID catid;
    wchar_t szDescription[256];
};

class COM_IEnumCATEGORYINFO : public COM_IUnknown {
public:
    virtual HRESULT get_Count(unsigned long* count) = 0;
    virtual HRESULT get_Index(unsigned long* index) = 0;
    virtual HRESULT set_Index(unsigned long index) = 0;
    virtual HRESULT Next(unsigned long celt, COM_CATEGORYINFO** rgelt,
                         unsigned long* pceltFetched) = 0;
    virtual HRESULT Skip(unsigned long count) = 0;
    virtual HRESULT SkipEnd() = 0;
    virtual HRESULT Reset() = 0;
    virtual HRESULT Clone(COM_IEnumCATEGORYINFO** out) = 0;
};

// Each identifier handed out is its own 16-byte block of task memory.
class COM_IEnumCLSID : public COM_IUnknown {
public:
    virtual HRESULT get_Count(unsigned long* count) = 0;
    virtual HRESULT get_Index(unsigned long* index) = 0;
    virtual HRESULT set_Index(unsigned long index) = 0;
    virtual HRESULT Next(unsigned long celt, COM_GUID** rgelt, unsigned long* pceltFetched) = 0;
    virtual HRESULT Skip(unsigned long count) = 0;
    virtual HRESULT SkipEnd() = 0;
    virtual HRESULT Reset() = 0;
    virtual HRESULT Clone(COM_IEnumCLSID** out) = 0;
};

class COM_ICatInformation : public COM_IUnknown {
public:
    virtual HRESULT EnumCategories(COM_IEnumCATEGORYINFO** ppenum) = 0;
    virtual HRESULT EnumClassesOfCategory(const COM_GUID& catid, COM_IEnumCLSID** ppenum) = 0;
    virtual HRESULT GetCategoryDescription(const COM_GUID& catid, wchar_t** description) = 0;
};

// The category comes first, the class second, in both membership operations.
class COM_ICatRegister : public COM_IUnknown {
public:
    virtual HRESULT RegisterCategory(const COM_GUID& catid, const wchar_t* description) = 0;
    virtual HRESULT RegisterClassInCategory(const COM_GUID& catid, const COM_GUID& clsid) = 0;
    virtual HRESULT UnRegisterCategory(const COM_GUID& catid) = 0;
    virtual HRESULT UnRegisterClassInCategory(const COM_GUID& catid, const COM_GUID& clsid) = 0;
    virtual HRESULT EnumCategories(COM_IEnumCATEGORYINFO** ppenum) = 0;
    virtual HRESULT EnumClassesOfCategory(const COM_GUID& catid, COM_IEnumCLSID** ppenum) = 0;
    virtual HRESULT GetCategoryDescription(const COM_GUID& catid, wchar_t** description) = 0;
};

#endif
