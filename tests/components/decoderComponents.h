// The status decoders the moniker tests load: what they register for and
// what they answer, shared by the components and the tests.
#ifndef VELTCOM_TESTS_DECODER_COMPONENTS_H
#define VELTCOM_TESTS_DECODER_COMPONENTS_H

#include <veltcom.h>

// Takes data through COM_IMonikerData; registered for facilities 0x67 and
// 0x1FFF, the highest there is.
const COM_GUID CLSID_RecordingDecoder = {0x5A1E0101, 0x0000, 0x4000, {0x80, 0, 0, 0, 0, 0, 0x01, 0x01}};
// Decodes without taking data; registered for facility 0x68.
const COM_GUID CLSID_PlainDecoder = {0x5A1E0102, 0x0000, 0x4000, {0x80, 0, 0, 0, 0, 0, 0x01, 0x02}};

// Data the recording decoder refuses, and how.
#define DECODER_DATA_UNSUPPORTED L"unsupported"  // MK_E_EXTENSIONNOTSUPPORTED
#define DECODER_DATA_FAILING L"fail"             // E_FAIL

// A code with this number makes a decoder fail with kDecoderFailure and
// leave the text alone.
const unsigned kFailingCodeNumber = 0xFA11;
const HRESULT kDecoderFailure = static_cast<HRESULT>(0x8067DEAD);

#endif
