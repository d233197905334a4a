// Private declarations that tie the veltcom tool's source files together:
// the command context, output and error reporting, and the tool's read-only
// view of the registry file.
#ifndef VELTCOM_TOOLS_TOOL_INTERNAL_H
#define VELTCOM_TOOLS_TOOL_INTERNAL_H

#include <ostream>
#include <set>
#include <string>
#include <vector>

#include <veltcom.h>

// Exit statuses of every command.
enum ExitCode { kExitOk = 0, kExitFailed = 1, kExitUsage = 2 };

// A wrong command line. Thrown anywhere below main, which reports it with
// E_INVALIDARG and exits with kExitUsage.
struct CUsageError {
    std::string message;
};

using RegistryPtr = utlAutoIf<COM_IRegistry, &COM_IID_IRegistry>;

// --- Text -----------------------------------------------------------------

// All text inside the tool is UTF-8; these convert at the runtime's and the
// XML library's boundaries. Invalid code points become U+FFFD.
std::string Utf8(const wchar_t* text, size_t length);
std::string Utf8(const wchar_t* text);
std::string Utf8(const std::u16string& text);
// Throws CUsageError when `text` is not valid UTF-8.
std::wstring Wide(const std::string& text);

// A system string handed out by the runtime, as UTF-8; frees it.
std::string TakeBstr(wchar_t* text);

// 0x followed by eight upper-case hexadecimal digits.
std::string HexCode(HRESULT hr);

// The runtime's text form of an identifier; "" when it cannot be made.
std::string TextOfGuid(const COM_GUID& id);
// Reads the runtime's text form "_XXXXXXXX-..._", a braced "{...}" or a bare
// form. False when `text` is none of them.
bool ParseGuid(const std::string& text, COM_GUID& id);
// Whether a key name is an identifier exactly as the runtime writes it:
// registry lookups compare names as given, so no other spelling is found.
bool IsCanonicalGuidText(const std::string& text);

// --- JSON -----------------------------------------------------------------

// A small streaming writer; commas and escaping are its business.
class CJsonWriter {
public:
    explicit CJsonWriter(std::ostream& out) : m_out(out) {}

    CJsonWriter& BeginObject();
    CJsonWriter& EndObject();
    CJsonWriter& BeginArray();
    CJsonWriter& EndArray();
    CJsonWriter& Key(const std::string& name);
    CJsonWriter& String(const std::string& utf8);
    CJsonWriter& Number(long long value);
    CJsonWriter& Bool(bool value);
    CJsonWriter& Null();
    // A string, or null when `present` is false.
    CJsonWriter& OptionalString(bool present, const std::string& utf8);

private:
    void BeforeValue();

    std::ostream& m_out;
    // One entry per open container: whether it holds a value yet.
    std::vector<bool> m_hasValue;
    bool m_afterKey = false;
};

// --- Options and context --------------------------------------------------

struct CToolContext {
    bool json = false;
    // Arguments after the command words, options removed.
    std::vector<std::string> args;
    // Command-specific flags that were given, such as "--dword".
    std::set<std::string> flags;
    // "veltcom reg set HIVE PATH NAME VALUE [--dword]", for usage errors.
    std::string usage;
};

// --- Status and error reporting -------------------------------------------

// The text of a status code. Codes of facilities from 100 are decoded by a
// registered decoder only once the registry is known to be readable, since
// finding the decoder opens it; otherwise the built-in table's text is used.
std::string StatusText(HRESULT hr);

// The current error information as "description" at location, or "" when
// none is set. Read before anything else that may replace it.
std::string CurrentErrorInfo();

// Writes one line to stderr: "veltcom: CONTEXT: 0xCODE TEXT[; DETAIL]".
void ReportError(const std::string& context, HRESULT hr, const std::string& detail = "");

// --- The registry ---------------------------------------------------------

// Hive numbers and names as the runtime's registry object knows them.
struct HiveInfo {
    unsigned number;
    const char* name;
    // The hive root below the maker root, "" for the maker root itself.
    const char* belowMakerRoot;
    // The element that stands for the hive root.
    const char* rootKeyName;
};
// Parses "1".."5" or a hive name; throws CUsageError otherwise.
const HiveInfo& ParseHive(const std::string& text);
const HiveInfo& HiveByNumber(unsigned number);

// Splits a key path at backslashes or slashes, dropping empty pieces, and
// stores spaces as underscores as the registry does.
std::vector<std::string> SplitKeyPath(const std::string& path);
std::string JoinKeyPath(const std::vector<std::string>& pieces);
// Whether the registry can make a key of this name: an XML element name.
bool IsStorableKeyName(const std::string& name);
// The status under which the runtime reports an operating-system error
// number (facility 98).
HRESULT SystemErrorCode(int error);

// One key of the tool's snapshot of the registry file.
struct RegValue {
    std::string name;  // "" for the default value
    std::string type;  // "string" or "dword", as stored
    std::string data;
};
struct RegKey {
    std::string name;
    std::vector<RegValue> values;  // the default value first, when present
    std::vector<RegKey> keys;

    const RegKey* Find(const std::string& child) const;
    const RegKey* Resolve(const std::vector<std::string>& path) const;
    const RegValue* FindValue(const std::string& valueName) const;
    // The default value, or null.
    const std::string* Default() const;
    // The default value of a sub-key, or null: how every item of a class is
    // stored.
    const std::string* SubkeyDefault(const std::string& child) const;
};

// Where the runtime reads the registry: $COMLIB/Registry.XML, else
// ./Registry.XML.
std::string RegistryFilePath();

// Reads a registry file as the runtime would, into a key tree. A file that
// cannot be read or parsed is reported (with line and column where the
// parser gives them) and its status returned.
HRESULT ReadRegistryFile(const std::string& path, RegKey& root);

// Reads a whole file into `content`; false, saying nothing, when it cannot
// be opened.
bool ReadFileBytes(const std::string& path, std::string& content);

// Whether the runtime can read a registry file of these bytes; says nothing.
bool IsReadableRegistry(const std::string& content);

// Makes sure the runtime can open the registry without stopping the process
// (a malformed file would), then opens it through the runtime, which creates
// a missing file. Reports any failure itself. Later calls return the first
// result.
HRESULT EnsureRegistry();
// Whether EnsureRegistry has succeeded in this process.
bool RegistryIsReady();
// The runtime's registry object; EnsureRegistry must have succeeded.
COM_IRegistry* Registry();
// The whole file as a key tree, read after EnsureRegistry; the root key is
// the document itself. Changes made afterwards are not seen.
const RegKey& RegistrySnapshot();
// The key of a hive root in the snapshot, or null when the hive is missing.
const RegKey* HiveRoot(const HiveInfo& hive);

// --- Commands -------------------------------------------------------------

int RunRegister(CToolContext& context);
int RunUnregister(CToolContext& context);
int RunClasses(CToolContext& context);
int RunCreate(CToolContext& context);
int RunRegQuery(CToolContext& context);
int RunRegSet(CToolContext& context);
int RunRegDelete(CToolContext& context);
int RunRegExport(CToolContext& context);
int RunDecode(CToolContext& context);
int RunCategories(CToolContext& context);
int RunCheck(CToolContext& context);
int RunDescribe(CToolContext& context);

// The class named on the command line: an identifier, else a ProgID.
HRESULT ResolveClass(const std::string& name, COM_GUID& clsid, std::string& detail);
// Creates the object for `iid`; a bad-pointer exception (a library that
// reported success without a factory) becomes E_POINTER with `detail` set.
HRESULT CreateObject(const COM_GUID& clsid, const COM_GUID& iid,
                     utlAutoIf<COM_IUnknown, &COM_IID_IUnknown>& object, std::string& detail);

// An interface recorded under Interface in the classes hive by a component
// with type information.
struct RegisteredInterface {
    COM_GUID iid;
    std::string name;
};
std::vector<RegisteredInterface> RegisteredInterfaces();
// The names of the registered interfaces `object` answers; each also goes to
// `answered` when given.
std::vector<std::string> AnsweredComponentInterfaces(COM_IUnknown* object,
                                                     std::vector<RegisteredInterface>* answered);

// Throws CUsageError unless the command got between min and max arguments.
void ExpectArgs(const CToolContext& context, size_t min, size_t max);

#endif
