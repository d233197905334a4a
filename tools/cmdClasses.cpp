// classes and create: what is registered, and what an object of a class
// answers.
#include <algorithm>
#include <iomanip>
#include <iostream>
#include <iterator>

#include "toolInternal.h"

namespace {

struct ClassRow {
    std::string clsid;
    const std::string* progId;
    const std::string* library;
    const std::string* installCount;
    const std::string* displayName;
    const std::string* description;
};

std::string OrDash(const std::string* text) { return text ? *text : "-"; }

// The count as the runtime reads it: decimal digits and nothing else.
bool ParseCount(const std::string* text, long long& count) {
    if (!text || text->empty() || text->size() > 10) return false;
    if (!std::all_of(text->begin(), text->end(), [](char c) { return c >= '0' && c <= '9'; }))
        return false;
    count = std::stoll(*text);
    return count <= 0xFFFFFFFFLL;
}

std::vector<ClassRow> ReadClasses() {
    std::vector<ClassRow> rows;
    const RegKey* root = HiveRoot(HiveByNumber(1));
    const RegKey* classes = root ? root->Find("CLSID") : nullptr;
    if (!classes) return rows;
    for (const RegKey& key : classes->keys) {
        rows.push_back({key.name, key.SubkeyDefault("ProgID"),
                        key.SubkeyDefault("InprocServer32"), key.SubkeyDefault("InstallCount"),
                        key.SubkeyDefault("DisplayName"), key.SubkeyDefault("Description")});
    }
    return rows;
}

void PrintClassesJson(const std::vector<ClassRow>& rows) {
    CJsonWriter json(std::cout);
    json.BeginObject().Key("registry").String(RegistryFilePath()).Key("classes").BeginArray();
    for (const ClassRow& row : rows) {
        long long count = 0;
        json.BeginObject()
            .Key("clsid").String(row.clsid)
            .Key("progid").OptionalString(row.progId, OrDash(row.progId))
            .Key("inprocServer32").OptionalString(row.library, OrDash(row.library))
            .Key("installCount");
        if (ParseCount(row.installCount, count))
            json.Number(count);
        else
            json.Null();
        json.Key("displayName").OptionalString(row.displayName, OrDash(row.displayName))
            .Key("description").OptionalString(row.description, OrDash(row.description))
            .EndObject();
    }
    json.EndArray().EndObject();
}

void PrintClassesTable(const std::vector<ClassRow>& rows) {
    if (rows.empty()) {
        std::cout << "no classes registered in " << RegistryFilePath() << "\n";
        return;
    }
    size_t progWidth = 6, libWidth = 14;
    for (const ClassRow& row : rows) {
        progWidth = std::max(progWidth, OrDash(row.progId).size());
        libWidth = std::max(libWidth, OrDash(row.library).size());
    }
    auto line = [&](const std::string& clsid, const std::string& progId,
                    const std::string& library, const std::string& count,
                    const std::string& name) {
        std::cout << std::left << std::setw(38) << clsid << "  " << std::setw(progWidth) << progId
                  << "  " << std::setw(libWidth) << library << "  " << std::setw(5) << count
                  << "  " << name << "\n";
    };
    line("CLSID", "PROGID", "INPROCSERVER32", "COUNT", "NAME");
    for (const ClassRow& row : rows) {
        // The display name names the class best; the description stands in.
        const std::string* name = row.displayName ? row.displayName : row.description;
        line(row.clsid, OrDash(row.progId), OrDash(row.library), OrDash(row.installCount),
             OrDash(name));
    }
}

// The runtime's own interfaces, which `create` asks every object for.
struct KnownInterface {
    const COM_GUID* iid;
    const char* name;
};

const KnownInterface kRuntimeInterfaces[] = {
    {&COM_IID_IUnknown, "COM_IID_IUnknown"},
    {&COM_IID_IClassFactory, "COM_IID_IClassFactory"},
    {&COM_IID_IErrorInfo, "COM_IID_IErrorInfo"},
    {&COM_IID_ICreateErrorInfo, "COM_IID_ICreateErrorInfo"},
    {&COM_IID_IRegistry, "COM_IID_IRegistry"},
    {&COM_IID_IEnumBSTR, "COM_IID_IEnumBSTR"},
    {&COM_IID_IMemory, "COM_IID_IMemory"},
    {&COM_IID_ICatRegister, "COM_IID_ICatRegister"},
    {&COM_IID_ICatInformation, "COM_IID_ICatInformation"},
    {&COM_IID_IEnumCATEGORYINFO, "COM_IID_IEnumCATEGORYINFO"},
    {&COM_IID_IEnumCLSID, "COM_IID_IEnumCLSID"},
    {&COM_IID_IMoniker, "COM_IID_IMoniker"},
    {&COM_IID_IMonikerData, "COM_IID_IMonikerData"},
    {&COM_IID_IDecodeHResult, "COM_IID_IDecodeHResult"},
};

using UnknownPtr = utlAutoIf<COM_IUnknown, &COM_IID_IUnknown>;

std::vector<std::string> AnsweredInterfaces(COM_IUnknown* object) {
    std::vector<std::string> names;
    for (const KnownInterface& known : kRuntimeInterfaces) {
        UnknownPtr answer;
        if (SUCCEEDED(object->QueryInterface(*known.iid, answer.OutVoid())) && !answer.IsNull())
            names.push_back(known.name);
    }
    return names;
}

}  // namespace

HRESULT CreateObject(const COM_GUID& clsid, const COM_GUID& iid, UnknownPtr& object,
                     std::string& detail) {
    try {
        return COM_CreateInstance(clsid, nullptr, iid, object.OutVoid());
    } catch (const utlAutoIfBase::XBadPtrException&) {
        detail = "the class's library reported success but handed out no class factory";
        return E_POINTER;
    }
}

HRESULT ResolveClass(const std::string& name, COM_GUID& clsid, std::string& detail) {
    if (ParseGuid(name, clsid)) return S_OK;
    std::wstring progId = Wide(name);
    const HRESULT hr = COM_GetCLSIDFromProgID(&progId[0], &clsid);
    if (FAILED(hr)) detail = "'" + name + "' is neither a class identifier nor a registered ProgID";
    return hr;
}

int RunClasses(CToolContext& context) {
    ExpectArgs(context, 0, 0);
    if (FAILED(EnsureRegistry())) return kExitFailed;
    const std::vector<ClassRow> rows = ReadClasses();
    if (context.json)
        PrintClassesJson(rows);
    else
        PrintClassesTable(rows);
    return kExitOk;
}

int RunCreate(CToolContext& context) {
    ExpectArgs(context, 1, 1);
    const std::string& name = context.args[0];
    if (FAILED(EnsureRegistry())) return kExitFailed;

    COM_GUID clsid;
    std::string detail;
    HRESULT hr = ResolveClass(name, clsid, detail);
    if (FAILED(hr)) {
        ReportError("create " + name, hr, detail);
        return kExitFailed;
    }
    const std::string clsidText = TextOfGuid(clsid);

    COM_ClearErrorInfo();
    UnknownPtr object;
    hr = CreateObject(clsid, COM_IID_IUnknown, object, detail);
    // An object that does not admit to COM_IUnknown is still asked for the
    // runtime's other interfaces, one creation each, until one is granted.
    for (size_t i = 1; hr == E_NOINTERFACE && i < std::size(kRuntimeInterfaces); ++i)
        hr = CreateObject(clsid, *kRuntimeInterfaces[i].iid, object, detail);
    if (SUCCEEDED(hr) && object.IsNull()) {
        hr = E_POINTER;
        detail = "the factory reported success but handed out no object";
    }
    if (FAILED(hr)) {
        const std::string info = CurrentErrorInfo();
        if (!info.empty()) detail += (detail.empty() ? "" : "; ") + ("error info: " + info);
        if (context.json) {
            const std::string text = StatusText(hr);
            CJsonWriter(std::cout)
                .BeginObject()
                .Key("clsid").String(clsidText)
                .Key("created").Bool(false)
                .Key("code").String(HexCode(hr))
                .Key("text").String(text)
                .Key("errorInfo").OptionalString(!info.empty(), info)
                .EndObject();
        }
        ReportError("create " + (name == clsidText ? name : name + " (" + clsidText + ")"), hr,
                    detail);
        return kExitFailed;
    }

    const std::vector<std::string> interfaces = AnsweredInterfaces(object);
    const std::vector<std::string> own = AnsweredComponentInterfaces(object, nullptr);
    object.Reset();
    wchar_t* progIdText = nullptr;
    const bool hasProgId = SUCCEEDED(COM_GetProgIDFromClsid(clsid, &progIdText));
    const std::string progId = hasProgId ? TakeBstr(progIdText) : "";
    if (!hasProgId) COM_SysFreeString(progIdText);

    if (context.json) {
        CJsonWriter json(std::cout);
        json.BeginObject()
            .Key("clsid").String(clsidText)
            .Key("progid").OptionalString(hasProgId, progId)
            .Key("created").Bool(true)
            .Key("interfaces").BeginArray();
        for (const std::string& iface : interfaces)
            json.String(iface);
        json.EndArray();
        // Only components built from a definition have interfaces to list.
        if (!own.empty()) {
            json.Key("componentInterfaces").BeginArray();
            for (const std::string& iface : own)
                json.String(iface);
            json.EndArray();
        }
        json.EndObject();
        return kExitOk;
    }
    std::cout << "created " << clsidText;
    if (hasProgId) std::cout << " (" << progId << ")";
    std::cout << "\nruntime interfaces it answers:\n";
    for (const std::string& iface : interfaces)
        std::cout << "  " << iface << "\n";
    if (own.empty()) return kExitOk;
    std::cout << "component interfaces it answers (veltcom describe shows them):\n";
    for (const std::string& iface : own)
        std::cout << "  " << iface << "\n";
    return kExitOk;
}
