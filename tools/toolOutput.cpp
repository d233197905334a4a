// Text conversion, JSON output and the one-line error reports of the tool.
#include <cstdio>
#include <cwchar>
#include <iostream>

#include "toolInternal.h"

namespace {

const char32_t kReplacement = 0xFFFD;

void AppendUtf8(std::string& out, char32_t c) {
    if (c > 0x10FFFF || (c >= 0xD800 && c <= 0xDFFF)) c = kReplacement;
    if (c < 0x80) {
        out += static_cast<char>(c);
    } else if (c < 0x800) {
        out += static_cast<char>(0xC0 | (c >> 6));
        out += static_cast<char>(0x80 | (c & 0x3F));
    } else if (c < 0x10000) {
        out += static_cast<char>(0xE0 | (c >> 12));
        out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (c & 0x3F));
    } else {
        out += static_cast<char>(0xF0 | (c >> 18));
        out += static_cast<char>(0x80 | ((c >> 12) & 0x3F));
        out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (c & 0x3F));
    }
}

// The code point starting at text[i], advancing i; false on a malformed or
// overlong sequence.
bool DecodeUtf8(const std::string& text, size_t& i, char32_t& c) {
    const unsigned char lead = static_cast<unsigned char>(text[i]);
    size_t length;
    char32_t minimum;
    if (lead < 0x80) {
        c = lead;
        ++i;
        return true;
    } else if ((lead & 0xE0) == 0xC0) {
        length = 2, c = lead & 0x1F, minimum = 0x80;
    } else if ((lead & 0xF0) == 0xE0) {
        length = 3, c = lead & 0x0F, minimum = 0x800;
    } else if ((lead & 0xF8) == 0xF0) {
        length = 4, c = lead & 0x07, minimum = 0x10000;
    } else {
        return false;
    }
    if (text.size() - i < length) return false;
    for (size_t k = 1; k < length; ++k) {
        const unsigned char next = static_cast<unsigned char>(text[i + k]);
        if ((next & 0xC0) != 0x80) return false;
        c = (c << 6) | (next & 0x3F);
    }
    if (c < minimum || c > 0x10FFFF || (c >= 0xD800 && c <= 0xDFFF)) return false;
    i += length;
    return true;
}

bool IsHexDigit(char c) {
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
}

// 8-4-4-4-12 hexadecimal digits.
bool IsGuidBody(const std::string& text) {
    if (text.size() != 36) return false;
    for (size_t i = 0; i < text.size(); ++i) {
        const bool dash = i == 8 || i == 13 || i == 18 || i == 23;
        if (dash ? text[i] != '-' : !IsHexDigit(text[i])) return false;
    }
    return true;
}

// A report is one line, whatever a component put into its texts.
std::string OneLine(std::string text) {
    for (char& c : text) {
        if (static_cast<unsigned char>(c) < 0x20) c = ' ';
    }
    return text;
}

}  // namespace

std::string Utf8(const wchar_t* text, size_t length) {
    std::string out;
    for (size_t i = 0; i < length; ++i)
        AppendUtf8(out, static_cast<char32_t>(text[i]));
    return out;
}

std::string Utf8(const wchar_t* text) { return text ? Utf8(text, std::wcslen(text)) : ""; }

std::string Utf8(const std::u16string& text) {
    std::string out;
    for (size_t i = 0; i < text.size(); ++i) {
        char32_t c = text[i];
        if (c >= 0xD800 && c <= 0xDBFF && i + 1 < text.size() && text[i + 1] >= 0xDC00 &&
            text[i + 1] <= 0xDFFF) {
            c = 0x10000 + ((c - 0xD800) << 10) + (text[i + 1] - 0xDC00);
            ++i;
        }
        AppendUtf8(out, c);
    }
    return out;
}

std::wstring Wide(const std::string& text) {
    std::wstring out;
    for (size_t i = 0; i < text.size();) {
        char32_t c;
        if (!DecodeUtf8(text, i, c)) throw CUsageError{"'" + text + "' is not valid UTF-8 text"};
        out += static_cast<wchar_t>(c);
    }
    return out;
}

std::string TakeBstr(wchar_t* text) {
    if (!text) return "";
    const std::string out = Utf8(text, COM_SysStringLen(text));
    COM_SysFreeString(text);
    return out;
}

std::string HexCode(HRESULT hr) {
    char buffer[16];
    std::snprintf(buffer, sizeof buffer, "0x%08X", static_cast<unsigned>(hr));
    return buffer;
}

std::string TextOfGuid(const COM_GUID& id) {
    wchar_t* text = nullptr;
    if (FAILED(COM_CLSIDToString(id, &text))) {
        COM_SysFreeString(text);
        return "";
    }
    return TakeBstr(text);
}

bool ParseGuid(const std::string& text, COM_GUID& id) {
    std::string body = text;
    if (body.size() == 38 && ((body.front() == '_' && body.back() == '_') ||
                              (body.front() == '{' && body.back() == '}')))
        body = body.substr(1, 36);
    if (!IsGuidBody(body)) return false;
    const std::wstring runtimeForm = L"_" + Wide(body) + L"_";
    return SUCCEEDED(COM_StringToCLSID(runtimeForm.c_str(), &id));
}

bool IsCanonicalGuidText(const std::string& text) {
    COM_GUID id;
    return text.size() == 38 && text.front() == '_' && ParseGuid(text, id) &&
           TextOfGuid(id) == text;
}

void CJsonWriter::BeforeValue() {
    if (m_afterKey) {
        m_afterKey = false;
        return;
    }
    if (!m_hasValue.empty()) {
        if (m_hasValue.back()) m_out << ',';
        m_hasValue.back() = true;
    }
}

CJsonWriter& CJsonWriter::BeginObject() {
    BeforeValue();
    m_out << '{';
    m_hasValue.push_back(false);
    return *this;
}

CJsonWriter& CJsonWriter::EndObject() {
    m_out << '}';
    m_hasValue.pop_back();
    if (m_hasValue.empty()) m_out << '\n';
    return *this;
}

CJsonWriter& CJsonWriter::BeginArray() {
    BeforeValue();
    m_out << '[';
    m_hasValue.push_back(false);
    return *this;
}

CJsonWriter& CJsonWriter::EndArray() {
    m_out << ']';
    m_hasValue.pop_back();
    if (m_hasValue.empty()) m_out << '\n';
    return *this;
}

CJsonWriter& CJsonWriter::Key(const std::string& name) {
    String(name);
    m_out << ':';
    m_afterKey = true;
    return *this;
}

CJsonWriter& CJsonWriter::String(const std::string& utf8) {
    BeforeValue();
    m_out << '"';
    for (size_t i = 0; i < utf8.size();) {
        char32_t c;
        if (!DecodeUtf8(utf8, i, c)) {
            // Bytes that are no UTF-8 (a hand-edited file) must still make
            // valid JSON.
            c = kReplacement;
            ++i;
        }
        switch (c) {
        case '"': m_out << "\\\""; break;
        case '\\': m_out << "\\\\"; break;
        case '\n': m_out << "\\n"; break;
        case '\r': m_out << "\\r"; break;
        case '\t': m_out << "\\t"; break;
        default:
            if (c < 0x20) {
                char escape[8];
                std::snprintf(escape, sizeof escape, "\\u%04x", static_cast<unsigned>(c));
                m_out << escape;
            } else {
                std::string encoded;
                AppendUtf8(encoded, c);
                m_out << encoded;
            }
        }
    }
    m_out << '"';
    return *this;
}

CJsonWriter& CJsonWriter::Number(long long value) {
    BeforeValue();
    m_out << value;
    return *this;
}

CJsonWriter& CJsonWriter::Bool(bool value) {
    BeforeValue();
    m_out << (value ? "true" : "false");
    return *this;
}

CJsonWriter& CJsonWriter::Null() {
    BeforeValue();
    m_out << "null";
    return *this;
}

CJsonWriter& CJsonWriter::OptionalString(bool present, const std::string& utf8) {
    return present ? String(utf8) : Null();
}

std::string StatusText(HRESULT hr) {
    const unsigned facility = (static_cast<unsigned>(hr) >> 16) & 0x1FFF;
    if (facility < 100 || RegistryIsReady()) {
        wchar_t* text = nullptr;
        try {
            if (SUCCEEDED(COM_DecodeHRESULT(hr, 0, &text)) && text) return TakeBstr(text);
        } catch (...) {
            // A decoder that misbehaves must not cost the report its text.
        }
        COM_SysFreeString(text);
    }
    return Utf8(COM_HRESULT_Expansion(hr).c_str());
}

std::string CurrentErrorInfo() {
    utlAutoIf<COM_IErrorInfo, &COM_IID_IErrorInfo> info;
    if (COM_GetErrorInfo(info.Out()) != S_OK || info.IsNull()) return "";
    wchar_t* description = nullptr;
    wchar_t* location = nullptr;
    info->GetDescription(&description);
    info->GetLocation(&location);
    const std::string text = TakeBstr(description);
    const std::string where = TakeBstr(location);
    if (text.empty() && where.empty()) return "";
    return "\"" + text + "\"" + (where.empty() ? "" : " at " + where);
}

void ReportError(const std::string& context, HRESULT hr, const std::string& detail) {
    std::string line = "veltcom: " + context + ": " + HexCode(hr) + " " + StatusText(hr);
    if (!detail.empty()) line += "; " + detail;
    std::cout.flush();
    std::cerr << OneLine(line) << std::endl;
}
