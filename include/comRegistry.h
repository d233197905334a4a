// The registry interface and the string enumerator it hands out.
#ifndef VELTCOM_COMREGISTRY_H
#define VELTCOM_COMREGISTRY_H

#include "comUnknown.h"

// Names handed out by Next are system strings the caller frees.
class COM_IEnumBSTR : public COM_IUnknown {
public:
    virtual HRESULT get_Count(unsigned long* count) = 0;
    virtual HRESULT get_Index(unsigned long* index) = 0;
    virtual HRESULT set_Index(unsigned long index) = 0;
    virtual HRESULT Next(unsigned long celt, wchar_t** out, unsigned long* fetched) = 0;
    virtual HRESULT Skip(unsigned long count) = 0;
    virtual HRESULT SkipEnd() = 0;
    virtual HRESULT Reset() = 0;
    virtual HRESULT Clone(COM_IEnumBSTR** out) = 0;
};

// The process's one registry. Call Open(hive, path) first, then OpenKey to
// walk down, then value and key operations, then Close. Hives: 1 classes
// root, 2 user, 3 system, 4 the maker root, 5 application data. Paths are
// key names joined by backslashes; every change is written to disk at once,
// unless the calling thread has a transaction open.
class COM_IRegistry : public COM_IUnknown {
public:
    virtual HRESULT Open(unsigned int hive, const wchar_t* subkey) = 0;
    virtual HRESULT Close() = 0;
    virtual HRESULT OpenKey(const wchar_t* path) = 0;
    // With open == 1 the current key moves to the last key of the path.
    virtual HRESULT CreateKey(const wchar_t* path, int open) = 0;
    virtual HRESULT DeleteKey(const wchar_t* path) = 0;
    // The empty name is the key's default value.
    virtual HRESULT SetValueString(const wchar_t* name, const wchar_t* value) = 0;
    virtual HRESULT GetValueString(const wchar_t* name, wchar_t** value) = 0;
    virtual HRESULT SetValueDWORD(const wchar_t* name, unsigned int value) = 0;
    virtual HRESULT GetValueDWORD(const wchar_t* name, unsigned int* value) = 0;
    virtual HRESULT DeleteValue(const wchar_t* name) = 0;
    virtual HRESULT EnumKeys(COM_IEnumBSTR** out) = 0;
    virtual HRESULT EnumValues(COM_IEnumBSTR** out) = 0;
};

// Reached by QueryInterface from COM_IRegistry. Begin takes the writers'
// lock for the calling thread; until its Commit, that thread's changes go
// into the process's document without being saved, and Commit saves them
// all at once. Abort drops them. A Begin inside an open transaction joins
// it; an Abort inside one makes the outer Commit drop everything and fail.
// Other threads read the open transaction's changes; their own changes wait
// for it to end. Waits are bounded: REGDB_E_WRITEREGDB, and nothing changed,
// when the bound passes. Commit and Abort from a thread with no transaction
// open give E_UNEXPECTED.
class COM_IRegistryTransaction : public COM_IUnknown {
public:
    virtual HRESULT Begin() = 0;
    virtual HRESULT Commit() = 0;
    virtual HRESULT Abort() = 0;
};

#endif
