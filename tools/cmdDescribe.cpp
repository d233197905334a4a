// describe: what a class or an interface declares, from the type information
// its component compiled in; and the registered interfaces `create` asks for.
#include <iostream>

#include "toolInternal.h"

namespace {

using TypeInfoPtr = utlAutoIf<COM_ITypeInfo, &COM_IID_ITypeInfo>;
using UnknownPtr = utlAutoIf<COM_IUnknown, &COM_IID_IUnknown>;

struct ParamText {
    std::string name, type, direction;
    bool retval;
};

struct MethodText {
    std::string name;
    std::vector<ParamText> params;
};

struct InterfaceText {
    std::string iid, name, base;
    std::vector<MethodText> methods;
};

std::string Direction(unsigned int flags) {
    if ((flags & COM_PARAM_IN) && (flags & COM_PARAM_OUT)) return "in, out";
    return flags & COM_PARAM_OUT ? "out" : "in";
}

// Reads one interface's description; false with the status reported when the
// runtime cannot give it.
bool Describe(const RegisteredInterface& registered, InterfaceText& out) {
    TypeInfoPtr info;
    HRESULT hr = COM_GetTypeInfo(registered.iid, info.Out());
    if (FAILED(hr)) {
        ReportError("describe " + registered.name, hr, "no type information");
        return false;
    }
    out.iid = TextOfGuid(registered.iid);
    // Every string is taken from a slot of its own call: a call that fails
    // may leave its slot unwritten.
    wchar_t* name = nullptr;
    wchar_t* baseName = nullptr;
    COM_GUID base;
    unsigned int methods = 0;
    hr = info->GetName(&name);
    out.name = TakeBstr(name);
    if (SUCCEEDED(hr)) hr = info->GetBase(&base, &baseName);
    out.base = TakeBstr(baseName);
    if (SUCCEEDED(hr)) hr = info->GetMethodCount(&methods);
    for (unsigned int m = 0; SUCCEEDED(hr) && m < methods; ++m) {
        MethodText method;
        unsigned int params = 0;
        wchar_t* methodName = nullptr;
        hr = info->GetMethod(m, &methodName, &params);
        method.name = TakeBstr(methodName);
        for (unsigned int p = 0; SUCCEEDED(hr) && p < params; ++p) {
            wchar_t* paramName = nullptr;
            wchar_t* type = nullptr;
            unsigned int flags = 0;
            hr = info->GetParam(m, p, &paramName, &type, &flags);
            method.params.push_back({TakeBstr(paramName), TakeBstr(type), Direction(flags),
                                     (flags & COM_PARAM_RETVAL) != 0});
        }
        out.methods.push_back(method);
    }
    if (FAILED(hr)) ReportError("describe " + registered.name, hr, "reading its type information");
    return SUCCEEDED(hr);
}

void PrintText(const InterfaceText& x) {
    std::cout << "interface " << x.name << " " << x.iid << " : " << x.base << "\n";
    for (const MethodText& m : x.methods) {
        std::cout << "  HRESULT " << m.name << "(";
        for (size_t i = 0; i < m.params.size(); ++i) {
            const ParamText& p = m.params[i];
            std::cout << (i ? ", " : "") << "[" << p.direction << (p.retval ? ", retval" : "")
                      << "] " << p.type << " " << p.name;
        }
        std::cout << ")\n";
    }
}

void PrintJson(CJsonWriter& json, const InterfaceText& x) {
    json.BeginObject().Key("iid").String(x.iid).Key("name").String(x.name).Key("base").String(
        x.base);
    json.Key("methods").BeginArray();
    for (const MethodText& m : x.methods) {
        json.BeginObject().Key("name").String(m.name).Key("params").BeginArray();
        for (const ParamText& p : m.params)
            json.BeginObject()
                .Key("name")
                .String(p.name)
                .Key("type")
                .String(p.type)
                .Key("direction")
                .String(p.direction)
                .Key("retval")
                .Bool(p.retval)
                .EndObject();
        json.EndArray().EndObject();
    }
    json.EndArray().EndObject();
}

}  // namespace

std::vector<RegisteredInterface> RegisteredInterfaces() {
    std::vector<RegisteredInterface> found;
    const RegKey* root = HiveRoot(HiveByNumber(1));
    const RegKey* interfaces = root ? root->Find("Interface") : nullptr;
    if (!interfaces) return found;
    for (const RegKey& key : interfaces->keys) {
        RegisteredInterface entry;
        if (!ParseGuid(key.name, entry.iid)) continue;
        const std::string* name = key.Default();
        entry.name = name ? *name : key.name;
        found.push_back(entry);
    }
    return found;
}

std::vector<std::string> AnsweredComponentInterfaces(COM_IUnknown* object,
                                                     std::vector<RegisteredInterface>* answered) {
    std::vector<std::string> names;
    for (const RegisteredInterface& registered : RegisteredInterfaces()) {
        UnknownPtr answer;
        if (FAILED(object->QueryInterface(registered.iid, answer.OutVoid())) || answer.IsNull())
            continue;
        names.push_back(registered.name);
        if (answered) answered->push_back(registered);
    }
    return names;
}

int RunDescribe(CToolContext& context) {
    ExpectArgs(context, 1, 1);
    const std::string& name = context.args[0];
    if (FAILED(EnsureRegistry())) return kExitFailed;

    // A registered interface's identifier describes that interface alone.
    std::vector<RegisteredInterface> chosen;
    COM_GUID id;
    std::string heading;
    if (ParseGuid(name, id)) {
        for (const RegisteredInterface& registered : RegisteredInterfaces())
            if (registered.iid == id) chosen.push_back(registered);
    }
    if (chosen.empty()) {
        std::string detail;
        HRESULT hr = ResolveClass(name, id, detail);
        UnknownPtr object;
        if (SUCCEEDED(hr)) hr = CreateObject(id, COM_IID_IUnknown, object, detail);
        if (FAILED(hr)) {
            ReportError("describe " + name, hr, detail);
            return kExitFailed;
        }
        AnsweredComponentInterfaces(object, &chosen);
        heading = "class " + TextOfGuid(id) + (name == TextOfGuid(id) ? "" : " (" + name + ")");
    }

    std::vector<InterfaceText> described(chosen.size());
    for (size_t i = 0; i < chosen.size(); ++i)
        if (!Describe(chosen[i], described[i])) return kExitFailed;
    if (context.json) {
        CJsonWriter json(std::cout);
        json.BeginObject();
        if (!heading.empty()) json.Key("clsid").String(TextOfGuid(id));
        json.Key("interfaces").BeginArray();
        for (const InterfaceText& x : described) PrintJson(json, x);
        json.EndArray().EndObject();
        return kExitOk;
    }
    if (!heading.empty())
        std::cout << heading << (described.empty() ? ": no described interfaces\n" : "\n");
    for (const InterfaceText& x : described) PrintText(x);
    return kExitOk;
}
