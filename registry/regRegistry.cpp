// The registry object: hives, values, loading and saving "Registry.XML";
// and the name enumerator it hands out.
#include "regRegistry.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <new>

#include <xercesc/framework/MemBufInputSource.hpp>
#include <xercesc/util/OutOfMemoryException.hpp>
#include <xercesc/util/PlatformUtils.hpp>
#include <xercesc/util/XMLException.hpp>
#include <xercesc/util/XMLUni.hpp>

#include "baseInternal.h"
#include "regIndex.h"
#include "regErrorHandler.h"
#include "regParser.h"
#include "regRules.h"
#include "regSaved.h"

using xercesc::DOMNode;

const char CXMLRegistry::s_rgcDefaultRegistry[] =
    "<?xml version='1.0' encoding='ISO-8859-1' ?><Software><Quorvane><Version>"
    "<ApplicationData/><Classes><CLSID/><ComponentCategories/><Moniker/></Classes>"
    "</Version></Quorvane></Software>";

namespace {

// Root paths of hives 1 to 5.
const XMLCh* const kHiveRoots[] = {
    u"Software\\Quorvane\\Version\\Classes",          // 1: classes root
    u"Software\\Quorvane\\Version\\User",             // 2: user
    u"Software\\Quorvane\\Version\\System",           // 3: system
    u"Software\\Quorvane",                            // 4: the maker root
    u"Software\\Quorvane\\Version\\ApplicationData",  // 5: application data
};
const unsigned int kHiveCount = sizeof kHiveRoots / sizeof kHiveRoots[0];
static_assert(kHiveCount == CXMLRegistry::s_nHives, "one root path for each hive");

using RegistryRules::kString;
const XMLCh kDword[] = u"dword";

// Freed nodes leave some memory behind in the document; after this many
// saves it is parsed anew from the bytes just written, which leaves none.
const unsigned int kChangesBeforeCompaction = 2048;

// From this size on a document's memory is taken in huge runs.
const size_t kLargeDocument = size_t(1) << 20;

// The calling thread's position in the document: the key, the generation
// of the document it was found in, and its path from the document node.
struct CCurrentKey {
    CXMLRegistry::Key node = 0;
    uint64_t generation = 0;
    RegString path;

    void Set(CXMLRegistry::Key key, uint64_t current, const XMLCh* keyPath) {
        node = key;
        generation = current;
        path = keyPath;
    }
    void Descend(CXMLRegistry::Key key, const XMLCh* relative) {
        node = key;
        path += u'\\';
        path += relative;
    }
};

thread_local CCurrentKey t_currentKey;

// Runs one operation of the interface: a thrown status is its result, and
// nothing else thrown may cross the interface either.
template <class Operation>
HRESULT Guarded(Operation operation) {
    try {
        return operation();
    } catch (const CImageDamaged&) {
        // The caller reads the file instead.
        throw;
    } catch (int hr) {
        return hr;
    } catch (const std::bad_alloc&) {
        return E_OUTOFMEMORY;
    } catch (const xercesc::OutOfMemoryException&) {
        return E_OUTOFMEMORY;
    } catch (...) {
        return E_UNEXPECTED;
    }
}

std::wstring RegistryFileName() {
    std::wstring name;
    if (const char* directory = std::getenv("COMLIB")) {
        AppendWidened(name, directory);
        name += L'/';
    }
    name += L"Registry.XML";
    return name;
}

// strtol reads only ASCII blanks, signs and digits, so the text up to its
// first other character is all it could ever use; no conversion can fail.
std::string LeadingAscii(const RegString& text) {
    std::string out;
    for (XMLCh c : text) {
        if (c >= 0x80) break;
        out.push_back(static_cast<char>(c));
    }
    return out;
}

// The image as the registry's rules read it.
struct CImageTree {
    typedef CRegistryImage::Node Node;
    typedef CImageString Text;

    const CRegistryImage& image;

    Node Find(Node parent, RegStringView name) const { return image.Find(parent, name); }
    uint32_t ChildCount(Node node) const { return image.ChildCount(node); }
    template <class Visit>
    void ForEachChild(Node node, Visit visit) const {
        image.ForEachChild(node, visit);
    }
    bool IsElement(Node node) const { return image.Type(node) == RegistryImage::kElement; }
    bool NameIs(Node node, RegStringView name) const { return image.Name(node) == name; }
    Text Name(Node node) const { return image.Name(node); }
    uint32_t AttributeCount(Node node) const { return image.AttributeCount(node); }
    template <class Visit>
    void ForEachAttribute(Node node, Visit visit) const {
        image.ForEachAttribute(node, visit);
    }
    bool Is(const Text& text, RegStringView other) const { return text == other; }
    void Copy(const Text& text, RegString& out) const { out = text.Copy(); }
    wchar_t* Widen(const Text& text) const { return AllocWidened(text.Copy().c_str()); }
};

DOMNode* AsNode(CXMLRegistry::Key key) { return reinterpret_cast<DOMNode*>(key); }
CXMLRegistry::Key AsKey(const DOMNode* node) { return reinterpret_cast<CXMLRegistry::Key>(node); }

}  // namespace

CXMLRegistry::CXMLRegistry() = default;

CXMLRegistry::~CXMLRegistry() {
    ChildIndex::Attach(nullptr);
    SavedSubtrees::Attach(nullptr);
    m_spParser.Reset();
    m_spErrorHandler.Reset();
    if (m_bXmlStarted) xercesc::XMLPlatformUtils::Terminate();
}

HRESULT CXMLRegistry::CreateInstance(const COM_GUID& iid, void** out) {
    static std::atomic<CXMLRegistry*> s_pRegistry{nullptr};
    static std::mutex s_creation;
    if (CXMLRegistry* registry = s_pRegistry.load(std::memory_order_acquire))
        return registry->QueryInterface(iid, out);
    if (!out) return E_POINTER;
    std::lock_guard<std::mutex> lock(s_creation);
    if (CXMLRegistry* registry = s_pRegistry.load(std::memory_order_relaxed))
        return registry->QueryInterface(iid, out);
    *out = nullptr;
    CXMLRegistry* registry = new (std::nothrow) CXMLRegistry;
    if (!registry) return E_OUTOFMEMORY;
    HRESULT hr;
    try {
        hr = registry->Initialize(RegistryFileName().c_str());
    } catch (...) {
        // A name that cannot be converted leaves no half-made registry.
        delete registry;
        throw;
    }
    if (FAILED(hr)) {
        delete registry;
        return hr;
    }
    s_pRegistry.store(registry, std::memory_order_release);
    return registry->QueryInterface(iid, out);
}

HRESULT CXMLRegistry::Initialize(const wchar_t* name) {
    if (!name) return E_POINTER;
    m_strFilePath = NarrowWide(name);
    m_spFile.Reset(new CRegistryFile(m_strFilePath));
    return Load();
}

// A reader's load: the image when it describes the file on disk, which costs
// no parse; otherwise the file, parsed, whose image is then made anew.
HRESULT CXMLRegistry::Load() {
    // A save between the look at the file and the look at its image makes
    // them disagree; the second try finds both new.
    for (int attempt = 0; attempt < 2; ++attempt) {
        CFileStamp stamp;
        std::string path;
        if (!m_spFile->Look(stamp, path)) break;
        if (std::unique_ptr<CRegistryImage> image = CRegistryImage::Map(path, stamp)) {
            UseImage(std::move(image));
            return S_OK;
        }
    }
    const HRESULT hr = Reload();
    if (SUCCEEDED(hr)) RebuildImage();
    return hr;
}

// The document goes: nothing in it differs from the file, which the image
// describes.
void CXMLRegistry::UseImage(std::unique_ptr<CRegistryImage> image) {
    ChildIndex::Attach(nullptr);
    SavedSubtrees::Attach(nullptr);
    m_spParser.Reset();
    m_spErrorHandler.Reset();
    m_spImage = std::move(image);
    ++m_nGeneration;
}

// Written only while the file is still the one parsed: a save by another
// process meanwhile has written an image of its own. A process that cannot
// write the image reads on from its document.
void CXMLRegistry::RebuildImage() {
    CWritten written;
    CFileStamp now;
    const CFileStamp parsed = m_spFile->ReadStamp();
    if (!BuildImage(Document(), written)) return;
    // What this process knows of the file stays what it parsed: a newer file
    // is read at its next Open.
    if (!m_spFile->Stamp(now) || !(now == parsed) || !WriteNewImage(written, parsed)) return;
    if (std::unique_ptr<CRegistryImage> mapped = CRegistryImage::Map(m_spFile->ImagePath(), parsed))
        UseImage(std::move(mapped));
}

// A new image file, which later saves of this process append to. An image
// too large for its offsets is not written: the one on disk then no longer
// describes the file.
bool CXMLRegistry::WriteNewImage(const CWritten& written, const CFileStamp& file) {
    m_image = CImageWritten();
    RegistryImage::CSlot slot;
    slot.sequence = 1;
    slot.used = RegistryImage::kHeaderSize + written.image.size();
    slot.root = written.root;
    slot.file = file;
    if (slot.used > UINT32_MAX) return false;
    std::string header(RegistryImage::kHeaderSize, '\0');
    header.replace(RegistryImage::SlotOffset(slot.sequence), RegistryImage::kSlotSize,
                   RegistryImage::SlotBytes(slot));
    if (!m_spFile->WriteImage(header, written.image, m_image.file)) return false;
    m_image.sequence = slot.sequence;
    m_image.live = slot.used;
    return true;
}

// The records a save did not find in the image go at its end, and the older
// slot names them. Where that cannot be done, the whole image is written anew.
void CXMLRegistry::SaveImage(CWritten& written, const CFileStamp& file, bool append) {
    if (append) {
        RegistryImage::CSlot slot;
        slot.sequence = m_image.sequence + 1;
        slot.used = m_image.file.size + written.image.size();
        slot.root = written.root;
        slot.file = file;
        if (slot.used <= UINT32_MAX &&
            m_spFile->AppendImage(m_image.file, written.image, RegistryImage::SlotBytes(slot),
                                  RegistryImage::SlotOffset(slot.sequence))) {
            m_image.sequence = slot.sequence;
            return;
        }
        if (!BuildImage(Document(), written)) return;
    }
    // A directory where no image can be made gets no more tries.
    m_bImagesWritable = WriteNewImage(written, file);
}

// Appending is worth it until the records no longer in use outweigh those
// in use a few times over: a new image costs a walk of the whole document.
bool CXMLRegistry::ImageAppendable() const {
    return m_image.sequence != 0 && m_image.file.size < 4 * m_image.live + (uint64_t(4) << 20);
}

// The image read so far turned out damaged: the file is read instead. A
// file that cannot be read leaves the image, whose reads then fail.
void CXMLRegistry::DropImage() {
    m_spFile->Forget();
    if (SUCCEEDED(Reload())) RebuildImage();
}

// The XML library is started by the first parse of the process, and only
// then: a process that reads from the image never needs it.
HRESULT CXMLRegistry::StartXmlLibrary() {
    if (m_bXmlStarted) return S_OK;
    try {
        xercesc::XMLPlatformUtils::Initialize(xercesc::XMLUni::fgXercescDefaultLocale);
    } catch (const xercesc::XMLException&) {
        return E_FAIL;
    }
    m_bXmlStarted = true;
    return S_OK;
}

HRESULT CXMLRegistry::Reload() {
    std::string content;
    HRESULT hr = m_spFile->Read(content, s_rgcDefaultRegistry);
    if (FAILED(hr)) return hr;
    hr = Parse(content);
    if (FAILED(hr)) m_spFile->Forget();
    return hr;
}

// Parses into a parser of its own, which replaces the live one only once it
// holds a document. Every pointer into the old document dies with it.
HRESULT CXMLRegistry::Parse(std::string_view content) {
    const HRESULT started = StartXmlLibrary();
    if (FAILED(started)) return started;
    try {
        utlAutoPtr<xercesc::ErrorHandler> handler(new DOMErrorHandler(m_strFilePath));
        utlAutoPtr<xercesc::XercesDOMParser> parser(NewRegistryParser(content.size() >= kLargeDocument));
        parser->setErrorHandler(handler.Get());
        xercesc::MemBufInputSource source(reinterpret_cast<const XMLByte*>(content.data()),
                                          content.size(), "REGISTRY", false);
        parser->parse(source);
        if (!parser->getDocument()) return E_FAIL;
        // The index and the saved bytes leave the old document before the
        // old document goes.
        ChildIndex::Attach(parser->getDocument());
        SavedSubtrees::Attach(parser->getDocument());
        m_spParser.Reset(parser.Detach());
        m_spErrorHandler.Reset(handler.Detach());
        m_spImage.reset();
        // The records kept for appending to the image went with the old
        // document.
        m_image = CImageWritten();
        m_bImagesWritable = true;
    } catch (const xercesc::XMLException& e) {
        return REGDB_E_PARSEBASE | e.getCode();
    } catch (const std::bad_alloc&) {
        return E_OUTOFMEMORY;
    } catch (const xercesc::OutOfMemoryException&) {
        return E_OUTOFMEMORY;
    } catch (...) {
        return E_FAIL;
    }
    ++m_nGeneration;
    m_nChangesSinceLoad = 0;
    return S_OK;
}

HRESULT CXMLRegistry::UpdateRegistryOnDisk() {
    const bool append = m_bImagesWritable && ImageAppendable();
    // A new image holds every record: none is kept from before.
    if (m_bImagesWritable && !append) SavedSubtrees::Attach(Document());
    const uint32_t base = !m_bImagesWritable ? 0
                          : append            ? static_cast<uint32_t>(m_image.file.size)
                                              : static_cast<uint32_t>(RegistryImage::kHeaderSize);
    CWritten written;
    if (!WriteDocument(Document(), base, written)) return REGDB_E_WRITEREGDB;
    CFileStamp file;
    const HRESULT hr = m_spFile->Write(written.bytes, file);
    if (FAILED(hr)) return hr;
    if (m_bImagesWritable) SaveImage(written, file, append);
    if (++m_nChangesSinceLoad >= kChangesBeforeCompaction) Parse(written.bytes);
    return S_OK;
}

// An operation that finds the image damaged runs again on the file.
template <class Operation>
HRESULT CXMLRegistry::Locked(Operation operation) {
    // A thread's first use of its current key registers the key's destructor,
    // which takes the dynamic loader's lock. It happens before the registry's
    // lock is taken: a library constructor that uses the registry holds the
    // loader's lock while it waits for the registry's.
    static_cast<void>(t_currentKey.node);
    std::lock_guard<std::mutex> lock(m_mutex);
    try {
        return Guarded(operation);
    } catch (const CImageDamaged&) {
        DropImage();
    }
    try {
        return Guarded(operation);
    } catch (const CImageDamaged&) {
        return E_FAIL;
    }
}

CXMLRegistry::Key CXMLRegistry::CurrentKey() {
    CCurrentKey& current = t_currentKey;
    if (current.node && current.generation != m_nGeneration) {
        Key found = 0;
        current.node = Resolve(0, current.path.c_str(), found) ? found : 0;
        current.generation = m_nGeneration;
    }
    return current.node;
}

// Reads go to the document once there is one, and to the image before.
bool CXMLRegistry::Resolve(Key start, const XMLCh* path, Key& out) {
    if (!m_spImage) {
        DOMNode* found = nullptr;
        if (!ResolveKey(start ? AsNode(start) : Document(), path, &found)) return false;
        out = AsKey(found);
        return true;
    }
    CRegistryImage::Node found = 0;
    const CImageTree tree{*m_spImage};
    if (!RegistryRules::Resolve(tree, start ? static_cast<CRegistryImage::Node>(start) : m_spImage->Document(),
                                path, found))
        return false;
    out = found;
    return true;
}

bool CXMLRegistry::ValueOf(Key key, const XMLCh* name, RegString& type, RegString& value) {
    if (!m_spImage) return GetValue(AsNode(key), name, type, value);
    return RegistryRules::GetValue(CImageTree{*m_spImage}, static_cast<CRegistryImage::Node>(key), name,
                                   type, value);
}

wchar_t** CXMLRegistry::NamesOf(Key key, int kind, unsigned int& count) {
    if (!m_spImage) return ListNames(AsNode(key), kind, count);
    return RegistryRules::ListNames(CImageTree{*m_spImage}, static_cast<CRegistryImage::Node>(key), kind,
                                    count);
}

// A change needs the document: the first one of a process that reads from
// the image parses the file.
bool CXMLRegistry::DocumentOutdated() const { return m_spImage || m_spFile->Changed(); }

// A change is made to the file as it is on disk now, under the writers'
// lock, and saved at once: no process ever saves over another's change.
// Within the calling thread's transaction, which already holds the lock and
// has read the file, it goes into the document only.
template <class Apply>
HRESULT CXMLRegistry::Change(Apply apply) {
    if (OwnsTransaction()) {
        // Even a change that failed may have left part of itself behind,
        // which the end of an abandoned transaction must take away.
        m_transaction.changed = true;
        return ApplyToCurrentKey(apply);
    }
    if (!AwaitTransactionEnd()) return REGDB_E_WRITEREGDB;
    CRegistryFile::CWriterLock lock(*m_spFile);
    if (lock.TimedOut()) return LockTimedOut();
    if (DocumentOutdated() && FAILED(Reload())) return REGDB_E_WRITEREGDB;
    const CCurrentKey before = t_currentKey;
    HRESULT hr = ApplyToCurrentKey(apply);
    if (FAILED(hr)) return hr;
    hr = UpdateRegistryOnDisk();
    if (SUCCEEDED(hr)) {
        m_spFile->SignalSave();
        return hr;
    }
    // The change did not happen: the document goes back to what the file
    // holds, and the current key to where it was.
    t_currentKey = before;
    if (FAILED(Reload())) m_spFile->Forget();
    return hr;
}

template <class Apply>
HRESULT CXMLRegistry::ApplyToCurrentKey(Apply apply) {
    // Another process may have deleted the key meanwhile: nothing is ever
    // written into a key that is no longer in the document.
    const Key key = CurrentKey();
    if (!key) return REGDB_E_KEYMISSING;
    const HRESULT hr = apply(AsNode(key));
    if (FAILED(hr)) return hr;
    // Nodes may have been freed: other threads find their keys again. This
    // thread's own key lies above whatever its change removed.
    t_currentKey.generation = ++m_nGeneration;
    return hr;
}

bool CXMLRegistry::OwnsTransaction() const {
    return m_transaction.depth != 0 && m_transaction.owner == std::this_thread::get_id();
}

// Called holding m_mutex, which the wait gives up meanwhile.
bool CXMLRegistry::AwaitTransactionEnd() {
    return m_transactionEnded.wait_for(m_mutex, std::chrono::milliseconds(WriterWaitMilliseconds()),
                                       [this] { return m_transaction.depth == 0; });
}

// The caller learns which file kept it waiting.
HRESULT CXMLRegistry::LockTimedOut() {
    utlAutoIf<COM_IErrorInfo, &COM_IID_IErrorInfo> info;
    if (SUCCEEDED(CComErrorInfo::CreateErrorInfo(info.Out()))) {
        std::wstring text = L"another process held the registry's lock file ";
        AppendWidened(text, m_spFile->LockPath().c_str());
        text += L" for the whole wait of ";
        AppendWidened(text, std::to_string(WriterWaitMilliseconds()).c_str());
        text += L" ms";
        std::wstring location = L"registry";
        info->SetDescription(&text[0]);
        info->SetLocation(&location[0]);
        CComErrorInfo::SetErrorInfo(info);
    }
    return REGDB_E_WRITEREGDB;
}

HRESULT CXMLRegistry::Begin() {
    return Locked([&]() -> HRESULT {
        if (OwnsTransaction()) {
            ++m_transaction.depth;
            return S_OK;
        }
        if (!AwaitTransactionEnd()) return REGDB_E_WRITEREGDB;
        m_transaction.lock.emplace(*m_spFile);
        HRESULT hr = m_transaction.lock->TimedOut() ? LockTimedOut() : S_OK;
        if (SUCCEEDED(hr) && DocumentOutdated() && FAILED(Reload())) hr = REGDB_E_WRITEREGDB;
        if (FAILED(hr)) {
            m_transaction.lock.reset();
            return hr;
        }
        m_transaction.owner = std::this_thread::get_id();
        m_transaction.depth = 1;
        m_transaction.changed = m_transaction.abandoned = false;
        return S_OK;
    });
}

HRESULT CXMLRegistry::Commit() {
    return Locked([&]() -> HRESULT {
        if (!OwnsTransaction()) return E_UNEXPECTED;
        if (--m_transaction.depth != 0) return S_OK;
        if (m_transaction.abandoned) return EndTransaction(REGDB_E_WRITEREGDB);
        if (!m_transaction.changed) return EndTransaction(S_OK);
        const HRESULT hr = UpdateRegistryOnDisk();
        if (SUCCEEDED(hr)) {
            m_spFile->SignalSave();
            m_transaction.changed = false;
        }
        return EndTransaction(hr);
    });
}

HRESULT CXMLRegistry::Abort() {
    return Locked([&]() -> HRESULT {
        if (!OwnsTransaction()) return E_UNEXPECTED;
        if (--m_transaction.depth != 0) {
            m_transaction.abandoned = true;
            return S_OK;
        }
        return EndTransaction(S_OK);
    });
}

// Unsaved changes leave the document, which goes back to what the file
// holds; then the lock goes, and the threads waiting for it are woken.
HRESULT CXMLRegistry::EndTransaction(HRESULT hr) {
    if (m_transaction.changed && FAILED(Reload())) m_spFile->Forget();
    m_transaction.lock.reset();
    m_transaction.depth = 0;
    m_transaction.owner = std::thread::id();
    m_transactionEnded.notify_all();
    return hr;
}

HRESULT CXMLRegistry::QueryInterface(const COM_GUID& iid, void** out) {
    if (!out) return E_POINTER;
    if (iid == COM_IID_IUnknown || iid == COM_IID_IRegistry) {
        *out = static_cast<COM_IRegistry*>(this);
        AddRef();
        return S_OK;
    }
    if (iid == COM_IID_IRegistryTransaction) {
        *out = static_cast<COM_IRegistryTransaction*>(this);
        AddRef();
        return S_OK;
    }
    *out = nullptr;
    return E_NOINTERFACE;
}

// The object is never freed; its references only hold the module.
unsigned long CXMLRegistry::AddRef() {
    g_theModule.Lock();
    return 1;
}

unsigned long CXMLRegistry::Release() {
    g_theModule.Unlock();
    return 1;
}

HRESULT CXMLRegistry::Open(unsigned int hive, const wchar_t* subkey) {
    return Locked([&]() -> HRESULT {
        if (hive == 0 || hive > kHiveCount || !subkey) return E_INVALIDARG;
        const HRESULT hr = OpenHiveLocked(hive);
        return SUCCEEDED(hr) && *subkey ? OpenKeyLocked(subkey) : hr;
    });
}

// Any change may have moved or freed a root: each generation finds them anew.
CXMLRegistry::Key CXMLRegistry::HiveRoot(unsigned int hive) {
    if (m_nRootsGeneration != m_nGeneration) {
        std::fill(std::begin(m_rgHiveRoots), std::end(m_rgHiveRoots), 0);
        m_nRootsGeneration = m_nGeneration;
    }
    Key& root = m_rgHiveRoots[hive - 1];
    if (!root) Resolve(0, kHiveRoots[hive - 1], root);
    return root;
}

HRESULT CXMLRegistry::OpenHiveLocked(unsigned int hive) {
    // A long-running process sees what others registered since it
    // started. Should the file have become unreadable, the document read
    // last serves on. Not while a transaction is open: no other process can
    // save then, and its document holds changes the file does not.
    if (m_transaction.depth == 0 && m_spFile->Outdated()) Load();
    const Key root = HiveRoot(hive);
    if (!root) return REGDB_E_KEYMISSING;
    t_currentKey.Set(root, m_nGeneration, kHiveRoots[hive - 1]);
    return S_OK;
}

HRESULT CXMLRegistry::ReadDefaultValue(unsigned int hive, std::initializer_list<const XMLCh*> keys,
                                       RegString& value) {
    return Locked([&]() -> HRESULT {
        if (hive == 0 || hive > kHiveCount || keys.size() == 0) return E_INVALIDARG;
        HRESULT hr = OpenHiveLocked(hive);
        const XMLCh* const* key = keys.begin();
        // Open descends only into a subkey that is not empty; OpenKey always.
        if (SUCCEEDED(hr) && **key) hr = DescendLocked(*key);
        for (++key; SUCCEEDED(hr) && key != keys.end(); ++key) hr = DescendLocked(*key);
        if (FAILED(hr)) return hr;
        RegString type;
        if (!ValueOf(CurrentKey(), u"", type, value) || type != kString) return REGDB_E_INVALIDVALUE;
        return Close();
    });
}

HRESULT CXMLRegistry::Close() {
    t_currentKey.node = 0;
    t_currentKey.path.clear();
    return S_OK;
}

HRESULT CXMLRegistry::OpenKey(const wchar_t* path) {
    return Locked([&]() { return OpenKeyLocked(path); });
}

HRESULT CXMLRegistry::OpenKeyLocked(const wchar_t* path) {
    if (!path) return E_POINTER;
    return DescendLocked(EscapeKey(path).c_str());
}

HRESULT CXMLRegistry::DescendLocked(const XMLCh* escaped) {
    const Key key = CurrentKey();
    if (!key) return REGDB_E_KEYMISSING;
    if (PathDepth(escaped) > s_nMaxPathDepth) return E_INVALIDARG;
    Key found = 0;
    if (!Resolve(key, escaped, found)) return REGDB_E_KEYMISSING;
    t_currentKey.Descend(found, escaped);
    return S_OK;
}

HRESULT CXMLRegistry::CreateKey(const wchar_t* path, int open) {
    return Locked([&]() -> HRESULT {
        if (!path) return E_POINTER;
        if (!CurrentKey()) return REGDB_E_KEYMISSING;
        const RegString escaped = EscapeKey(path);
        // Refused before anything is made, so that no half-made path stays
        // in the document. A name the file could not carry is bad input; one
        // that is no XML name is what the DOM itself would refuse.
        if (PathDepth(escaped.c_str()) > s_nMaxPathDepth || !IsSingleByteText(escaped.c_str()))
            return E_INVALIDARG;
        if (!IsCreatablePath(escaped.c_str())) return E_UNEXPECTED;
        return Change([&](DOMNode* key) -> HRESULT {
            DOMNode* last = nullptr;
            if (!::CreateKey(Document(), key, escaped.c_str(), &last)) return REGDB_E_WRITEREGDB;
            if (open == 1) t_currentKey.Descend(AsKey(last), escaped.c_str());
            return S_OK;
        });
    });
}

HRESULT CXMLRegistry::DeleteKey(const wchar_t* path) {
    return Locked([&]() -> HRESULT {
        if (!path) return E_POINTER;
        if (!CurrentKey()) return REGDB_E_KEYMISSING;
        const RegString escaped = EscapeKey(path);
        if (PathDepth(escaped.c_str()) > s_nMaxPathDepth) return E_INVALIDARG;
        return Change([&](DOMNode* key) -> HRESULT {
            return ::DeleteKey(key, escaped.c_str()) ? S_OK : REGDB_E_WRITEREGDB;
        });
    });
}

HRESULT CXMLRegistry::StoreValue(const wchar_t* name, const XMLCh* type, const RegString& data) {
    if (!CurrentKey()) return REGDB_E_KEYMISSING;
    const RegString escaped = EscapeKey(name);
    // Text the file could not carry, or not give back as it was, is refused.
    if (!IsStorableText(escaped.c_str()) || !IsStorableText(data.c_str())) return E_INVALIDARG;
    return Change([&](DOMNode* key) -> HRESULT {
        return ::SetValue(Document(), key, escaped.c_str(), type, data.c_str()) ? S_OK
                                                                                : REGDB_E_WRITEREGDB;
    });
}

HRESULT CXMLRegistry::SetValueString(const wchar_t* name, const wchar_t* value) {
    return Locked([&]() -> HRESULT {
        if (!name || !value) return E_POINTER;
        return StoreValue(name, kString, ToUtf16(value));
    });
}

HRESULT CXMLRegistry::GetValueString(const wchar_t* name, wchar_t** value) {
    return Locked([&]() -> HRESULT {
        if (!name) return E_POINTER;
        const Key key = CurrentKey();
        if (!key) return REGDB_E_KEYMISSING;
        RegString type, data;
        if (!ValueOf(key, EscapeKey(name).c_str(), type, data) || type != kString)
            return REGDB_E_INVALIDVALUE;
        // A null value pointer only asks whether the string value exists.
        if (!value) return S_OK;
        wchar_t* text = AllocWidened(data.c_str());
        if (!text) return E_OUTOFMEMORY;
        *value = text;
        return S_OK;
    });
}

HRESULT CXMLRegistry::SetValueDWORD(const wchar_t* name, unsigned int value) {
    return Locked([&]() -> HRESULT {
        if (!name) return E_POINTER;
        // Printed as a long, so the full unsigned range stays positive.
        char digits[20];
        std::snprintf(digits, sizeof digits, "%li", static_cast<long>(value));
        return StoreValue(name, kDword, RegString(digits, digits + std::strlen(digits)));
    });
}

HRESULT CXMLRegistry::GetValueDWORD(const wchar_t* name, unsigned int* value) {
    return Locked([&]() -> HRESULT {
        if (!name || !value) return E_POINTER;
        const Key key = CurrentKey();
        if (!key) return REGDB_E_KEYMISSING;
        RegString type, data;
        if (!ValueOf(key, EscapeKey(name).c_str(), type, data) || type != kDword)
            return REGDB_E_INVALIDVALUE;
        // Hand-edited text that is no number reads as 0; trailing text is ignored.
        *value = static_cast<unsigned int>(std::strtol(LeadingAscii(data).c_str(), nullptr, 10));
        return S_OK;
    });
}

HRESULT CXMLRegistry::DeleteValue(const wchar_t* name) {
    return Locked([&]() -> HRESULT {
        if (!name) return E_POINTER;
        if (!CurrentKey()) return REGDB_E_KEYMISSING;
        const RegString escaped = EscapeKey(name);
        return Change([&](DOMNode* key) -> HRESULT {
            return ::DeleteValue(Document(), key, escaped.c_str()) ? S_OK : REGDB_E_WRITEREGDB;
        });
    });
}

HRESULT CXMLRegistry::Enumerate(int kind, COM_IEnumBSTR** out) {
    return Locked([&]() -> HRESULT {
        if (!out) return E_POINTER;
        const Key key = CurrentKey();
        if (!key) return REGDB_E_KEYMISSING;
        unsigned int count = 0;
        wchar_t** names = NamesOf(key, kind, count);
        return CRegEnumItems::CreateInstance(COM_IID_IEnumBSTR, reinterpret_cast<void**>(out),
                                             count, names, 0);
    });
}

HRESULT CXMLRegistry::EnumKeys(COM_IEnumBSTR** out) { return Enumerate(0, out); }

HRESULT CXMLRegistry::EnumValues(COM_IEnumBSTR** out) { return Enumerate(1, out); }

namespace {

void FreeItems(unsigned int count, wchar_t** items) {
    for (unsigned int i = 0; i < count; ++i)
        COM_SysFreeString(items[i]);
    delete[] items;
}

}  // namespace

CRegEnumItems::~CRegEnumItems() { FreeItems(m_nCount, m_rgItems); }

HRESULT CRegEnumItems::CreateInstance(const COM_GUID& iid, void** out, unsigned int count,
                                      wchar_t** items, unsigned int index) {
    CRegEnumItems* object = new (std::nothrow) CRegEnumItems;
    if (!object) {
        FreeItems(count, items);
        if (out) *out = nullptr;
        return E_OUTOFMEMORY;
    }
    object->AddRef();
    object->Initialize(count, items, index);
    HRESULT hr = object->QueryInterface(iid, out);
    object->Release();
    return hr;
}

HRESULT CRegEnumItems::Initialize(unsigned int count, wchar_t** items, unsigned int index) {
    FreeItems(m_nCount, m_rgItems);
    m_nCount = count;
    m_rgItems = items;
    m_nIndex = index;
    return S_OK;
}

HRESULT CRegEnumItems::QueryInterface(const COM_GUID& iid, void** out) {
    if (!out) return E_POINTER;
    if (iid == COM_IID_IUnknown || iid == COM_IID_IEnumBSTR) {
        *out = static_cast<COM_IEnumBSTR*>(this);
        AddRef();
        return S_OK;
    }
    *out = nullptr;
    return E_NOINTERFACE;
}

HRESULT CRegEnumItems::get_Count(unsigned long* count) {
    if (!count) return E_POINTER;
    *count = m_nCount;
    return S_OK;
}

HRESULT CRegEnumItems::get_Index(unsigned long* index) {
    if (!index) return E_POINTER;
    *index = m_nIndex;
    return S_OK;
}

// The codes are the other way round from Next's, and callers test for them:
// S_FALSE when the position was taken, S_OK when it ran to the end.
HRESULT CRegEnumItems::set_Index(unsigned long index) {
    if (index < m_nCount) {
        m_nIndex = static_cast<uint32_t>(index);
        return S_FALSE;
    }
    m_nIndex = m_nCount;
    return S_OK;
}

HRESULT CRegEnumItems::Next(unsigned long celt, wchar_t** out, unsigned long* fetched) {
    if (!out || !fetched) return E_POINTER;
    *fetched = 0;
    while (*fetched < celt && m_nIndex < m_nCount)
        out[(*fetched)++] = COM_SysAllocString(m_rgItems[m_nIndex++]);
    return *fetched == celt ? S_OK : S_FALSE;
}

// No bound: the index may pass the end, and wraps at 32 bits.
HRESULT CRegEnumItems::Skip(unsigned long count) {
    m_nIndex += static_cast<uint32_t>(count);
    return S_OK;
}

HRESULT CRegEnumItems::SkipEnd() {
    m_nIndex = m_nCount;
    return S_OK;
}

HRESULT CRegEnumItems::Reset() {
    m_nIndex = 0;
    return S_OK;
}

HRESULT CRegEnumItems::Clone(COM_IEnumBSTR** out) {
    if (!out) return E_POINTER;
    wchar_t** copy = new (std::nothrow) wchar_t*[m_nCount];
    if (!copy) return E_OUTOFMEMORY;
    for (uint32_t i = 0; i < m_nCount; ++i)
        copy[i] = COM_SysAllocString(m_rgItems[i]);
    // The new enumerator owns the copies whatever becomes of it.
    return CreateInstance(COM_IID_IEnumBSTR, reinterpret_cast<void**>(out), m_nCount, copy,
                          m_nIndex);
}
