#include "AfxExceptions.h"

void AfxThrowInvalidArgException() { throw CInvalidArgException(); }
void AfxThrowMemoryException() { throw CMemoryException(); }
void AfxThrowOleException(HRESULT sc) { throw COleException(sc); }
