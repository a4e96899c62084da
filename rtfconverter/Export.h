// RTFCONV_API marks what the library exports: it is built with every other
// symbol hidden, so a class or function that a host calls carries the macro
// in its declaration. A static library (RTFCONV_STATIC) exports nothing.
#pragma once

#if defined(RTFCONV_STATIC)
#define RTFCONV_API
#elif defined(_WIN32)
#if defined(RTFCONV_BUILDING_LIBRARY)
#define RTFCONV_API __declspec(dllexport)
#else
#define RTFCONV_API __declspec(dllimport)
#endif
#else
#define RTFCONV_API __attribute__((visibility("default")))
#endif
