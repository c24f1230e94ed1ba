#pragma once

// Symbols of libKestMessages are hidden unless marked with this macro.
#define KEST_MESSAGES_API __attribute__((visibility("default")))
