#pragma once

// Every public header of Kest::Net (libKestNet): messages on the wire and the
// bridge between processes.

#include <kest/net/Bridge.h>
#include <kest/net/GenericMessage.h>
#include <kest/net/Json.h>
#include <kest/net/Limits.h>
#include <kest/net/MessageTypes.h>
#include <kest/net/Wire.h>
#include <kest/net/WireError.h>
