#pragma once

// Every public header of the Kest messaging libraries.

#include <kest/components/ComponentFactory_Base.h>
#include <kest/components/ComponentInterface.h>
#include <kest/components/Component_Base.h>
#include <kest/metadata/Element.h>
#include <kest/metadata/MirroredObject.h>
#include <kest/model/Forwarder.h>
#include <kest/model/ForwarderNotifications.h>
#include <kest/model/Identifier.h>
#include <kest/model/Message.h>
#include <kest/model/MessageDispatcherInterface.h>
#include <kest/model/MessageKey.h>
#include <kest/model/MessageKeyData.h>
#include <kest/model/MessageQueueInterface.h>
#include <kest/model/PayloadMessage.h>
#include <kest/model/PayloadMessageHelper.h>
#include <kest/model/Reflector.h>
#include <kest/msgs/MessageDispatcher.h>
#include <kest/msgs/PostScope.h>
#include <kest/msgs/Routing.h>
#include <kest/msgs/diagnostics/MessageTrace.h>
#include <kest/msgs/diagnostics/MessagesHandled.h>
#include <kest/msgs/queues/MessageCallback.h>
#include <kest/msgs/queues/MessageQueue.h>
#include <kest/msgs/queues/MessageQueue_FixedDepth.h>
#include <kest/plugin/Factory.h>
