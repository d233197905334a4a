// System strings under random sequences of allocation, re-allocation and
// release: lengths, prefixes, terminators and contents are as made, failed
// re-allocations change nothing, and sizes beyond 32 bits are refused.
#include <climits>
#include <cstring>
#include <cwchar>
#include <vector>

#include "fuzzSupport.h"

namespace {

struct Expected {
    wchar_t* s;
    std::vector<unsigned char> bytes;  // the payload as made
};

// Up to a few thousand units of `unitSize` bytes, and now and then a count
// whose size does not fit a 32-bit block, which must be refused.
unsigned long Count(FuzzedDataProvider& in, size_t unitSize, bool& huge) {
    huge = in.ConsumeIntegralInRange(0, 15) == 0;
    if (!huge) return in.ConsumeIntegralInRange<unsigned long>(0, 4096);
    return in.ConsumeIntegralInRange<unsigned long>(INT_MAX / unitSize, ULONG_MAX);
}

void CheckString(const Expected& e) {
    const size_t bytes = e.bytes.size();
    FUZZ_CHECK(COM_SysStringByteLen(e.s) == bytes, "byte length %u, made %zu",
               COM_SysStringByteLen(e.s), bytes);
    FUZZ_CHECK(COM_SysStringLen(e.s) == bytes / sizeof(wchar_t), "length %lu of %zu bytes",
               COM_SysStringLen(e.s), bytes);
    FUZZ_CHECK(bytes == 0 || std::memcmp(e.s, e.bytes.data(), bytes) == 0, "content changed");
    const size_t rounded = (bytes + 3) / 4 * 4;
    FUZZ_CHECK(reinterpret_cast<const unsigned char*>(e.s)[rounded] == 0, "no terminator");
}

std::vector<unsigned char> BytesOf(const wchar_t* text, size_t count) {
    const auto* p = reinterpret_cast<const unsigned char*>(text);
    return std::vector<unsigned char>(p, p + count * sizeof(wchar_t));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzedDataProvider in(data, size);
    std::vector<Expected> live;
    while (in.remaining_bytes() > 0) {
        const int op = in.ConsumeIntegralInRange(0, 5);
        bool huge = false;
        if (op == 0) {
            const std::wstring text = WideText(in, 64);
            Expected e{COM_SysAllocString(text.c_str()), BytesOf(text.c_str(), text.size())};
            FUZZ_CHECK(e.s, "no string of %zu characters", text.size());
            live.push_back(std::move(e));
        } else if (op == 1) {
            const unsigned long n = Count(in, sizeof(wchar_t), huge);
            wchar_t* s = COM_SysAllocStringLen(nullptr, n);
            FUZZ_CHECK(!huge || !s, "%lu characters were not refused", n);
            if (!s) continue;
            std::wmemset(s, L'x', n);
            live.push_back({s, BytesOf(s, n)});
        } else if (op == 2) {
            const unsigned long n = Count(in, 1, huge);
            const std::vector<unsigned char> bytes = in.ConsumeBytes<unsigned char>(huge ? 0 : n);
            const bool fromBytes = bytes.size() == n;
            wchar_t* s = COM_SysAllocStringByteLen(fromBytes ? bytes.data() : nullptr, n);
            FUZZ_CHECK(!huge || !s, "%lu bytes were not refused", n);
            if (!s) continue;
            if (!fromBytes) std::memset(s, 'y', n);
            const auto* payload = reinterpret_cast<const unsigned char*>(s);
            live.push_back({s, std::vector<unsigned char>(payload, payload + n)});
        } else if (live.empty()) {
            continue;
        } else if (op == 3 || op == 4) {
            Expected& e = live[in.ConsumeIntegralInRange<size_t>(0, live.size() - 1)];
            const std::wstring text = WideText(in, 64);
            const int ok = op == 3 ? COM_SysReAllocString(&e.s, text.c_str())
                                   : COM_SysReAllocStringLen(&e.s, text.c_str(), text.size());
            // An empty text is a failure that leaves the string as it was.
            FUZZ_CHECK(ok == (text.empty() ? 0 : 1), "re-allocation gave %d", ok);
            if (ok) e.bytes = BytesOf(text.c_str(), text.size());
        } else {
            const size_t index = in.ConsumeIntegralInRange<size_t>(0, live.size() - 1);
            CheckString(live[index]);
            FUZZ_CHECK(COM_SysFreeString(live[index].s) == 1, "free did not give 1");
            live.erase(live.begin() + index);
        }
    }
    for (const Expected& e : live) {
        CheckString(e);
        COM_SysFreeString(e.s);
    }
    long allocs = -1, frees = -1;
    COM_GetSysStats(&allocs, &frees);
    FUZZ_CHECK(allocs == 0 && frees == 0, "counters moved to %ld, %ld", allocs, frees);
    return 0;
}
