#pragma once

// Symbol visibility: the library is built with hidden visibility, and only
// what carries CHRONOTICK_API is part of its binary interface.
#if defined(_WIN32)
#if defined(CHRONOTICK_BUILDING)
#define CHRONOTICK_API __declspec(dllexport)
#else
#define CHRONOTICK_API __declspec(dllimport)
#endif
#else
#define CHRONOTICK_API __attribute__((visibility("default")))
#endif
