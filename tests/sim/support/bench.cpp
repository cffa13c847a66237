#include "support/bench.h"

#include "common/image_checksum.h"
#include "model/device/descriptors.h"

using zelfsim::Bytes;
using zelfsim::Completion;
using zelfsim::Peripheral;

std::string printer_bus(const std::string& flash, const std::string& more) {
    return R"(
[timing]
transfer_ms = 0.1
query_ms = 1
erase_ms = 30
record_ms = 1
checksum_ms = 5
reset_ms = 100

[[device]]
name = "printer"
vendor = 0x7A01
product = 0x3C35
serial = "PR1"

[[device.interface]]
kind = "flash"
)" + flash +
           R"(
[[device.interface.component]]
id = 0
level = "01.02"
build = 3

[[device.interface.component]]
id = 1
level = "02.10"
type = "configuration"
control = "random"
)" + more;
}

std::string printer_with_fault(const std::string& fault) {
    return printer_bus("", "\n[[fault]]\ndevice = \"printer\"\n" + fault);
}

Bytes Image::stored() const {
    Bytes bytes;
    for (const Bytes& record : records) {
        bytes.push_back(static_cast<std::uint8_t>(record.size() - 3));
        bytes.insert(bytes.end(), record.begin(), record.end());
    }
    bytes.insert(bytes.end(), {0, static_cast<std::uint8_t>(checksum >> 8),
                               static_cast<std::uint8_t>(checksum & 0xFF)});
    return bytes;
}

void seal(Image& image, std::uint16_t product) {
    ImageChecksum sum(product);
    for (const Bytes& record : image.records) {
        sum.add_record(record);
    }
    image.checksum = sum.value();
}

Image make_image(std::uint8_t component, zelfsim::Version version, unsigned downloads,
                 std::uint16_t product) {
    constexpr std::uint8_t firmware = 2;
    Image image;
    image.records.push_back({0xFF, 0, 0, component});
    image.records.push_back(
        {0xFF, 0, 2, component, version.minor, version.major, firmware, version.build});
    for (unsigned number = 0; number < downloads; ++number) {
        Bytes record{static_cast<std::uint8_t>(component << 4U),
                     static_cast<std::uint8_t>(number >> 8U),
                     static_cast<std::uint8_t>(number & 0xFF)};
        record.resize(3 + 16, static_cast<std::uint8_t>(0xA0 + number));
        image.records.push_back(record);
    }
    seal(image, product);
    return image;
}

Bench::Bench(const std::string& bus) {
    workspace_.write("bus.toml", bus);
    reload();
}

void Bench::reload() {
    bus_.reset();
    bus_.emplace(zelfsim::BusFiles{workspace_.bus(), workspace_.state(), workspace_.record()});
}

Peripheral& Bench::printer() {
    return *bus_->find("printer");
}

Completion Bench::send(const Bytes& message) {
    Bytes report = message;
    const bool ids = printer().description().flash->report_ids;
    if (ids) {
        report.insert(report.begin(), zelfsim::command_report_id);
    }
    const zelfsim::Setup setup{0x21, 9, static_cast<std::uint16_t>(ids ? 0x0201 : 0x0200), 0,
                               static_cast<std::uint16_t>(report.size())};
    const zelfsim::Reply reply = printer().control(setup, report, std::chrono::seconds(60), time_);
    time_ += reply.duration;
    return reply.completion;
}

Bytes Bench::status(zelfsim::Duration patience) {
    constexpr std::chrono::milliseconds step{1};
    const zelfsim::TimePoint deadline = time_ + patience;
    while (time_ <= deadline) {
        if (const auto reply = printer().interrupt_in(0x81, 64, time_)) {
            return reply->data;
        }
        time_ += step;
    }
    return {};
}

Bytes Bench::ask(const Bytes& message) {
    return send(message) == Completion::ok ? status() : Bytes{};
}

Bytes Bench::data() {
    const bool ids = printer().description().flash->report_ids;
    const zelfsim::Setup setup{0xA1, 1, static_cast<std::uint16_t>(ids ? 0x0303 : 0x0300), 0, 1024};
    return printer().control(setup, {}, std::chrono::seconds(60), time_).data;
}

Bytes Bench::send_record(const Bytes& record) {
    const auto payload = static_cast<std::uint8_t>(record.size() - 3);
    const unsigned count = payload + 6U;
    Bytes message{static_cast<std::uint8_t>(count & 0xFF), static_cast<std::uint8_t>(count >> 8),
                  0x02, 0x00, payload};
    message.insert(message.end(), record.begin(), record.end());
    return ask(message);
}

Bytes Bench::send_checksum(std::uint16_t sum) {
    return ask({0x05, 0x00, 0x02, 0x00, 0x00, static_cast<std::uint8_t>(sum >> 8),
                static_cast<std::uint8_t>(sum & 0xFF)});
}

Bytes Bench::update(const Image& image) {
    Bytes last = erase();
    for (const Bytes& record : image.records) {
        last = send_record(record);
    }
    return send_checksum(image.checksum);
}

void Bench::reset() {
    send({0x04, 0x00, 0x00, 0x40});
    time_ += std::chrono::seconds(1);
    printer().advance(time_);
}
