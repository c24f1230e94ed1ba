// Two components talk through one dispatcher.
//
// A "press" posts readings; a "monitor" has subscribed to readings from the
// press line and reads them on its own thread. A forwarder-style queue
// subscribes to the dispatcher's routing notifications and prints what it
// would mirror into another process. Last, a request goes to a ranked pair of
// service queues whose preferred one is full, so the dispatcher falls back
// to the other and prints its drop warning with the message's trace.

#include <kest/messaging.h>

#include <iostream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

using namespace Kest::Msgs;
namespace Fwd = Communications::Forwarder;

namespace {

const Identifier Reading(100, 1);  // category 100, type 1
const Identifier Request(100, 2);

std::string path(const std::vector<std::string>& address) {
    std::string text;
    for (const std::string& part : address) text += "/" + part;
    return text.empty() ? "(any)" : text;
}

// What a forwarder would send to its peers for each routing change.
void printNotices(MessageQueue& forwarder) {
    while (auto message = forwarder.getMessage(std::chrono::milliseconds(0))) {
        const Fwd::ServiceData& data = *Fwd::notificationPayload(*message);
        const Structs::MessageKeyData& key = data.key();
        std::cout << "  forwarder: notice type " << message->id().type() << " for message "
                  << key.id().category() << "." << key.id().type() << ", sender " << path(key.sender())
                  << ", destination " << path(key.destination()) << ", rank " << data.rank() << "\n";
    }
}

}  // namespace

int main() {
    auto dispatcher = std::make_shared<MessageDispatcher>();

    // The forwarder listens to all four kinds of routing notification.
    auto forwarder = std::make_shared<MessageQueue>();
    for (unsigned short type : {5, 6, 9, 10}) {
        dispatcher->subscribe(forwarder, {}, Identifier(Fwd::Category, type));
    }

    // The monitor takes readings from anything under /plant/line2.
    auto monitor = std::make_shared<MessageQueue>();
    dispatcher->subscribe(monitor, {"plant", "line2"}, Reading);
    std::cout << "subscribed the monitor:\n";
    printNotices(*forwarder);

    std::thread reader([monitor] {
        for (int i = 0; i < 3; ++i) {
            std::shared_ptr<const Message> reading = monitor->getMessage();  // waits
            std::cout << "  monitor: reading from " << path(reading->sender()) << "\n";
        }
    });

    std::cout << "the press posts three readings:\n";
    const std::vector<std::string> press{"plant", "line2", "press"};
    for (int i = 0; i < 3; ++i) dispatcher->postMessage(std::make_shared<Message>(Reading, press), nullptr);
    reader.join();

    // Two service queues for requests to /plant/line2: rank 2 is preferred
    // but full, rank 5 takes what it refuses.
    auto preferred = std::make_shared<MessageQueue_FixedDepth>(1u);
    auto fallback = std::make_shared<MessageQueue>();
    dispatcher->registerService(preferred, {"plant", "line2"}, Request, 2);
    dispatcher->registerService(fallback, {"plant", "line2"}, Request, 5);
    std::cout << "registered two services:\n";
    printNotices(*forwarder);

    std::cout << "two requests; the second finds the preferred queue full:\n";
    for (int i = 0; i < 2; ++i) {
        bool delivered = dispatcher->postMessage(
            std::make_shared<Message>(Request, std::vector<std::string>{"hmi"}, press), nullptr);
        std::cout << "  request " << i + 1 << " delivered: " << std::boolalpha << delivered << "\n";
    }
    std::cout << "  preferred holds " << preferred->getAvailableMessagesCount() << ", fallback holds "
              << fallback->getAvailableMessagesCount() << "\n";

    std::cout << "the monitor leaves:\n";
    dispatcher->disconnectQueue(monitor);
    printNotices(*forwarder);
    return 0;
}
