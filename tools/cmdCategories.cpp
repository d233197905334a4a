// categories: the component categories and the classes that belong to them.
//
// Read from the snapshot, not through the category manager: its enumerator
// stops at a category without a description, and a component that adds its
// classes to categories it never described leaves exactly that.
#include <iostream>

#include "toolInternal.h"

namespace {

const RegKey* CategoriesKey() {
    const RegKey* root = HiveRoot(HiveByNumber(1));
    return root ? root->Find("ComponentCategories") : nullptr;
}

// The member's ProgID when its class is registered; null otherwise.
const std::string* ProgIdOf(const std::string& clsid, bool& registered) {
    const RegKey* root = HiveRoot(HiveByNumber(1));
    const RegKey* classes = root ? root->Find("CLSID") : nullptr;
    const RegKey* key = classes ? classes->Find(clsid) : nullptr;
    registered = key != nullptr;
    return key ? key->SubkeyDefault("ProgID") : nullptr;
}

int ListCategories(const CToolContext& context, const RegKey* categories) {
    static const std::vector<RegKey> kNone;
    const std::vector<RegKey>& keys = categories ? categories->keys : kNone;
    if (context.json) {
        CJsonWriter json(std::cout);
        json.BeginObject().Key("categories").BeginArray();
        for (const RegKey& category : keys) {
            const std::string* description = category.Default();
            json.BeginObject()
                .Key("catid").String(category.name)
                .Key("description").OptionalString(description, description ? *description : "")
                .Key("classes").Number(static_cast<long long>(category.keys.size()))
                .EndObject();
        }
        json.EndArray().EndObject();
        return kExitOk;
    }
    if (keys.empty()) std::cout << "no categories registered\n";
    for (const RegKey& category : keys) {
        const std::string* description = category.Default();
        std::cout << category.name << "  " << (description ? *description : "(no description)")
                  << "  (" << category.keys.size()
                  << (category.keys.size() == 1 ? " class)\n" : " classes)\n");
    }
    return kExitOk;
}

int ListMembers(const CToolContext& context, const RegKey* categories) {
    const std::string& arg = context.args[0];
    COM_GUID catid;
    if (!ParseGuid(arg, catid)) throw CUsageError{"'" + arg + "' is not a category identifier"};
    const std::string text = TextOfGuid(catid);
    const RegKey* category = categories ? categories->Find(text) : nullptr;
    if (!category) {
        ReportError("categories " + arg, REGDB_E_KEYMISSING, "no category " + text);
        return kExitFailed;
    }
    const std::string* description = category->Default();
    if (context.json) {
        CJsonWriter json(std::cout);
        json.BeginObject()
            .Key("catid").String(text)
            .Key("description").OptionalString(description, description ? *description : "")
            .Key("classes").BeginArray();
        for (const RegKey& member : category->keys) {
            bool registered = false;
            const std::string* progId = ProgIdOf(member.name, registered);
            json.BeginObject()
                .Key("clsid").String(member.name)
                .Key("progid").OptionalString(progId, progId ? *progId : "")
                .Key("registered").Bool(registered)
                .EndObject();
        }
        json.EndArray().EndObject();
        return kExitOk;
    }
    std::cout << text << "  " << (description ? *description : "(no description)") << "\n";
    if (category->keys.empty()) std::cout << "  no classes\n";
    for (const RegKey& member : category->keys) {
        bool registered = false;
        const std::string* progId = ProgIdOf(member.name, registered);
        std::cout << "  " << member.name << "  "
                  << (progId ? *progId : registered ? "(no ProgID)" : "(not registered)") << "\n";
    }
    return kExitOk;
}

}  // namespace

int RunCategories(CToolContext& context) {
    ExpectArgs(context, 0, 1);
    COM_GUID catid;
    if (!context.args.empty() && !ParseGuid(context.args[0], catid))
        throw CUsageError{"'" + context.args[0] + "' is not a category identifier"};
    if (FAILED(EnsureRegistry())) return kExitFailed;
    const RegKey* categories = CategoriesKey();
    return context.args.empty() ? ListCategories(context, categories)
                                : ListMembers(context, categories);
}
