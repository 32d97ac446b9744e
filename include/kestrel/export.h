// Symbol visibility for libbase.
//
// The library is built with hidden visibility; every class and function of
// the public API carries KESTREL_EXPORT so that exactly the documented
// interface is exported from libbase.so.
#pragma once

#if defined(__GNUC__) || defined(__clang__)
#define KESTREL_EXPORT __attribute__((visibility("default")))
#else
#define KESTREL_EXPORT
#endif
