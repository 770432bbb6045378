#include "settings/exported_symbols.h"

// The declarations in the header give these C linkage and external visibility.
const double ORVELKITVersionNumber = 1.0;
const unsigned char ORVELKITVersionString[] = "@(#)PROGRAM:ORVELKIT  PROJECT:ORVELKIT-1\n";
int g_DebugFlag = 0;
