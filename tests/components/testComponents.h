// Identifiers and the custom interface shared by the test components and the
// tests that load them.
#ifndef VELTCOM_TESTS_COMPONENTS_H
#define VELTCOM_TESTS_COMPONENTS_H

#include <veltcom.h>

const COM_GUID IID_ICounter = {0x5A1E0001, 0x0000, 0x4000, {0x80, 0, 0, 0, 0, 0, 0, 0xA1}};
const COM_GUID CLSID_Counter = {0x5A1E0002, 0x0000, 0x4000, {0x80, 0, 0, 0, 0, 0, 0, 0xA2}};
const COM_GUID CLSID_NoUnload = {0x5A1E0003, 0x0000, 0x4000, {0x80, 0, 0, 0, 0, 0, 0, 0xA3}};
const COM_GUID CLSID_FailingFactory = {0x5A1E0004, 0x0000, 0x4000, {0x80, 0, 0, 0, 0, 0, 0, 0xA4}};
const COM_GUID CLSID_NullFactory = {0x5A1E0005, 0x0000, 0x4000, {0x80, 0, 0, 0, 0, 0, 0, 0xA5}};

// Classes of the category component and the categories they declare.
const COM_GUID CLSID_CatWidget = {0x5A1E0101, 0x0000, 0x4000, {0x80, 0, 0, 0, 0, 0, 0x01, 0x01}};
const COM_GUID CLSID_CatViewer = {0x5A1E0102, 0x0000, 0x4000, {0x80, 0, 0, 0, 0, 0, 0x01, 0x02}};
const COM_GUID CATID_TestTools = {0x5A1E0111, 0x0000, 0x4000, {0x80, 0, 0, 0, 0, 0, 0x01, 0x11}};
const COM_GUID CATID_TestViewers = {0x5A1E0112, 0x0000, 0x4000, {0x80, 0, 0, 0, 0, 0, 0x01, 0x12}};

// A service whose first creation asks for the service itself, under this
// number, before it is stored.
const COM_GUID CLSID_ReentrantService = {0x5A1E0201, 0x0000, 0x4000, {0x80, 0, 0, 0, 0, 0, 0x02, 0x01}};
const unsigned int kReentrantServiceNumber = 7;

// What the failing factory's CreateInstance returns.
const HRESULT kFailingFactoryResult = static_cast<HRESULT>(0x80040110);

// The component of many classes, an installation of realistic size: class n
// has this identifier and the ProgID "Test.Many<n>".
const unsigned int kManyClasses = 200;
constexpr COM_GUID ManyClassId(unsigned int n) {
    return {0x5A1E1000 + n, 0x0000, 0x4000, {0x80, 0, 0, 0, 0, 0, 0x10, 0x00}};
}

class ICounter : public COM_IUnknown {
public:
    virtual HRESULT Increment(long* value) = 0;
};

template <>
struct COM_InterfaceTraits<ICounter> {
    using Base = COM_IUnknown;
    static const COM_GUID& iid() { return IID_ICounter; }
};

#endif
