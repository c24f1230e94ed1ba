#pragma once

// Symbols of libKestNet are hidden unless marked with this macro.
#define KEST_NET_API __attribute__((visibility("default")))
