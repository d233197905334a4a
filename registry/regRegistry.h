// The registry object and its name enumerator.
#ifndef VELTCOM_REGISTRY_REGREGISTRY_H
#define VELTCOM_REGISTRY_REGREGISTRY_H

#include <condition_variable>
#include <cstdint>
#include <initializer_list>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>

#include <xercesc/dom/DOMDocument.hpp>
#include <xercesc/parsers/XercesDOMParser.hpp>
#include <xercesc/sax/ErrorHandler.hpp>

#include "comModule.h"
#include "comRegistry.h"
#include "comUtil.h"
#include "regFile.h"
#include "regHelper.h"
#include "regImage.h"

// The one registry object of the process, over the document of
// "Registry.XML". Every caller shares its document; each thread has its own
// current key. It lives until the process ends: Release never frees it.
//
// A process reads from the file's compiled image while the image describes
// the file, and parses the file only to change it: its first change, or its
// first Begin, turns it into a writer, which holds the document.
//
// Every change is saved at once, with its image, under a lock that all
// processes changing the file take; a process whose file was replaced by
// another reloads it before changing it, and when it next opens a hive. A
// transaction holds that lock from Begin to Commit, and saves once.
class CXMLRegistry : public COM_CComObjectRoot,
                     public COM_CComCoClass<CXMLRegistry, &COM_CLSID_Registry>,
                     public COM_IRegistry,
                     public COM_IRegistryTransaction {
public:
    COM_DECLARE_REGISTRY(L"ZarvoCOM.Registry", nullptr, nullptr)

    // The shared object; made, and its file read or created, on first use.
    static HRESULT CreateInstance(const COM_GUID& iid, void** out);

    // Written when the file is missing: the hives ApplicationData and
    // Classes, with the empty keys CLSID, ComponentCategories and Moniker.
    static const char s_rgcDefaultRegistry[];

    // The most names a key path may hold; a longer one is refused.
    static const size_t s_nMaxPathDepth = 256;
    // Hives are numbered from 1.
    static const unsigned int s_nHives = 5;

    HRESULT QueryInterface(const COM_GUID& iid, void** out) override;
    unsigned long AddRef() override;
    unsigned long Release() override;

    HRESULT Open(unsigned int hive, const wchar_t* subkey) override;
    HRESULT Close() override;
    HRESULT OpenKey(const wchar_t* path) override;
    HRESULT CreateKey(const wchar_t* path, int open) override;
    HRESULT DeleteKey(const wchar_t* path) override;
    HRESULT SetValueString(const wchar_t* name, const wchar_t* value) override;
    HRESULT GetValueString(const wchar_t* name, wchar_t** value) override;
    HRESULT SetValueDWORD(const wchar_t* name, unsigned int value) override;
    HRESULT GetValueDWORD(const wchar_t* name, unsigned int* value) override;
    HRESULT DeleteValue(const wchar_t* name) override;
    HRESULT EnumKeys(COM_IEnumBSTR** out) override;
    HRESULT EnumValues(COM_IEnumBSTR** out) override;

    HRESULT Begin() override;
    HRESULT Commit() override;
    HRESULT Abort() override;

    // A key of the document or of the image, as reads find it; 0 for none.
    typedef uintptr_t Key;

    // Reads the default value of a key as Open(hive, keys[0]), an
    // OpenKey for each further name, GetValueString(L"", ...) and, when all
    // of them succeed, Close() would, one after the other and with the same
    // results and the same current key left behind; but under one lock, and
    // with names already escaped. The value is copied into `value`.
    HRESULT ReadDefaultValue(unsigned int hive, std::initializer_list<const XMLCh*> keys,
                             RegString& value);

    // Reads the file, creating it with the default document when missing,
    // and parses it.
    HRESULT Initialize(const wchar_t* name);
    // Replaces the file with the document: REGDB_E_WRITEREGDB, with the
    // file as it was, when the whole document cannot be written.
    HRESULT UpdateRegistryOnDisk();

private:
    CXMLRegistry();
    ~CXMLRegistry() override;
    CXMLRegistry(const CXMLRegistry&) = delete;
    CXMLRegistry& operator=(const CXMLRegistry&) = delete;

    template <class Operation>
    HRESULT Locked(Operation operation);
    template <class Apply>
    HRESULT Change(Apply apply);
    template <class Apply>
    HRESULT ApplyToCurrentKey(Apply apply);
    bool OwnsTransaction() const;
    bool AwaitTransactionEnd();
    HRESULT LockTimedOut();
    HRESULT EndTransaction(HRESULT hr);
    HRESULT Load();
    void UseImage(std::unique_ptr<CRegistryImage> image);
    void RebuildImage();
    bool WriteNewImage(const CWritten& written, const CFileStamp& file);
    void SaveImage(CWritten& written, const CFileStamp& file, bool append);
    bool ImageAppendable() const;
    void DropImage();
    HRESULT StartXmlLibrary();
    HRESULT Reload();
    HRESULT Parse(std::string_view content);
    bool DocumentOutdated() const;
    Key CurrentKey();
    bool Resolve(Key start, const XMLCh* path, Key& out);
    bool ValueOf(Key key, const XMLCh* name, RegString& type, RegString& value);
    wchar_t** NamesOf(Key key, int kind, unsigned int& count);
    Key HiveRoot(unsigned int hive);
    HRESULT OpenHiveLocked(unsigned int hive);
    HRESULT OpenKeyLocked(const wchar_t* path);
    HRESULT DescendLocked(const XMLCh* escaped);
    HRESULT StoreValue(const wchar_t* name, const XMLCh* type, const RegString& data);
    HRESULT Enumerate(int kind, COM_IEnumBSTR** out);
    xercesc::DOMDocument* Document() const { return m_spParser->getDocument(); }

    std::string m_strFilePath;
    utlAutoPtr<CRegistryFile> m_spFile;
    // Every operation on the document holds it.
    std::mutex m_mutex;
    // Changes whenever nodes may have been freed or the document replaced:
    // a thread whose current key was found under another number finds it
    // again by its path.
    uint64_t m_nGeneration = 1;
    unsigned int m_nChangesSinceLoad = 0;
    // The root keys of the hives, as found in the document of that
    // generation; 0 where not looked up yet or missing.
    Key m_rgHiveRoots[s_nHives] = {};
    uint64_t m_nRootsGeneration = 0;
    // The parsed document, which writers hold; or the image, which serves
    // until then.
    utlAutoPtr<xercesc::XercesDOMParser> m_spParser;
    utlAutoPtr<xercesc::ErrorHandler> m_spErrorHandler;
    std::unique_ptr<CRegistryImage> m_spImage;
    bool m_bXmlStarted = false;
    // The image as this process last wrote it, which its next save appends
    // to; sequence 0 when there is none. `live` is its size when it was
    // written whole.
    struct CImageWritten {
        CRegistryFile::CImageFile file;
        uint64_t sequence = 0;
        uint64_t live = 0;
    } m_image;
    bool m_bImagesWritable = true;

    // The open transaction, when depth is not 0: the thread that began it,
    // the Begins it has not ended yet, the writers' lock it holds, whether
    // the document differs from the file, and whether an inner Abort has
    // condemned it.
    struct CTransaction {
        std::thread::id owner;
        unsigned int depth = 0;
        std::optional<CRegistryFile::CWriterLock> lock;
        bool changed = false;
        bool abandoned = false;
    } m_transaction;
    // Other threads' changes and Begins wait on it, holding m_mutex.
    std::condition_variable_any m_transactionEnded;
};

// Hands out copies of an owned array of names; a slot may be null.
class CRegEnumItems : public COM_CComObjectRoot, public COM_IEnumBSTR {
public:
    // Takes ownership of `items` whatever the outcome.
    static HRESULT CreateInstance(const COM_GUID& iid, void** out, unsigned int count,
                                  wchar_t** items, unsigned int index);

    HRESULT Initialize(unsigned int count, wchar_t** items, unsigned int index);

    HRESULT QueryInterface(const COM_GUID& iid, void** out) override;
    COM_IMPLEMENT_REFCOUNT()

    HRESULT get_Count(unsigned long* count) override;
    HRESULT get_Index(unsigned long* index) override;
    HRESULT set_Index(unsigned long index) override;
    HRESULT Next(unsigned long celt, wchar_t** out, unsigned long* fetched) override;
    HRESULT Skip(unsigned long count) override;
    HRESULT SkipEnd() override;
    HRESULT Reset() override;
    HRESULT Clone(COM_IEnumBSTR** out) override;

private:
    CRegEnumItems() = default;
    ~CRegEnumItems() override;
    CRegEnumItems(const CRegEnumItems&) = delete;
    CRegEnumItems& operator=(const CRegEnumItems&) = delete;

    uint32_t m_nIndex = 0;
    uint32_t m_nCount = 0;
    wchar_t** m_rgItems = nullptr;
};

#endif
