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

std::wstring Expand(uint32_t code) { return COM_HRESULT_Expansion(static_cast<int>(code)); }

// An independent rendering of the suffix.
std::wstring Bracketed(uint32_t code) {
    wchar_t field[16];
    std::swprintf(field, 16, L" [%8X]", code);
    return field;
}

}  // namespace

// The texts themselves are pinned by the digest beside the table; here the
// lookup: every facility the table uses (none above 0x7F), both severities,
// the number ranges it uses. Exactly the listed codes, first and last among
// them, have a text of their own: 77, as 0x8000FFFF has the generic text.
TEST(StatusTable, TheBinarySearchFindsExactlyTheListedCodes) {
    const std::set<unsigned> ruled = {0x62, 0x6F, 0x70, 0x7C};
    std::set<uint32_t> numbers;
    for (uint32_t number = 0; number < 0x400; ++number)
        numbers.insert({number, 0x4000 | number, 0xFC00 | number});
    std::map<uint32_t, std::wstring> found;
    for (uint32_t facility = 0; facility < 0x80; ++facility) {
        if (ruled.count(facility)) continue;
        for (uint32_t severity : {0u, 0x80000000u})
            for (uint32_t number : numbers) {
                const uint32_t code = severity | facility << 16 | number;
                const std::wstring text = Expand(code);
                ASSERT_EQ(text.substr(text.size() - 11), Bracketed(code)) << std::hex << code;
                if (text != L"Unknown error" + Bracketed(code)) found[code] = text;
            }
    }
    EXPECT_EQ(found.size(), 77u);
    EXPECT_EQ(found.begin()->second, L"OK status [       0]");
    EXPECT_EQ(found.rbegin()->second, L"Data Format Error [807F0006]");
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
