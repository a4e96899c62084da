// The framework's polymorphic root class. Serialization and diagnostics hooks are
// kept so that derived classes can override them, but do nothing here.
#pragma once
#include "rtfconverter/Export.h"

class CArchive;
class CDumpContext;

class RTFCONV_API CObject {
public:
    virtual ~CObject() = default;
    virtual void Serialize(CArchive&) {}
    virtual void AssertValid() const {}
    virtual void Dump(CDumpContext&) const {}

protected:
    CObject() = default;
    CObject(const CObject&) = default;
    CObject& operator=(const CObject&) = default;
};
