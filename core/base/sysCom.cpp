// The built-in status message table and the text of a status code.
#include <algorithm>
#include <cstdint>
#include <cstring>
#include <iterator>
#include <string>
#include <string_view>

#include "comApi.h"
#include "baseInternal.h"

namespace {

// Facilities rendered by rule rather than by the table.
const unsigned kFacilitySsh = 0x10;
const unsigned kFacilitySystem = 0x62;
const unsigned kFacilityVelt = 0x6F;
const unsigned kFacilityVeltCallIn = 0x70;
const unsigned kFacilityDns = 0x7C;

// " [" + eight hexadecimal places + "]".
const size_t kHexWidth = 8;
const size_t kSuffixLength = kHexWidth + 3;
// A 16-bit number, or 65538 minus one, never needs more than five digits.
const size_t kMaxDecimalDigits = 5;

const std::wstring_view kUnknownError = L"Unknown error";
const std::wstring_view kUnknownException = L"Unknown Exception";

struct StatusMessage {
    uint32_t code;
    std::wstring_view text;
};

// Sorted by the code taken as unsigned, for the binary search below.
constexpr StatusMessage kStatusMessages[] = {
    {0x00000000, L"OK status"},
    {0x00000001, L"FALSE status"},
    {0x80004001, L"Method not implemented"},
    {0x80004002, L"Can't find specified interface"},
    {0x80004003, L"Invalid Pointer"},
    {0x80004005, L"General failure"},
    {0x8000FFFF, L"Unknown error"},
    {0x80020001, L"Unknown interface"},
    {0x80020003, L"Can't find property"},
    {0x80020004, L"Can't find parameter"},
    {0x80020005, L"Type mismatch"},
    {0x80020006, L"Can't find method"},
    {0x80020007, L"No named arguments"},
    {0x80020008, L"Bad variable type"},
    {0x80020009, L"Exception occurred"},
    {0x8002000A, L"Out of present range"},
    {0x8002000B, L"Bad Index"},
    {0x8002000C, L"Unknown language"},
    {0x8002000D, L"Memory is locked"},
    {0x8002000E, L"Invalid number of parameters"},
    {0x8002000F, L"Parameter not optional"},
    {0x80020010, L"Invalid callee"},
    {0x80020011, L"Does not support a collection"},
    {0x80020012, L"Division by zero"},
    {0x80030002, L"File not found"},
    {0x80030103, L"Can't open file for save"},
    {0x80040110, L"Can't aggregate this object"},
    {0x80040111, L"CoClass not available"},
    {0x80040150, L"Could not read from the registry"},
    {0x80040151, L"Could not write to the registry"},
    {0x80040152, L"Key is missing from the registry"},
    {0x80040153, L"Invalid value for registry"},
    {0x800401F8, L"Couldn't find DLL"},
    {0x800401F9, L"Entry point not found in DLL"},
    {0x80040300, L"No resource"},
    {0x80040301, L"Already have this item"},
    {0x80040302, L"Does not have this item"},
    {0x8007000E, L"Ran out of memory"},
    {0x80070057, L"One or more arguments are invalid"},
    {0x80100001, L"SSH: Not currently connected"},
    {0x80100002, L"SSH: Host key mismatched"},
    {0x80100003, L"SSH: Invalid hostname or address"},
    {0x80100004, L"SSH: Operation timed out"},
    {0x80100005, L"SSH: Already connected"},
    {0x80100006, L"SSH: No session"},
    {0x80100007, L"SSH: No channel"},
    {0x80100008, L"SSH: No SFTP handle"},
    {0x80100009, L"SSH: Session in use"},
    {0x8010000A, L"SSH: Already Authenticated"},
    {0x80670001, L"TNode internal error"},
    {0x80670002, L"VELT server error"},
    {0x80670003, L"VELT TNodeServer interface is not set"},
    {0x80670004, L"Keyword descriptor is missing or incorrect"},
    {0x80670005, L"Element name conflict"},
    {0x80670006, L"Element name is invalid"},
    {0x80670007, L"Class does not exist"},
    {0x80670008, L"TNode not found"},
    {0x80670009, L"Class already exists"},
    {0x8067000A, L"Class name is invalid"},
    {0x8067000B, L"Class name is longer than 127 characters"},
    {0x8067000C, L"Class member name is longer than 31 characters"},
    {0x8067000D, L"Class can not be opened because it is deployed"},
    {0x8067000E, L"Communication protocol errorror"},
    {0x8067000F, L"Server Disconnected"},
    {0x80680001, L"Error during parse"},
    {0x80680002, L"Error during compilation"},
    {0x80680003, L"Syntax Error"},
    {0x80680004, L"Parser does not support this moniker extension"},
    {0x80720001, L"Bad XML Definition"},
    {0x80730001, L"Invalid attribute bookmark"},
    {0x80740001, L"Activate: result too large"},
    {0x807A0001, L"Open LDAP Initialization Failed"},
    {0x807F0001, L"Unable to spawn child process"},
    {0x807F0002, L"Error in spawned child process"},
    {0x807F0003, L"Server Errorr"},
    {0x807F0004, L"XMLHttpRequest Error"},
    {0x807F0005, L"Protocol Version Error"},
    {0x807F0006, L"Data Format Error"},
};

constexpr bool IsStrictlySorted() {
    for (size_t i = 1; i < std::size(kStatusMessages); ++i)
        if (kStatusMessages[i - 1].code >= kStatusMessages[i].code) return false;
    return true;
}

static_assert(IsStrictlySorted(), "the status table must stay sorted for the binary search");
static_assert(std::size(kStatusMessages) == 78, "the status table has 78 codes");

// FNV-1a over every code and every character of its text, each taken as four
// bytes. The texts are the runtime's stated messages, which callers compare
// verbatim: changing, adding or dropping a single character must fail the
// build; update the digest only when a stated text really changes.
constexpr uint32_t TableDigest() {
    uint32_t hash = 2166136261u;
    auto mix = [&hash](uint32_t word) {
        for (int shift = 0; shift < 32; shift += 8) hash = (hash ^ ((word >> shift) & 0xFF)) * 16777619u;
    };
    for (const StatusMessage& message : kStatusMessages) {
        mix(message.code);
        for (wchar_t c : message.text) mix(static_cast<uint32_t>(c));
        mix(0);
    }
    return hash;
}

static_assert(TableDigest() == 2812215938u, "a stated status text or code changed");

unsigned FacilityOf(uint32_t code) { return (code >> 16) & 0x1FFF; }

unsigned NumberOf(uint32_t code) { return code & 0xFFFF; }

unsigned SubsystemOf(uint32_t code) { return (code >> 12) & 0xF; }

// The table's text for a code; an unlisted code has the generic text.
std::wstring_view TableMessage(uint32_t code) {
    const auto end = std::end(kStatusMessages);
    const auto found = std::lower_bound(
        std::begin(kStatusMessages), end, code,
        [](const StatusMessage& entry, uint32_t wanted) { return entry.code < wanted; });
    if (found == end || found->code != code) return kUnknownError;
    return found->text;
}

// Messages without a number in them: facility 16 sorts its codes into
// subsystems by one nibble, and only subsystem 0 has entries in the table.
std::wstring_view FixedMessage(uint32_t code) {
    if (FacilityOf(code) != kFacilitySsh) return TableMessage(code);
    switch (SubsystemOf(code)) {
    case 0:
        return TableMessage(code);
    case 1:
        return L"SSH Error";
    case 2:
        return L"SFTP Error";
    default:
        return kUnknownError;
    }
}

// Digits are written into a local buffer: the result string is the only
// allocation the expansion makes.
void AppendDecimal(std::wstring& out, unsigned long value) {
    wchar_t digits[20];
    wchar_t* const end = std::end(digits);
    wchar_t* first = end;
    do {
        *--first = static_cast<wchar_t>(L'0' + value % 10);
        value /= 10;
    } while (value != 0);
    out.append(first, end);
}

void StartNumbered(std::wstring& out, std::wstring_view label, unsigned long value) {
    out.reserve(label.size() + kMaxDecimalDigits + kSuffixLength);
    out.append(label);
    AppendDecimal(out, value);
}

void StartSystemText(std::wstring& out, unsigned number) {
    // A multibyte text never widens to more characters than it has bytes.
    const char* message = SystemErrorMessage(static_cast<int>(number));
    const size_t length =
        message ? std::strlen(message) : kUnknownException.size() + kMaxDecimalDigits;
    out.reserve(length + kSuffixLength);
    AppendSystemErrorText(out, number);
}

void StartFixed(std::wstring& out, std::wstring_view message) {
    out.reserve(message.size() + kSuffixLength);
    out.append(message);
}

// The code in upper-case hexadecimal, padded with blanks (not zeros) to
// eight places, so that the codes line up in a column of messages.
void AppendCodeSuffix(std::wstring& out, uint32_t code) {
    static const wchar_t kHexDigits[] = L"0123456789ABCDEF";
    wchar_t field[kHexWidth];
    size_t first = kHexWidth;
    do {
        field[--first] = kHexDigits[code & 0xF];
        code >>= 4;
    } while (code != 0);
    std::fill(field, field + first, L' ');
    out += L" [";
    out.append(field, kHexWidth);
    out += L']';
}

}  // namespace

std::wstring COM_HRESULT_Expansion(int hr) {
    const uint32_t code = static_cast<uint32_t>(hr);
    const unsigned number = NumberOf(code);
    std::wstring out;
    switch (FacilityOf(code)) {
    case kFacilityVelt:
        StartNumbered(out, L"VELT error #", number);
        break;
    case kFacilityVeltCallIn:
        StartNumbered(out, L"VELT call-in error #", number);
        break;
    case kFacilitySystem:
        StartSystemText(out, number);
        break;
    case kFacilityDns:
        // The offset of 65538, not 65536, is intended: do not "correct" it.
        StartNumbered(out, L"ZeroC-DNS error #-", 0x10002UL - number);
        break;
    default:
        StartFixed(out, FixedMessage(code));
        break;
    }
    AppendCodeSuffix(out, code);
    return out;
}
