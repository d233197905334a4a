// decode: the text of status codes, through COM_DecodeHRESULT.
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <iostream>

#include "toolInternal.h"

namespace {

const unsigned kSystemFacility = 98;
const unsigned kFirstDecoderFacility = 100;

unsigned FacilityOf(HRESULT hr) { return (static_cast<unsigned>(hr) >> 16) & 0x1FFF; }

// 0x and up to eight hexadecimal digits, an unsigned decimal up to
// 4294967295, or a negative decimal down to -2147483648.
bool ParseCode(const std::string& text, HRESULT& code) {
    if (text.empty() || text[0] == '+' || text[0] == ' ') return false;
    const bool hex = text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X');
    const bool negative = text[0] == '-';
    if (hex && (text.size() > 10 || text[2] == '-' || text[2] == '+' || text[2] == ' '))
        return false;
    errno = 0;
    char* end = nullptr;
    if (negative) {
        const long long number = std::strtoll(text.c_str(), &end, 10);
        if (errno != 0 || *end != '\0' || end == text.c_str() + 1 || number < -2147483648LL)
            return false;
        code = static_cast<HRESULT>(number);
        return true;
    }
    const unsigned long long number = std::strtoull(text.c_str(), &end, hex ? 16 : 10);
    if (errno != 0 || *end != '\0' || number > 0xFFFFFFFFull) return false;
    code = static_cast<HRESULT>(static_cast<unsigned>(number));
    return true;
}

struct Decoded {
    std::string input;
    HRESULT code = S_OK;
    HRESULT result = S_OK;
    std::string text;
    std::string errorInfo;
    const char* source = "";
};

Decoded Decode(const std::string& input, HRESULT code) {
    Decoded d;
    d.input = input;
    d.code = code;
    // Finding a facility's decoder opens the registry.
    if (FacilityOf(code) >= kFirstDecoderFacility && FAILED(EnsureRegistry())) {
        d.result = EnsureRegistry();
        return d;
    }
    COM_ClearErrorInfo();
    wchar_t* text = nullptr;
    try {
        d.result = COM_DecodeHRESULT(code, 0, &text);
    } catch (const utlAutoIfBase::XBadPtrException&) {
        d.result = E_POINTER;
        text = nullptr;
    }
    if (FAILED(d.result)) {
        d.errorInfo = CurrentErrorInfo();
        return d;
    }
    d.text = TakeBstr(text);
    // S_FALSE marks the runtime's generic table text.
    d.source = d.result == S_FALSE                         ? "table"
               : FacilityOf(code) == kSystemFacility ? "system"
                                                     : "decoder";
    return d;
}

// Why no decoder answered, as far as the registry tells: the runtime's own
// binder names itself under Moniker\hresult when the runtime is registered,
// and each decoder adds a value named after its facility.
std::string MissingDecoderReason(const std::string& facility) {
    const RegKey* root = HiveRoot(HiveByNumber(1));
    const RegKey* binder = root ? root->Resolve({"Moniker", "hresult"}) : nullptr;
    if (!binder || !binder->Default())
        return "the runtime's hresult binder is not registered (veltcom register libveltcom.so)";
    if (!binder->FindValue(facility)) return "no decoder is registered for it";
    return "its decoder could not be created";
}

}  // namespace

int RunDecode(CToolContext& context) {
    ExpectArgs(context, 1, static_cast<size_t>(-1));
    std::vector<HRESULT> codes;
    for (const std::string& arg : context.args) {
        HRESULT code;
        if (!ParseCode(arg, code))
            throw CUsageError{"'" + arg + "' is not a status code (0x hex, decimal or negative)"};
        codes.push_back(code);
    }

    int exitCode = kExitOk;
    std::vector<Decoded> results;
    for (size_t i = 0; i < codes.size(); ++i) {
        results.push_back(Decode(context.args[i], codes[i]));
        const Decoded& d = results.back();
        if (SUCCEEDED(d.result)) {
            if (!context.json) std::cout << HexCode(d.code) << "  " << d.text << "\n";
            continue;
        }
        exitCode = kExitFailed;
        char facility[16];
        std::snprintf(facility, sizeof facility, "%X", FacilityOf(d.code));
        std::string detail = std::string("no text for facility 0x") + facility + " (moniker hresult:" +
                             facility + "): " + MissingDecoderReason(facility);
        if (!d.errorInfo.empty()) detail += "; error info: " + d.errorInfo;
        // A registry that could not be opened has been reported already.
        if (RegistryIsReady() || FacilityOf(d.code) < kFirstDecoderFacility)
            ReportError("decode " + HexCode(d.code), d.result, detail);
    }
    if (!context.json) return exitCode;

    CJsonWriter json(std::cout);
    json.BeginObject().Key("codes").BeginArray();
    for (const Decoded& d : results) {
        json.BeginObject()
            .Key("input").String(d.input)
            .Key("code").String(HexCode(d.code))
            .Key("value").Number(d.code)
            .Key("facility").Number(FacilityOf(d.code));
        if (SUCCEEDED(d.result)) {
            json.Key("source").String(d.source).Key("text").String(d.text);
        } else {
            const std::string text = StatusText(d.result);
            json.Key("error")
                .BeginObject()
                .Key("code").String(HexCode(d.result))
                .Key("text").String(text)
                .Key("errorInfo").OptionalString(!d.errorInfo.empty(), d.errorInfo)
                .EndObject();
        }
        json.EndObject();
    }
    json.EndArray().EndObject();
    return exitCode;
}
