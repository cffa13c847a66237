#include "firmware/component_text.h"
#include "firmware/firmware_display.h"
#include "journal/file_handle.h"
#include "journal/output.h"
#include "session/zelflash.h"

void ZELFLASH::display_firmware_file(const char* path) {
    writedebug("Opening file '%s'\n", path);
    const FileHandle file = open_regular_file(path);
    if (file == nullptr) {
        writelog(1, "No flash file: %s\n", path);
        return;
    }
    display_firmware_stream(file.get());
}

void ZELFLASH::show_component_information(flashEntry* entry, int index) {
    if (entry == nullptr || index < 0 || index >= max_components) {
        return;
    }
    const component_entry& component = entry->component[index];
    writelog(0, "    Component: ID: %02x  Version: %02x.%02x%-3s  Type: %-13s  Control: %s\n",
             static_cast<unsigned int>(component.comp_id), (component.ec_level >> 8) & 0xFF,
             component.ec_level & 0xFF, build_suffix(component.build_level).text,
             type_word(component.comp_type).c_str(),
             control_word(component.version_method).c_str());
}
