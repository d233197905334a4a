// What the fuzz targets share: turning bytes into wide text, a scratch
// registry directory, and a check that stops the run on a broken invariant.
#ifndef VELTCOM_FUZZ_SUPPORT_H
#define VELTCOM_FUZZ_SUPPORT_H

#include <fuzzer/FuzzedDataProvider.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

#include <veltcom.h>

// A broken invariant is a finding like a crash: libFuzzer keeps the input.
#define FUZZ_CHECK(condition, ...)                                      \
    do {                                                                \
        if (!(condition)) {                                             \
            std::fprintf(stderr, "invariant broken: %s: ", #condition); \
            std::fprintf(stderr, __VA_ARGS__);                          \
            std::fputc('\n', stderr);                                   \
            std::abort();                                               \
        }                                                               \
    } while (0)

// Text for a message: ASCII as it is, any other character as its code.
template <typename Text>
std::string Printable(const Text& text) {
    std::string out;
    for (const auto c : text) {
        const unsigned code = static_cast<unsigned>(c);
        char hex[16];
        std::snprintf(hex, sizeof hex, code >= 0x20 && code < 0x7F ? "%c" : "\\u{%X}", code);
        out += hex;
    }
    return out;
}

// Wide text of at most `maxLength` characters. Most characters are ASCII, so
// that separators and names turn up often; some are any 16-bit code unit and
// some any 32-bit value. Zero characters are left out: every text is read up
// to its terminator.
inline std::wstring WideText(FuzzedDataProvider& in, size_t maxLength) {
    std::wstring text;
    while (text.size() < maxLength && in.remaining_bytes() > 0) {
        const uint8_t kind = in.ConsumeIntegral<uint8_t>();
        wchar_t c;
        if (kind < 0xE0)
            c = kind & 0x7F;
        else if (kind < 0xFC)
            c = in.ConsumeIntegral<uint16_t>();
        else
            c = static_cast<wchar_t>(in.ConsumeIntegral<uint32_t>());
        if (c != 0) text += c;
    }
    return text;
}

// Text as the registry keeps it: UTF-16, a character above U+FFFF as a
// surrogate pair. A character UTF-16 cannot carry (a surrogate code point, or
// one beyond U+10FFFF) becomes U+FFFF, which the registry never stores.
inline std::u16string Stored(const std::wstring& text) {
    std::u16string out;
    for (wchar_t c : text) {
        const uint32_t code = static_cast<uint32_t>(c);
        if (code < 0xD800 || (code > 0xDFFF && code <= 0xFFFF)) {
            out += static_cast<char16_t>(code);
        } else if (code >= 0x10000 && code <= 0x10FFFF) {
            out += static_cast<char16_t>(0xD800 + ((code - 0x10000) >> 10));
            out += static_cast<char16_t>(0xDC00 + ((code - 0x10000) & 0x3FF));
        } else {
            out += u'\uFFFF';
        }
    }
    return out;
}

// A key or value name as the registry keeps it: stored text, with spaces
// as underscores.
inline std::u16string EscapedName(const std::wstring& name) {
    std::u16string out = Stored(name);
    for (char16_t& c : out)
        if (c == u' ') c = u'_';
    return out;
}

// A fresh directory that is COMLIB, made once per process (the registry is
// process-wide) and removed when the run ends. The path is never freed: the
// clean-up runs among the exit handlers, after static objects are gone.
inline const std::string& ScratchDirectory() {
    static const std::string* const dir = [] {
        // In memory where there is such a file system: every registry change
        // is flushed to disk, which would make the registry target crawl.
        std::string pattern = access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp";
        pattern += "/veltcom-fuzz-XXXXXX";
        if (!mkdtemp(&pattern[0])) std::abort();
        setenv("COMLIB", pattern.c_str(), 1);
        std::atexit([] {
            std::error_code ignored;
            std::filesystem::remove_all(ScratchDirectory(), ignored);
        });
        return new std::string(pattern);
    }();
    return *dir;
}

#endif
