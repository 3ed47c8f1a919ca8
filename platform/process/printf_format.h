// ZELTA_PRINTF(TEXT, FIRST): the compiler checks a function's arguments from the FIRSTth on by its
// TEXTth, a printf format.
#pragma once

#if defined(__GNUC__) && defined(__MINGW32__)
#define ZELTA_PRINTF(text, first) __attribute__((format(gnu_printf, text, first)))
#elif defined(__GNUC__)
#define ZELTA_PRINTF(text, first) __attribute__((format(printf, text, first)))
#else
#define ZELTA_PRINTF(text, first)
#endif
