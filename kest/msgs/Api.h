#pragma once

// Symbols of libKestMessageDispatcher are hidden unless marked with this macro.
#define KEST_DISPATCHER_API __attribute__((visibility("default")))
