/// \file
/// Why a run fails: what each text, code and status bit of the program means, and what to do.
#pragma once

#include <cstdint>
#include <iterator>
#include <string_view>

struct Cause {
    const char* name;   ///< of JSON: "device-gone"
    const char* words;  ///< a sentence
    const char* remedy;
};
extern const Cause causes[];
extern const std::size_t cause_count;

/// Never null for the names of the tables below.
const Cause* cause_named(std::string_view name);

enum class Reach { component, run };

/// A text of the program that means an end, or a doubt; "..." stands for what changes in it.
struct EndingText {
    const char* text;
    const char* cause;
    Reach reach = Reach::component;
};
extern const EndingText ending_texts[];
extern const std::size_t ending_text_count;

/// The row whose text `line` is; null when there is none.
const EndingText* find_ending_text(std::string_view line);

struct CodeCause {
    int code;
    const char* cause;
};
/// libusb's codes, 0 for a transfer that moved nothing.
extern const CodeCause usb_codes[];
extern const std::size_t usb_code_count;
/// Those of the exchange and of the transfer layer, as "rc=" shows them. 7 is both: what was waited
/// for did not come.
extern const CodeCause exchange_codes[];
extern const std::size_t exchange_code_count;
/// Bits of a status report.
extern const CodeCause status_bits[];
extern const std::size_t status_bit_count;

const Cause* cause_of_usb_code(int code);
/// Null for a code that says nothing of its own.
const Cause* cause_of_exchange_code(int code);
/// Null for a good status. Bits that no status has make it garbled.
const Cause* cause_of_status(std::uint8_t flags);
