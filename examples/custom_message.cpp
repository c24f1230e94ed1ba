// Messages of your own: readings with typed fields, and a service request
// that carries a reusable record.
//
// Two sensor threads post readings (a value, often negative, and a validity
// flag) from senders under /plant. A consumer subscribed to /plant reads them
// back with std::dynamic_pointer_cast on a thread of its own. Then calibration
// requests, messages with a destination, go to the lowest-ranked of two
// services, and one goes where no service is. The program prints what each
// post returned and what each receiver saw; docs/messages.md explains it.

#include <kest/messaging.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <iostream>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

using namespace Kest::Msgs;
using Kest::MetaData::Reflector;

namespace {

// This program's messages: category 0x0100, with one type number per kind.
// Any category but that of the routing notifications
// (Communications::Forwarder::Category) is free.
constexpr std::uint16_t PlantCategory = 0x0100;

// A reading: typed fields declared on the message itself. A message is shared,
// never copied, so it needs no copy constructor.
class Reading : public Message {
public:
    static constexpr Identifier Id{PlantCategory, 1};

    // Addresses and fields unset: the form a receiving process decodes into.
    Reading() : Message(Id) {}
    // Sender only: a reading goes to subscribers and is never a service request.
    Reading(double v, bool ok, const std::vector<std::string>& sender) : Message(Id, sender) {
        value.assign(v);
        valid.assign(ok);
    }

    Reflector<double, false, true> value{this, "Value", true};
    Reflector<bool, false, true> valid{this, "Valid", true};
};

// A calibration: a record that is used on its own as well as inside a
// message. Its fields register with the record they belong to, so a copy
// constructs each field from the original's with itself as the new owner.
class Calibration : public Kest::MetaData::MirroredObject {
public:
    Calibration() = default;
    Calibration(const std::string& forSensor, double by) : Calibration() {
        sensor.assign(forSensor);
        offset.assign(by);
    }
    Calibration(const Calibration& other)
        : MirroredObject(other), sensor(this, other.sensor), offset(this, other.offset) {}
    Calibration& operator=(const Calibration& other) {
        sensor = other.sensor;
        offset = other.offset;
        return *this;
    }

    Reflector<std::string, false, true> sensor{this, "Sensor", true};
    Reflector<double, false, true> offset{this, "Offset", true};
};

// A request to calibrate a sensor: posted with a destination, so that a
// service takes it.
using CalibrationRequest = PayloadMessage<PlantCategory, 2, Calibration>;

std::string path(const std::vector<std::string>& address) {
    std::string text;
    for (const std::string& part : address) text += "/" + part;
    return text.empty() ? "(empty)" : text;
}

const char* yesNo(bool b) { return b ? "true" : "false"; }

}  // namespace

int main() {
    auto dispatcher = std::make_shared<MessageDispatcher>();
    int status = 0;

    // ---- Readings: two producers, one consumer ------------------------------

    auto consumer = std::make_shared<MessageQueue>();
    dispatcher->subscribe(consumer, {"plant"}, Reading::Id);  // every reading from under /plant

    const std::vector<std::vector<std::string>> sensors{{"plant", "line1", "thermo"},
                                                        {"plant", "line2", "thermo"}};
    constexpr int perSensor = 3;
    const int total = static_cast<int>(sensors.size()) * perSensor;

    // The consumer keeps what it sees per sender; posts from one thread
    // arrive in the order they were made, but the two threads interleave.
    std::map<std::string, std::vector<std::string>> seen;
    int received = 0;
    std::thread reader([&] {
        while (received < total) {
            std::shared_ptr<const Message> message = consumer->getMessage(std::chrono::seconds(5));
            if (!message) break;  // nothing for five seconds: report, do not hang
            auto reading = std::dynamic_pointer_cast<const Reading>(message);
            if (!reading) continue;  // not a Reading (none are sent here)
            std::ostringstream line;
            line << reading->value() << (reading->valid() ? " valid" : " invalid");
            seen[path(reading->sender())].push_back(line.str());
            ++received;
        }
    });

    std::vector<int> accepted(sensors.size(), 0);
    std::vector<std::thread> producers;
    for (std::size_t s = 0; s < sensors.size(); ++s) {
        producers.emplace_back([&, s] {
            for (int i = 0; i < perSensor; ++i) {
                const double value = -3.25 + i - 10.0 * static_cast<double>(s);
                auto reading = std::make_shared<Reading>(value, i != 1, sensors[s]);
                if (dispatcher->postMessage(reading, nullptr)) ++accepted[s];
            }
        });
    }
    for (std::thread& producer : producers) producer.join();
    reader.join();

    std::cout << "two sensors posted " << perSensor << " readings each, sender only:\n";
    for (std::size_t s = 0; s < sensors.size(); ++s) {
        std::cout << "  " << path(sensors[s]) << ": postMessage true for " << accepted[s] << " of "
                  << perSensor << "\n";
    }
    std::cout << "the consumer (readings from /plant) saw " << received << ":\n";
    for (const auto& [sender, readings] : seen) {
        std::cout << "  " << sender << ":";
        for (std::size_t i = 0; i < readings.size(); ++i) std::cout << (i ? ", " : " ") << readings[i];
        std::cout << "\n";
    }
    if (received != total) status = 1;

    // ---- Calibration requests: ranked services ------------------------------

    auto bench = std::make_shared<MessageQueue>();
    auto spare = std::make_shared<MessageQueue>();
    dispatcher->registerService(bench, {"plant", "lab"}, CalibrationRequest::Id, 1);
    dispatcher->registerService(spare, {"plant", "lab"}, CalibrationRequest::Id, 5);
    // A subscriber receives requests as well, whether or not a service takes them.
    auto audit = std::make_shared<MessageQueue>();
    dispatcher->subscribe(audit, {}, CalibrationRequest::Id);

    const std::vector<std::string> hmi{"hmi"};
    auto request = [&](const std::vector<std::string>& destination) {
        return dispatcher->postMessage(
            std::make_shared<CalibrationRequest>(Calibration("thermo", -0.5), hmi, destination), nullptr);
    };

    std::cout << "calibration requests; services for /plant/lab: bench (rank 1), spare (rank 5):\n";
    bool delivered = request({"plant", "lab", "thermo"});
    std::cout << "  to /plant/lab/thermo: postMessage " << yesNo(delivered) << "; bench holds "
              << bench->getAvailableMessagesCount() << ", spare holds " << spare->getAvailableMessagesCount()
              << "\n";
    if (auto taken = std::dynamic_pointer_cast<const CalibrationRequest>(
            bench->getMessage(std::chrono::milliseconds(0)))) {
        const Calibration& calibration = taken->payload();
        std::cout << "  bench reads: calibrate " << calibration.sensor() << " by " << calibration.offset()
                  << ", from " << path(taken->sender()) << " to " << path(taken->destination()) << "\n";
    } else {
        std::cout << "  bench reads nothing\n";
        status = 1;
    }

    delivered = request({"plant", "office"});
    std::cout << "  to /plant/office: postMessage " << yesNo(delivered) << " (no service covers it)\n";
    delivered = request({});
    std::cout << "  to an empty destination: postMessage " << yesNo(delivered)
              << " (a request all the same, and no service covers it)\n";

    dispatcher->unregisterAll(bench);
    delivered = request({"plant", "lab", "thermo"});
    std::cout << "  bench gone, to /plant/lab/thermo: postMessage " << yesNo(delivered) << "; spare holds "
              << spare->getAvailableMessagesCount() << "\n";

    std::cout << "the audit subscriber saw " << audit->getAvailableMessagesCount() << " requests\n";
    return status;
}
