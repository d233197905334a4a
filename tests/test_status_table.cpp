// The text of status codes: the built-in table, the facility rules and the
// bracketed code behind every message.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <map>
#include <new>
#include <set>
#include <string>

#include "comApi.h"
#include "testSupport.h"

// Counts allocations, so that the expansion's one-allocation budget is checked.
static int g_allocations = 0;

void* operator new(std::size_t size) {
    ++g_allocations;
    if (void* p = std::malloc(size ? size : 1)) return p;
    throw std::bad_alloc();
}

// The compiler cannot tell that these frees pair with the malloc above.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"
void operator delete(void* p) noexcept { std::free(p); }
void operator delete(void* p, std::size_t) noexcept { std::free(p); }
#pragma GCC diagnostic pop

namespace {

struct Row {
    uint32_t code;
    const wchar_t* text;
};

const Row kRows[] = {
    {0x00000000, L"OK status"}, {0x00000001, L"FALSE status"},
    {0x80004001, L"Method not implemented"}, {0x80004002, L"Can't find specified interface"},
    {0x80004003, L"Invalid Pointer"}, {0x80004005, L"General failure"},
    {0x8000FFFF, L"Unknown error"}, {0x80020001, L"Unknown interface"},
    {0x80020003, L"Can't find property"}, {0x80020004, L"Can't find parameter"},
    {0x80020005, L"Type mismatch"}, {0x80020006, L"Can't find method"},
    {0x80020007, L"No named arguments"}, {0x80020008, L"Bad variable type"},
    {0x80020009, L"Exception occurred"}, {0x8002000A, L"Out of present range"},
    {0x8002000B, L"Bad Index"}, {0x8002000C, L"Unknown language"},
    {0x8002000D, L"Memory is locked"}, {0x8002000E, L"Invalid number of parameters"},
    {0x8002000F, L"Parameter not optional"}, {0x80020010, L"Invalid callee"},
    {0x80020011, L"Does not support a collection"}, {0x80020012, L"Division by zero"},
    {0x80030002, L"File not found"}, {0x80030103, L"Can't open file for save"},
    {0x80040110, L"Can't aggregate this object"}, {0x80040111, L"CoClass not available"},
    {0x80040150, L"Could not read from the registry"}, {0x80040151, L"Could not write to the registry"},
    {0x80040152, L"Key is missing from the registry"}, {0x80040153, L"Invalid value for registry"},
    {0x800401F8, L"Couldn't find DLL"}, {0x800401F9, L"Entry point not found in DLL"},
    {0x80040300, L"No resource"}, {0x80040301, L"Already have this item"},
    {0x80040302, L"Does not have this item"}, {0x8007000E, L"Ran out of memory"},
    {0x80070057, L"One or more arguments are invalid"}, {0x80100001, L"SSH: Not currently connected"},
    {0x80100002, L"SSH: Host key mismatched"}, {0x80100003, L"SSH: Invalid hostname or address"},
    {0x80100004, L"SSH: Operation timed out"}, {0x80100005, L"SSH: Already connected"},
    {0x80100006, L"SSH: No session"}, {0x80100007, L"SSH: No channel"},
    {0x80100008, L"SSH: No SFTP handle"}, {0x80100009, L"SSH: Session in use"},
    {0x8010000A, L"SSH: Already Authenticated"}, {0x80670001, L"TNode internal error"},
    {0x80670002, L"VELT server error"}, {0x80670003, L"VELT TNodeServer interface is not set"},
    {0x80670004, L"Keyword descriptor is missing or incorrect"}, {0x80670005, L"Element name conflict"},
    {0x80670006, L"Element name is invalid"}, {0x80670007, L"Class does not exist"},
    {0x80670008, L"TNode not found"}, {0x80670009, L"Class already exists"},
    {0x8067000A, L"Class name is invalid"}, {0x8067000B, L"Class name is longer than 127 characters"},
    {0x8067000C, L"Class member name is longer than 31 characters"},
    {0x8067000D, L"Class can not be opened because it is deployed"},
    {0x8067000E, L"Communication protocol errorror"}, {0x8067000F, L"Server Disconnected"},
    {0x80680001, L"Error during parse"}, {0x80680002, L"Error during compilation"},
    {0x80680003, L"Syntax Error"}, {0x80680004, L"Parser does not support this moniker extension"},
    {0x80720001, L"Bad XML Definition"}, {0x80730001, L"Invalid attribute bookmark"},
    {0x80740001, L"Activate: result too large"}, {0x807A0001, L"Open LDAP Initialization Failed"},
    {0x807F0001, L"Unable to spawn child process"}, {0x807F0002, L"Error in spawned child process"},
    {0x807F0003, L"Server Errorr"}, {0x807F0004, L"XMLHttpRequest Error"},
    {0x807F0005, L"Protocol Version Error"}, {0x807F0006, L"Data Format Error"},
};

std::wstring Expand(uint32_t code) { return COM_HRESULT_Expansion(static_cast<int>(code)); }

// An independent rendering of the suffix, to check every row against.
std::wstring Bracketed(uint32_t code) {
    wchar_t field[16];
    std::swprintf(field, 16, L" [%8X]", code);
    return field;
}

}  // namespace

// Every listed code has its exact text; every code near them, in their
// facilities and with or without the severity bit, reads "Unknown error".
TEST(StatusTable, ExactlyTheListedCodesHaveTheirTexts) {
    std::map<uint32_t, std::wstring> listed;
    std::set<uint32_t> facilities, numbers;
    for (uint32_t number = 0; number < 0x400; ++number) numbers.insert(number);
    for (const Row& row : kRows) {
        listed[row.code] = row.text;
        facilities.insert((row.code >> 16) & 0x7FFF);
        for (int offset = -16; offset <= 16; ++offset) numbers.insert((row.code + offset) & 0xFFFF);
    }
    ASSERT_EQ(listed.size(), 78u);
    int found = 0;
    for (uint32_t facility : facilities)
        for (uint32_t severity : {0u, 0x80000000u})
            for (uint32_t number : numbers) {
                const uint32_t code = severity | facility << 16 | number;
                const auto row = listed.find(code);
                found += row != listed.end();
                const std::wstring text = row != listed.end() ? row->second : L"Unknown error";
                ASSERT_EQ(Expand(code), text + Bracketed(code)) << std::hex << code;
            }
    EXPECT_EQ(found, 78);
}

TEST(StatusTable, FacilityRulesAndTheBlankPaddedUpperCaseCode) {
    // VELT: the rule wins over the table, the severity bit is ignored but not
    // bit 28. DNS: minus 65538 less the number. SSH: subsystem 0 is the table,
    // 1 is SSH (even with a listed code's number), 2 SFTP. System: the
    // system's own text, or "Unknown Exception" and the number.
    const Row cases[] = {
        {0x12345678, L"Unknown error [12345678]"}, {0x00004001, L"Unknown error [    4001]"},
        {0x00000ABC, L"Unknown error [     ABC]"}, {0xFFFFFFFF, L"Unknown error [FFFFFFFF]"},
        {0x7FFFFFFF, L"Unknown error [7FFFFFFF]"}, {0x806F0000, L"VELT error #0 [806F0000]"},
        {0x806F0002, L"VELT error #2 [806F0002]"}, {0x806FFFFF, L"VELT error #65535 [806FFFFF]"},
        {0x006F0007, L"VELT error #7 [  6F0007]"}, {0x606F0001, L"VELT error #1 [606F0001]"},
        {0x106F0001, L"Unknown error [106F0001]"}, {0x80700001, L"VELT call-in error #1 [80700001]"},
        {0x8070FFFF, L"VELT call-in error #65535 [8070FFFF]"},
        {0x807C0000, L"ZeroC-DNS error #-65538 [807C0000]"}, {0x007C0002, L"ZeroC-DNS error #-65536 [  7C0002]"},
        {0x807CFFFF, L"ZeroC-DNS error #-3 [807CFFFF]"}, {0x80100FFF, L"Unknown error [80100FFF]"},
        {0x80101000, L"SSH Error [80101000]"}, {0x80101001, L"SSH Error [80101001]"},
        {0x00101000, L"SSH Error [  101000]"}, {0x80102ABC, L"SFTP Error [80102ABC]"},
        {0x80103000, L"Unknown error [80103000]"}, {0x8010F001, L"Unknown error [8010F001]"},
        {0x80621267, L"Unknown Exception4711 [80621267]"}, {0x8062FFFF, L"Unknown Exception65535 [8062FFFF]"},
    };
    for (const Row& row : cases) EXPECT_EQ(Expand(row.code), row.text) << std::hex << row.code;
    ASSERT_FALSE(SystemText(2).empty());
    EXPECT_EQ(Expand(0x80620002), SystemText(2) + L" [80620002]");
    EXPECT_EQ(Expand(0x0062000D), SystemText(13) + L" [  62000D]");
}

TEST(StatusTable, ExpansionAllocatesOnlyItsResult) {
    for (uint32_t code : {0x80670003u, 0x12345678u, 0x806FFFFFu, 0x807C0000u, 0x80101000u,
                          0x80620002u, 0x80621267u}) {
        const int before = g_allocations;
        const std::wstring text = Expand(code);
        EXPECT_EQ(g_allocations - before, 1) << std::hex << code;
    }
}
