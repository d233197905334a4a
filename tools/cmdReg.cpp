// reg query, set, delete and export: any hive, any key path.
//
// Changes go through the runtime's registry object, so that they are made
// and written exactly as the runtime makes them; reading shows the tool's
// snapshot of the file, since the registry interface cannot list values.
#include <cerrno>
#include <cstdlib>
#include <iostream>

#include "toolInternal.h"

namespace {

struct RegTarget {
    const HiveInfo* hive;
    std::vector<std::string> pieces;
    std::string path;  // the pieces joined, as the runtime takes them

    std::string Describe() const { return std::string(hive->name) + (path.empty() ? "" : " " + path); }
};

RegTarget ParseTarget(const CToolContext& context) {
    RegTarget target;
    target.hive = &ParseHive(context.args[0]);
    if (context.args.size() > 1) target.pieces = SplitKeyPath(context.args[1]);
    target.path = JoinKeyPath(target.pieces);
    return target;
}

// Stored value names take underscores for spaces, as key names do.
std::string StoredName(std::string name) {
    for (char& c : name) {
        if (c == ' ') c = '_';
    }
    return name;
}

std::string ValueLabel(const std::string& name) { return name.empty() ? "(default)" : name; }

// Opens the key through the runtime, whose status says best why a key
// cannot be reached; reports a failure.
HRESULT OpenKey(const std::string& context, const RegTarget& target) {
    const HRESULT hr = Registry()->Open(target.hive->number, Wide(target.path).c_str());
    Registry()->Close();
    if (FAILED(hr)) ReportError(context, hr, "no key " + target.Describe());
    return hr;
}

// The key in the snapshot; reports REGDB_E_KEYMISSING when the runtime found
// it but the snapshot does not hold it as a key (a value element of that
// name, for instance).
const RegKey* SnapshotKey(const std::string& context, const RegTarget& target) {
    const RegKey* root = HiveRoot(*target.hive);
    const RegKey* key = root ? root->Resolve(target.pieces) : nullptr;
    if (!key) ReportError(context, REGDB_E_KEYMISSING, "no key " + target.Describe());
    return key;
}

// --- Output ---------------------------------------------------------------

std::string Quoted(const std::string& text) {
    std::string out = "\"";
    for (char c : text) {
        if (c == '"' || c == '\\') out += '\\';
        if (c == '\n') {
            out += "\\n";
            continue;
        }
        out += c;
    }
    return out + "\"";
}

void PrintTree(const RegKey& key, const std::string& label, int depth) {
    const std::string indent(4 * depth, ' ');
    std::cout << indent << label << "\n";
    for (const RegValue& value : key.values) {
        std::cout << indent << "    " << ValueLabel(value.name) << " = ";
        if (value.type == "dword")
            std::cout << value.data << " (dword)\n";
        else if (value.type == "string")
            std::cout << Quoted(value.data) << "\n";
        else
            std::cout << Quoted(value.data) << " (" << value.type << ")\n";
    }
    for (const RegKey& child : key.keys)
        PrintTree(child, child.name, depth + 1);
}

void WriteKeyJson(CJsonWriter& json, const RegKey& key) {
    json.BeginObject().Key("name").String(key.name).Key("values").BeginArray();
    for (const RegValue& value : key.values) {
        json.BeginObject()
            .Key("name").String(value.name)
            .Key("type").String(value.type)
            .Key("data").String(value.data)
            .EndObject();
    }
    json.EndArray().Key("keys").BeginArray();
    for (const RegKey& child : key.keys)
        WriteKeyJson(json, child);
    json.EndArray().EndObject();
}

void PrintKeyJson(const RegTarget& target, const RegKey& key) {
    CJsonWriter json(std::cout);
    json.BeginObject()
        .Key("hive").String(target.hive->name)
        .Key("hiveNumber").Number(target.hive->number)
        .Key("path").String(target.path)
        .Key("key");
    WriteKeyJson(json, key);
    json.EndObject();
}

std::string XmlEscaped(const std::string& text) {
    std::string out;
    for (char c : text) {
        switch (c) {
        case '&': out += "&amp;"; break;
        case '<': out += "&lt;"; break;
        case '>': out += "&gt;"; break;
        case '"': out += "&quot;"; break;
        // Kept as characters: a literal line end in an attribute would read
        // back as a blank.
        case '\t': out += "&#9;"; break;
        case '\n': out += "&#10;"; break;
        case '\r': out += "&#13;"; break;
        default: out += c;
        }
    }
    return out;
}

// The key as the registry file holds it: an element named after the key, the
// default value as its "default" attribute, values as "item" elements.
void WriteKeyXml(const RegKey& key, int depth) {
    const std::string indent(2 * depth, ' ');
    std::cout << indent << "<" << key.name;
    const std::string* defaultValue = key.Default();
    if (defaultValue) std::cout << " default=\"" << XmlEscaped(*defaultValue) << "\"";
    bool empty = key.keys.empty();
    for (const RegValue& value : key.values)
        empty = empty && value.name.empty();
    if (empty) {
        std::cout << "/>\n";
        return;
    }
    std::cout << ">\n";
    for (const RegValue& value : key.values) {
        if (value.name.empty()) continue;
        std::cout << indent << "  <item name=\"" << XmlEscaped(value.name) << "\" type=\""
                  << XmlEscaped(value.type) << "\" value=\"" << XmlEscaped(value.data)
                  << "\"/>\n";
    }
    for (const RegKey& child : key.keys)
        WriteKeyXml(child, depth + 1);
    std::cout << indent << "</" << key.name << ">\n";
}

// Text is refused before any key is made unless it is printable ASCII: the
// only text that is the same in every terminal's code page, and shown back
// by query and export exactly as it was given.
void RequireStorable(const std::string& text, const char* what) {
    for (char c : text) {
        const unsigned char byte = static_cast<unsigned char>(c);
        if (byte >= 0x80 || byte < 0x20)
            throw CUsageError{std::string(what) + " '" + text +
                              "' holds characters other than printable ASCII, which the "
                              "registry file would not read back as set"};
    }
}

// A 32-bit value in decimal or 0x hexadecimal.
bool ParseDword(const std::string& text, unsigned int& value) {
    if (text.empty() || text[0] == '-' || text[0] == '+' || text[0] == ' ') return false;
    const bool hex = text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X');
    errno = 0;
    char* end = nullptr;
    const unsigned long long number = std::strtoull(text.c_str(), &end, hex ? 16 : 10);
    if (errno != 0 || *end != '\0' || number > 0xFFFFFFFFull) return false;
    value = static_cast<unsigned int>(number);
    return true;
}

// What a failed change says: `what`, and the runtime's error information,
// which names the lock file when a writer gave up waiting for it.
std::string ChangeFailure(const std::string& what) {
    const std::string info = CurrentErrorInfo();
    return info.empty() ? what : what + "; error info: " + info;
}

}  // namespace

int RunRegQuery(CToolContext& context) {
    ExpectArgs(context, 1, 2);
    const RegTarget target = ParseTarget(context);
    if (FAILED(EnsureRegistry())) return kExitFailed;
    const std::string where = "reg query " + target.Describe();
    if (FAILED(OpenKey(where, target))) return kExitFailed;
    const RegKey* key = SnapshotKey(where, target);
    if (!key) return kExitFailed;
    if (context.json)
        PrintKeyJson(target, *key);
    else
        PrintTree(*key, target.path.empty() ? target.hive->rootKeyName : target.path, 0);
    return kExitOk;
}

int RunRegExport(CToolContext& context) {
    ExpectArgs(context, 1, 2);
    const RegTarget target = ParseTarget(context);
    if (FAILED(EnsureRegistry())) return kExitFailed;
    const std::string where = "reg export " + target.Describe();
    if (FAILED(OpenKey(where, target))) return kExitFailed;
    const RegKey* key = SnapshotKey(where, target);
    if (!key) return kExitFailed;
    if (context.json) {
        PrintKeyJson(target, *key);
        return kExitOk;
    }
    std::cout << "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
              << "<export hive=\"" << target.hive->name << "\" path=\"" << XmlEscaped(target.path)
              << "\">\n";
    WriteKeyXml(*key, 1);
    std::cout << "</export>\n";
    return kExitOk;
}

int RunRegSet(CToolContext& context) {
    ExpectArgs(context, 4, 4);
    const RegTarget target = ParseTarget(context);
    RequireStorable(context.args[1], "key path");
    RequireStorable(context.args[2], "value name");
    RequireStorable(context.args[3], "value");
    for (const std::string& piece : target.pieces) {
        if (!IsStorableKeyName(piece))
            throw CUsageError{"'" + piece + "' cannot be a key name: keys are XML names"};
    }
    const std::string name = StoredName(context.args[2]);
    const std::string& data = context.args[3];
    const bool dword = context.flags.count("--dword") != 0;
    unsigned int number = 0;
    if (dword && !ParseDword(data, number))
        throw CUsageError{"'" + data + "' is not a 32-bit number"};
    const std::wstring wideName = Wide(name);
    const std::wstring wideData = Wide(data);
    if (FAILED(EnsureRegistry())) return kExitFailed;

    // Missing keys are made, the hive's own root included (a fresh registry
    // has no user or system hive), so the walk starts at the maker root.
    std::vector<std::string> fromMakerRoot = SplitKeyPath(target.hive->belowMakerRoot);
    fromMakerRoot.insert(fromMakerRoot.end(), target.pieces.begin(), target.pieces.end());
    COM_IRegistry* registry = Registry();
    const std::string where = "reg set " + target.Describe();
    COM_ClearErrorInfo();
    HRESULT hr = registry->Open(4, L"");
    if (SUCCEEDED(hr) && !fromMakerRoot.empty())
        hr = registry->CreateKey(Wide(JoinKeyPath(fromMakerRoot)).c_str(), 1);
    if (SUCCEEDED(hr)) {
        hr = dword ? registry->SetValueDWORD(wideName.c_str(), number)
                   : registry->SetValueString(wideName.c_str(), wideData.c_str());
    }
    registry->Close();
    if (FAILED(hr)) {
        ReportError(where, hr, ChangeFailure("value " + ValueLabel(name) + " not set"));
        return kExitFailed;
    }
    const std::string stored = dword ? std::to_string(number) : data;
    if (context.json) {
        CJsonWriter(std::cout)
            .BeginObject()
            .Key("hive").String(target.hive->name)
            .Key("path").String(target.path)
            .Key("name").String(name)
            .Key("type").String(dword ? "dword" : "string")
            .Key("data").String(stored)
            .EndObject();
    } else {
        std::cout << "set " << target.Describe() << ": " << ValueLabel(name) << " = "
                  << (dword ? stored + " (dword)" : Quoted(stored)) << "\n";
    }
    return kExitOk;
}

int RunRegDelete(CToolContext& context) {
    ExpectArgs(context, 2, 3);
    const RegTarget target = ParseTarget(context);
    const bool deleteValue = context.args.size() == 3;
    if (!deleteValue && target.pieces.empty())
        throw CUsageError{"give the key to delete: a hive root is deleted from hive 4 (root)"};
    const std::string name = deleteValue ? StoredName(context.args[2]) : "";
    const std::wstring wideName = Wide(name);
    if (FAILED(EnsureRegistry())) return kExitFailed;

    const std::string where = "reg delete " + target.Describe();
    if (FAILED(OpenKey(where, target))) return kExitFailed;
    COM_IRegistry* registry = Registry();
    COM_ClearErrorInfo();
    HRESULT hr;
    if (deleteValue) {
        // The runtime removes a missing default value without complaint and
        // reports any other missing value as a write failure: say which.
        const RegKey* key = SnapshotKey(where, target);
        if (!key) return kExitFailed;
        if (!key->FindValue(name)) {
            ReportError(where, REGDB_E_INVALIDVALUE, "no value " + ValueLabel(name));
            return kExitFailed;
        }
        hr = registry->Open(target.hive->number, Wide(target.path).c_str());
        if (SUCCEEDED(hr)) hr = registry->DeleteValue(wideName.c_str());
    } else {
        std::vector<std::string> parent = target.pieces;
        parent.pop_back();
        hr = registry->Open(target.hive->number, Wide(JoinKeyPath(parent)).c_str());
        if (SUCCEEDED(hr)) hr = registry->DeleteKey(Wide(target.pieces.back()).c_str());
    }
    registry->Close();
    if (FAILED(hr)) {
        ReportError(where, hr, ChangeFailure(deleteValue ? "value " + ValueLabel(name) + " not deleted"
                                                         : "key not deleted"));
        return kExitFailed;
    }
    if (context.json) {
        CJsonWriter(std::cout)
            .BeginObject()
            .Key("hive").String(target.hive->name)
            .Key("path").String(target.path)
            .Key("deleted").String(deleteValue ? "value" : "key")
            .Key("name").OptionalString(deleteValue, name)
            .EndObject();
    } else if (deleteValue) {
        std::cout << "deleted value " << ValueLabel(name) << " of " << target.Describe() << "\n";
    } else {
        std::cout << "deleted key " << target.Describe() << "\n";
    }
    return kExitOk;
}
