// Included first by the headers that need C++20, so that an older standard gives one sentence.
#pragma once

#if defined(_MSVC_LANG)  // __cplusplus is older there unless it is asked for
#define VELD_CPLUSPLUS _MSVC_LANG
#else
#define VELD_CPLUSPLUS __cplusplus
#endif
#if VELD_CPLUSPLUS < 202002L
#error "veld_report needs C++20: compile with -std=c++20 or later"
// Ends the compilation. Everything after this would only repeat it in a hundred errors.
#include <veld_report needs C++20>
#endif
