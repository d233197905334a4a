// The registry's XML layer: tree operations on the registry document, the
// writer that turns the document back into the file's bytes, and the builder
// of name enumerators.
//
// A key is an element named after it; a named value is a child element
// "item" with the attributes name, type and value; a key's default value is
// its attribute "default". Paths are key names joined by backslashes, always
// relative to the node they start from.
#ifndef VELTCOM_UNIX_REGHELPER_H
#define VELTCOM_UNIX_REGHELPER_H

#include <ostream>
#include <string>
#include <string_view>

#include <xercesc/dom/DOMDocument.hpp>
#include <xercesc/dom/DOMNode.hpp>

#include "comRegistry.h"

// Text as the DOM holds it: 16-bit code units.
typedef std::basic_string<XMLCh> RegString;
typedef std::basic_string_view<XMLCh> RegStringView;

// Stands for a wide character that UTF-16 cannot carry: a surrogate code
// point, or one beyond U+10FFFF. No stored text holds it, so storing text
// with it is refused and looking a name up with it finds nothing.
const XMLCh kNoCharacter = 0xFFFF;

// The text in UTF-16, as the DOM holds it: a character above U+FFFF becomes
// a surrogate pair; one UTF-16 cannot carry becomes kNoCharacter.
RegString ToUtf16(const wchar_t* text);

// As ToUtf16, with every space turned into an underscore: the form in which
// key paths and value names are stored and looked up.
RegString EscapeKey(const wchar_t* text);

// The pieces of a path between backslashes, empty ones included: the empty
// path is one empty piece, which names no key.
class CPathPieces {
public:
    explicit CPathPieces(const XMLCh* path) : m_pNext(path) {}

    bool Next(RegStringView& piece) {
        if (!m_pNext) return false;
        const XMLCh* end = m_pNext;
        while (*end && *end != u'\\') ++end;
        piece = RegStringView(m_pNext, end - m_pNext);
        m_pNext = *end ? end + 1 : nullptr;
        return true;
    }

private:
    const XMLCh* m_pNext;
};

// Whether every piece of the path is a legal XML element name, so that
// CreateKey can make it. The empty piece of a leading, trailing or doubled
// backslash is not.
bool IsCreatablePath(const XMLCh* path);

// How many key names the path holds: one more than its backslashes.
size_t PathDepth(const XMLCh* path);

// Whether every character fits in one byte of the file's encoding, as the
// characters of a key name must.
bool IsSingleByteText(const XMLCh* text);

// Whether the document's file can carry the text and read it back as it
// was: no control characters other than tab, line feed and carriage
// return, no lone surrogate, neither U+FFFE nor U+FFFF.
bool IsStorableText(const XMLCh* text);

// Tree operations: 1 on success, 0 on a miss. Only DeleteKey catches the
// DOM library's exceptions; the others let them pass.
int FindKey(const xercesc::DOMNode* parent, const XMLCh* name, xercesc::DOMNode** out);
int ResolveKey(const xercesc::DOMNode* start, const XMLCh* path, xercesc::DOMNode** out);
// Creates every missing key of the path; 1 even when all existed.
int CreateKey(xercesc::DOMDocument* doc, xercesc::DOMNode* start, const XMLCh* path,
              xercesc::DOMNode** out);
// Removes the key with its whole subtree and frees it: no pointer into the
// subtree may be used afterwards.
int DeleteKey(xercesc::DOMNode* start, const XMLCh* path);
// The empty name is the default value, which reads back only while it is
// the key element's one attribute, and always with type "string".
int GetValue(const xercesc::DOMNode* key, const XMLCh* name, RegString& type, RegString& value);
// An existing value is replaced in place, keeping its position; the
// element it had is freed.
int SetValue(xercesc::DOMDocument* doc, xercesc::DOMNode* key, const XMLCh* name, const XMLCh* type,
             const XMLCh* value);
// Removes and frees the first value of that name only.
int DeleteValue(xercesc::DOMDocument* doc, xercesc::DOMNode* key, const XMLCh* name);

// Writes a node and its subtree in the registry file's format: characters up
// to U+00FF as single bytes, those above as character references. A name
// that holds a character above U+00FF, or text no XML file can hold, writes
// nothing and sets the stream's bad bit. A node type that has no written
// form stops the process.
std::ostream& operator<<(std::ostream& out, const xercesc::DOMNode* node);
// What a save writes: the file's bytes, and the records of the image that
// it did not hold yet, its document's record among them. They stay valid
// until the next save.
struct CWritten {
    std::string_view bytes;
    std::string_view image;
    uint32_t root = 0;
};
// Writes the registry's document as the operator above does, reusing what
// was last written for subtrees that have not changed since. Unless
// `imageBase` is 0, it also writes the image's records that the image,
// `imageBase` bytes long, does not hold yet. False, with `written` as it was,
// when the document holds text that cannot be written.
bool WriteDocument(const xercesc::DOMDocument* document, uint32_t imageBase, CWritten& written);
// As WriteDocument, for a new image of the whole document; a document that
// cannot be written has none, and does not stop the process.
bool BuildImage(const xercesc::DOMDocument* document, CWritten& written);
// Writes text as the writer above writes text content; text that cannot be
// written writes nothing and sets the stream's bad bit.
std::ostream& operator<<(std::ostream& out, const XMLCh* text);
// As the operator above; with `escape` the text is an attribute value: the
// characters " & < > are written as entity references (the apostrophe is
// not), and tab, line feed and carriage return as character references.
std::ostream& outputContent(std::ostream& out, const XMLCh* text, bool escape);

// UTF-16 text as wide characters: a surrogate pair becomes the one
// character it encodes, any other code unit a character of its own.
std::wstring WidenUtf16(const XMLCh* text, size_t length);

// A new system string of the text, widened as WidenUtf16 does; null when it
// cannot be allocated.
wchar_t* AllocWidened(const XMLCh* text);

// The names of the key's sub-keys (kind 0) or values (any other kind),
// copied out of the document now: one slot for each child node of the key,
// in document order, the slots no name fills null. The caller owns the
// array and its system strings.
wchar_t** ListNames(const xercesc::DOMNode* key, int kind, unsigned int& count);

#endif
