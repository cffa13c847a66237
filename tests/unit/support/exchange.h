/// \file
/// One slot of a session whose commands and reads a test makes by hand.
#pragma once

#include "support/flash_test.h"

#include <array>

class Exchange : public FlashTest {
  protected:
    static constexpr int slot = 3;

    int send(Bytes command, int timeout = 100) {
        return flash->send_command(reinterpret_cast<char*>(command.data()),
                                   static_cast<int>(command.size()), slot, timeout);
    }
    int wait(int timeout, int length = 8) {
        return flash->wait_for_message(timeout, answer.data(), length, slot);
    }
    int read(int timeout) {
        return flash->read_flash(answer.data(), status_report_size, timeout, slot);
    }
    Bytes answer_bytes() const { return {answer.begin(), answer.end()}; }

    std::array<char, 8> answer{};
};
