#include "settings.h"

#include <cstring>

int information_timeout = default_information_timeout;
int erase_timeout = default_erase_timeout;
int command_timeout = default_command_timeout;
int checksum_timeout = default_checksum_timeout;
int reset_sleep_timeout = default_reset_sleep_timeout;
int force_update = 0;
int continue_on_failure = 0;
int display_desktop_progress = 0;
int comp_update_id = -1;
int get_component_number = -1;
int list_devices = 0;
int select_devices = 0;
int device_firmware_match_only = 0;
int sdv_dawu_hw = 0;
int use_information_record_ec_level = 0;
int background_read = 1;
int old_progress = 0;
int skip_version_check = 0;
int oem_vendor = 0;
int extended_components = 0;
int check_for_update_only = 0;
char OutputFilename[255];
char DirName[256];
char fwfilename[max_list_entries][255];
int numberOffwfilenames = 0;
DeviceListEntry device_list[max_list_entries];
int NumberOfDeviceListEntries = 0;
SerialNoListEntry serial_no_list[max_list_entries];
int NumberOfSerialNoListEntries = 0;

void reset_options() {
    memset(OutputFilename, 0, sizeof(OutputFilename));
    memset(DirName, 0, sizeof(DirName));
    memset(fwfilename, 0, sizeof(fwfilename));
    memset(device_list, 0, sizeof(device_list));
    memset(serial_no_list, 0, sizeof(serial_no_list));
}
