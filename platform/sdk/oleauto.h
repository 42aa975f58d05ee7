// The part of the Windows SDK's <oleauto.h> that the snapshot session uses: strings that cross a COM interface.
#pragma once

#include <objbase.h>

extern "C" {

// Not called by the program itself: an answer that hands out a string makes it with this, so that SysFreeString is
// what releases it. A null text, or a lack of memory, gives a null pointer.
BSTR WINAPI SysAllocString(const OLECHAR* text);

void WINAPI SysFreeString(BSTR text);

} // extern "C"
