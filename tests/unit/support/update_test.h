/// \file
/// What the tests of the update share: rows of files and devices, and whole updates of peripherals.
#pragma once

#include "firmware/firmware_search.h"
#include "journal/file_handle.h"
#include "settings.h"
#include "support/firmware_bytes.h"
#include "support/flash_test.h"
#include "support/temporary_directory.h"

#include <cstdint>
#include <cstdio>
#include <string>

struct FileRow {
    int component = 0;
    int level = 0x0102;
    int build = 0;
    int method = 0;
    int type = 1;
};

/// The decision: files and rows without a device behind them.
class Update : public FlashTest {
  protected:
    Update() { check_for_update_only = 1; }

    FlashFile& add_file(const FileRow& wanted) {
        FlashFile& file = files[numberOfusbFlashFiles];
        const std::string name = "f" + std::to_string(numberOfusbFlashFiles++) + ".dat";
        directory.write(name, content_of(wanted));
        file.product_id = flash_product;
        file.comp_id = wanted.component;
        file.ec_level = wanted.level;
        file.ec_version = (wanted.level >> 8) & 0x0F;
        file.comp_type = wanted.type;
        file.build_level = wanted.build;
        file.version_method = wanted.method;
        snprintf(file.filename, sizeof file.filename, "%s", name.c_str());
        snprintf(file.path, sizeof file.path, "%s", directory.path("").c_str());
        return file;
    }
    /// A file that is listed as `wanted`, with one record to be sent beside those about it.
    static FirmwareBytes content_of(const FileRow& wanted) {
        char header[9];
        snprintf(header, sizeof header, "%04x%04x", static_cast<unsigned int>(flash_product),
                 static_cast<unsigned int>(wanted.level) & 0xFFFFU);
        FirmwareBytes content{header};
        if (wanted.component != 0) {
            content.record(0xFF, 0, {static_cast<std::uint8_t>(wanted.component)});
        }
        return content.record(0x10, 0, {1}).end();
    }
    std::string file_name(int row = 0) const {
        return directory.path("f" + std::to_string(row) + ".dat");
    }
    flashEntry& add_device(int level, int build = 0, int method = 0) {
        const int row = flash->numberOfFlashEntries++;
        flash->initialize_device_data(row, "//?/hid#vid_7a01&pid_0001#bus_09&dev_099", "SN-7",
                                      flash_product, 0);
        flash->fe[row].component_count = 1;
        flash->fe[row].component[0] = {.comp_id = 0,
                                       .ec_level = level,
                                       .build_level = build,
                                       .comp_type = 1,
                                       .version_method = method};
        return flash->fe[row];
    }
    void add_component(flashEntry& row, int number, int level) {
        row.component[number] = {.comp_id = number,
                                 .ec_level = level,
                                 .build_level = 0,
                                 .comp_type = 2,
                                 .version_method = 0};
        ++row.component_count;
    }
    int pass(int component = 0) { return flash->start_flash(component, reset_needed); }

    TemporaryDirectory directory;
    int reset_needed = 0;
};

/// Whole updates of scripted peripherals.
class Flashing : public Update {
  protected:
    Flashing() {
        check_for_update_only = 0;
        command_timeout = erase_timeout = checksum_timeout = 3000;
    }
    /// The messages of a file's one record, and of its checksum.
    static inline const Bytes record_message{0x07, 0x00, 0x02, 0x00, 0x01, 0x10, 0x00, 0x00, 0x01};
    static inline const Bytes checksum_message{0x05, 0x00, 0x02, 0x00, 0x00, 0xAB, 0xCD};

    flashEntry& attach(FlashPeripheral& device, int level = 0x0102) {
        return add_row(device, level);
    }
    int flash_row(int row, int component = 0) {
        const FileHandle file(fopen(file_name().c_str(), "rb"));
        return flash->flash_device(file.get(), row, 0x0102, component, reset_needed,
                                   flash->CurrentIndex++);
    }
};
