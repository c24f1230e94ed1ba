#pragma once

// Symbols of libKestCore are hidden unless marked with this macro.
#define KEST_CORE_API __attribute__((visibility("default")))
