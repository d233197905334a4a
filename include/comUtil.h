// Small helpers shared by the runtime and components: the status exception,
// the interface smart pointer, the owning pointer, the string vector and the
// narrow-to-wide conversion.
#ifndef VELTCOM_COMUTIL_H
#define VELTCOM_COMUTIL_H

#include <memory>
#include <string>
#include <vector>

#include "comApi.h"
#include "comUnknown.h"

// Holds a status; storing a failing (negative) one throws the bare int, which
// the function that makes the calls catches and returns as its HRESULT:
//     try { COM_HRESULT_EXCEPTION hr = a(); hr = b(); return hr; }
//     catch (int hr) { return hr; }
class COM_HRESULT_EXCEPTION {
public:
    COM_HRESULT_EXCEPTION(int hr = S_OK) : m_hr(hr) { ThrowIfFailed(); }
    COM_HRESULT_EXCEPTION& operator=(int hr) {
        m_hr = hr;
        ThrowIfFailed();
        return *this;
    }
    operator HRESULT() const { return m_hr; }

private:
    void ThrowIfFailed() const {
        if (m_hr < 0) throw static_cast<int>(m_hr);
    }
    HRESULT m_hr;
};

class utlAutoIfBase {
public:
    // Raised on use of a null smart pointer: a broken invariant, never caught
    // by the runtime. Holds the address of the smart pointer that was null.
    class XBadPtrException {
    public:
        explicit XBadPtrException(const void* owner) : m_pOwner(owner) {}
        const void* Owner() const { return m_pOwner; }
        [[noreturn]] static void Throw(const void* owner) { throw XBadPtrException(owner); }

    private:
        const void* m_pOwner;
    };
};

// Owns one reference to an interface I whose identifier is *piid.
template <class I, const COM_GUID* piid>
class utlAutoIf : public utlAutoIfBase {
public:
    utlAutoIf() : m_p(nullptr) {}
    // Takes a reference of its own on p.
    explicit utlAutoIf(I* p) : m_p(p) {
        if (m_p) m_p->AddRef();
    }
    utlAutoIf(const utlAutoIf& other) : utlAutoIf(other.m_p) {}
    utlAutoIf(utlAutoIf&& other) noexcept : m_p(other.m_p) { other.m_p = nullptr; }
    ~utlAutoIf() { Reset(); }

    utlAutoIf& operator=(const utlAutoIf& other) { return *this = other.m_p; }
    utlAutoIf& operator=(I* p) {
        if (p) p->AddRef();
        Reset();
        m_p = p;
        return *this;
    }

    // Drops the reference held, if any.
    void Reset() {
        I* p = m_p;
        m_p = nullptr;
        if (p) p->Release();
    }
    // Adopts a reference the caller already owns.
    void Attach(I* p) {
        Reset();
        m_p = p;
    }
    // Hands the held reference to the caller.
    I* Detach() {
        I* p = m_p;
        m_p = nullptr;
        return p;
    }

    // Output slots for calls that hand out a new reference; the old one is
    // released first.
    I** Out() {
        Reset();
        return &m_p;
    }
    void** OutVoid() { return reinterpret_cast<void**>(Out()); }

    HRESULT QueryFrom(COM_IUnknown* source) {
        if (!source) return E_POINTER;
        return source->QueryInterface(*piid, OutVoid());
    }
    HRESULT CreateInstance(const COM_GUID& clsid) {
        return COM_CreateInstance(clsid, nullptr, *piid, OutVoid());
    }

    I* Get() const { return m_p; }
    operator I*() const { return m_p; }
    bool IsNull() const { return m_p == nullptr; }
    I* operator->() const { return &**this; }
    I& operator*() const {
        if (!m_p) XBadPtrException::Throw(this);
        return *m_p;
    }

private:
    I* m_p;
};

// Single owner of an object created with new.
template <class T>
class utlAutoPtr {
public:
    explicit utlAutoPtr(T* p = nullptr) : m_p(p) {}
    utlAutoPtr(const utlAutoPtr&) = delete;
    utlAutoPtr& operator=(const utlAutoPtr&) = delete;
    ~utlAutoPtr() { delete m_p; }

    void Reset(T* p = nullptr) {
        T* old = m_p;
        m_p = p;
        delete old;
    }
    // Gives up ownership without deleting.
    T* Detach() {
        T* p = m_p;
        m_p = nullptr;
        return p;
    }
    T* Get() const { return m_p; }
    T* operator->() const { return m_p; }
    T& operator*() const { return *m_p; }
    explicit operator bool() const { return m_p != nullptr; }

private:
    T* m_p;
};

// A vector of system strings that owns its elements.
class CVecBstr : public std::vector<wchar_t*> {
public:
    CVecBstr() = default;
    CVecBstr(const CVecBstr&) = delete;
    CVecBstr& operator=(const CVecBstr&) = delete;
    ~CVecBstr() {
        for (wchar_t* s : *this) COM_SysFreeString(s);
    }
};

// Converts count bytes of narrow text of the current locale to a wide string
// of exactly count characters: a zero byte ends the conversion and the slots
// after it are zero. An invalid sequence throws std::bad_alloc. The third
// argument is ignored.
VELTCOM_API std::wstring a2wStr(const char* text, unsigned long count, int);

#endif
