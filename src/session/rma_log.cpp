#include "journal/file_handle.h"
#include "session/zelflash.h"
#include "settings.h"

namespace {

/// Room for the overall result, which is known only after the last row.
constexpr char placeholder[] = "  \n";

/// Writes one row a device; results after `NOFLASHALLOWED` are not written any more.
class RmaRows {
  public:
    explicit RmaRows(FILE* file) : file_(file) {}

    void write_selected(const DeviceListEntry& selected) {
        const int ec_level = selected.fe == nullptr ? 0 : selected.fe->ec_level;
        const int result = selected.fe == nullptr ? int{FLASHDEVICEGONE} : selected.fe->flashStatus;
        if (takes_row(result)) {
            fprintf(file_, "PID %s EC level: %02x.%02x: %s \n", selected.PIDstr,
                    static_cast<unsigned int>((ec_level >> 8) & 0xFF),
                    static_cast<unsigned int>(ec_level & 0xFF), flash_code_text(result));
        }
    }
    void write_device(const flashEntry& entry) {
        if (takes_row(entry.flashStatus)) {
            fprintf(file_, "PID %04x EC level: %04x.%02x: %s \n",
                    static_cast<unsigned int>(entry.product_id),
                    static_cast<unsigned int>((entry.ec_level >> 8) & 0xFF),
                    static_cast<unsigned int>(entry.ec_level & 0xFF),
                    flash_code_text(entry.flashStatus));
        }
    }
    int overall_result() const {
        return last_result_ == FLASHFORCED || last_result_ == FLASHRESETSUCCESS ? 0 : last_result_;
    }

  private:
    bool takes_row(int result) {
        if (last_result_ == NOFLASHALLOWED) {
            return false;
        }
        last_result_ = result;
        return true;
    }

    FILE* file_;
    int last_result_ = 0;
};

}  // namespace

void ZELFLASH::write_rma_log(const char* path) {
    const FileHandle file(open_for_writing(path));
    if (file == nullptr) {
        return;
    }
    fprintf(file.get(), "%s", placeholder);
    RmaRows rows(file.get());
    if (select_devices == 1) {
        for (int i = 0; i < NumberOfDeviceListEntries; ++i) {
            rows.write_selected(device_list[i]);
        }
    } else {
        for (int row = 0; row < numberOfFlashEntries; ++row) {
            rows.write_device(fe[row]);
        }
    }
    fseek(file.get(), 0, SEEK_SET);
    fprintf(file.get(), "%d", rows.overall_result());
    fflush(file.get());
}
