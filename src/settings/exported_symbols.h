// Symbols the library exports with C linkage, so that a host can find them with dlsym.
#pragma once

extern "C" {
// The library's version number: 1.0.
extern const double ORVELKITVersionNumber;
// The version text, ending in a line feed.
extern const unsigned char ORVELKITVersionString[];
// A debug switch for the host application; zero at start. Nothing in the library reads it.
extern int g_DebugFlag;
}
