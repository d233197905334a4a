// The generated classes every registry benchmark works with: their
// identifiers, ProgIDs and the component library that serves them.
#ifndef VELTCOM_BENCH_CLASSES_H
#define VELTCOM_BENCH_CLASSES_H

#include <veltcom.h>

#include <cstdint>
#include <string>

namespace bench {

// The component's file name, as registered and as loaded from the working
// directory.
inline const char kComponentFile[] = "libbenchcomp.so";

// Class number i: the number in the first group, the rest fixed, so that the
// component recognises every class of the family without a table.
inline COM_GUID ClassId(uint32_t index) {
    return COM_GUID{index, 0xBE4C, 0x4a11, {0x9E, 0x21, 0x5A, 0x0C, 0x77, 0xD3, 0x10, 0x42}};
}

inline bool IsBenchClass(const COM_GUID& id) {
    const COM_GUID family = ClassId(id.Data1);
    return id == family;
}

inline std::wstring ProgId(uint32_t index) { return L"Bench.Class" + std::to_wstring(index); }

}  // namespace bench

#endif
