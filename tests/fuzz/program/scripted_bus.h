/// \file
/// A USB library whose every answer is the fuzzer's: descriptors, strings, transfers and results.
#pragma once

#include "program/peripheral.h"
#include "support/fake_usb.h"
#include "support/fuzz_input.h"

#include <list>
#include <vector>

/// Stands at the p_libusb_* pointers from construction to destruction. One at a time.
class ScriptedBus {
  public:
    /// Takes the devices and some faults from the input at once, then the course of the run as it
    /// goes.
    explicit ScriptedBus(FuzzInput& input);
    ~ScriptedBus();
    ScriptedBus(const ScriptedBus&) = delete;
    ScriptedBus& operator=(const ScriptedBus&) = delete;

    /// After a run: everything that was taken was given back.
    void check_all_given_back() const;

    /// 0 when the next thing goes as usual, else a number that says how not.
    unsigned int deviation();
    /// One of libusb's errors.
    static int error(unsigned int number);
    /// As the hub driver answers; -1 for a failure.
    int give_hub_ports(unsigned char* answer, std::size_t size);

    Peripheral* find(libusb_device* device);
    Peripheral* find(libusb_device_handle* handle);
    int take_report(Peripheral& device, const Bytes& message);
    int give_data(Peripheral& device, unsigned char* buffer, std::size_t length);
    int give_report(Peripheral& device, unsigned char* buffer, int length, int* actual);
    int give_standard(unsigned int how, unsigned char* buffer, std::size_t length);

    FakeUsb usb;

  private:
    /// What goes wrong with a certain command, or with its data answer.
    struct Fault {
        unsigned int command_kind;
        bool is_of_data;
        unsigned int skipped;  ///< commands of the kind that go well before
        unsigned int how;      ///< 0 once it has happened
    };

    void take_faults();
    unsigned int deviation_of(const Bytes& command, bool is_data);
    void count_transfer();
    int give(const Bytes& bytes, unsigned char* buffer, std::size_t length) const;

    FuzzInput& input_;
    std::list<Peripheral> peripherals_;
    std::vector<Fault> faults_;
    unsigned int usual_left_ = 0;
    int transfers_ = 0;
};

/// The bus that stands, or null.
ScriptedBus* scripted_bus();
