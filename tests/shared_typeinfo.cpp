// Type information of a component built from a definition: registration
// records its interfaces, COM_GetTypeInfo reads back what the component
// compiled in, the tool describes it, and unregistration takes it away.
#include "idlSample.h"
#include "shared_tool_support.h"

namespace {

using TypeInfoPtr = utlAutoIf<COM_ITypeInfo, &COM_IID_ITypeInfo>;

class TypeInfoTest : public ToolTest {};

TEST_F(TypeInfoTest, RegisteredInterfacesReadBackAsDeclaredAndGoWithTheComponent) {
    COM_ITypeInfo* none = Unwritten<COM_ITypeInfo>();
    EXPECT_EQ(COM_GetTypeInfo(IID_ICalc, &none), REGDB_E_KEYMISSING);
    EXPECT_EQ(none, nullptr);
    EXPECT_EQ(COM_GetTypeInfo(IID_ICalc, nullptr), E_POINTER);

    RegisterWithTool(COMPONENT_testidl);
    // What the description below leaves out: the base's identifier, the flags
    // as they are (both bits of [in, out]), and the ends of the lists.
    TypeInfoPtr info;
    ASSERT_EQ(COM_GetTypeInfo(IID_ICalcMore, info.Out()), S_OK);
    COM_GUID base;
    wchar_t *text = nullptr, *type = nullptr;
    unsigned int flags = 0;
    ASSERT_EQ(info->GetBase(&base, &text), S_OK);
    EXPECT_EQ(base, IID_ICalc);
    EXPECT_EQ(Take(text), L"ICalc");
    ASSERT_EQ(info->GetParam(0, 0, &text, &type, &flags), S_OK);
    EXPECT_EQ(Take(text) + L" " + Take(type), L"value double*");
    EXPECT_EQ(flags, COM_PARAM_IN | COM_PARAM_OUT);
    EXPECT_EQ(info->GetMethod(5, &text, &flags), E_INVALIDARG);
    EXPECT_EQ(info->GetParam(0, 2, &text, &type, &flags), E_INVALIDARG);
    // Another identifier pointed at the library: its tables do not hold it.
    RunOk({"reg", "set", "1", "Interface\\" + Text(COM_IID_IMemory), "Library", "libtestidl.so"});
    EXPECT_EQ(COM_GetTypeInfo(COM_IID_IMemory, &none), E_NOINTERFACE);
    // A library that is not there is reported as activation reports it.
    RunOk({"reg", "set", "1", "Interface\\" + Text(COM_IID_IMemory), "Library", "libmissing.so"});
    COM_ClearErrorInfo();
    EXPECT_EQ(COM_GetTypeInfo(COM_IID_IMemory, &none), CO_E_DLLNOTFOUND);
    utlAutoIf<COM_IErrorInfo, &COM_IID_IErrorInfo> error;
    ASSERT_EQ(COM_GetErrorInfo(error.Out()), S_OK);
    ASSERT_EQ(error->GetLocation(&text), S_OK);
    EXPECT_EQ(Take(text), L"JCOM_API:COM_GetTypeInfo");
    RunOk({"reg", "delete", "1", "Interface\\" + Text(COM_IID_IMemory)});

    // The tool shows what the object answers, base interfaces included.
    const std::string lines[] = {
        "class " + Text(CLSID_IdlCalc) + " (Test.IdlCalc)",
        "interface ICalc " + Text(IID_ICalc) + " : COM_IUnknown",
        "  HRESULT Add([in] int32 a, [in] int32 b, [out, retval] int32* sum)",
        "  HRESULT Label([in] wstring prefix, [out, retval] BSTR* label)",
        "interface ICalcMore " + Text(IID_ICalcMore) + " : ICalc",
        "  HRESULT Scale([in, out] double* value, [in] SampleMode mode)",
        "  HRESULT Move([in] SamplePoint from, [out] SamplePoint* to)",
        "  HRESULT Find([in] GUID iid, [out] void** object)",
        "  HRESULT Pair([in] ICalc* other, [out] ICalc** same)",
        "  HRESULT Flags([in] boolean on, [in] uint64 mask, [out] int8* small)",
        "interface ISeparate " + Text(IID_ISeparate) + " : COM_IUnknown",
        "  HRESULT Ping()",
    };
    std::string described;
    for (const std::string& line : lines) described += line + "\n";
    EXPECT_EQ(RunOk({"describe", "Test.IdlCalc"}).out, described);
    EXPECT_TRUE(Contains(
        RunJson({"describe", Text(IID_ISeparate)}),
        R"("name":"ISeparate","base":"COM_IUnknown","methods":[{"name":"Ping","params":[]}])"));
    EXPECT_TRUE(Contains(RunOk({"create", "Test.IdlCalc"}).out,
                         "component interfaces it answers (veltcom describe shows them):\n"
                         "  ICalc\n  ICalcMore\n  ISeparate\n"));
    // The category's description came with it.
    EXPECT_TRUE(Contains(RunOk({"categories"}).out, "Sample calculators"));

    RunOk({"unregister", COMPONENT_testidl});
    EXPECT_EQ(COM_GetTypeInfo(IID_ICalc, &none), REGDB_E_KEYMISSING);
    EXPECT_FALSE(Contains(RegistryFile(), "<Interface"));
}

}  // namespace
