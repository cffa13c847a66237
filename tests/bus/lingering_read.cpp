// Preloaded into the program: an interrupt read that failed, as it does once the interface is
// released, never returns. This is a reader that the USB library does not let go.
#include <libusb-1.0/libusb.h>
#include <ltdl.h>

#include <dlfcn.h>
#include <unistd.h>

#include <cstring>

namespace {

using Transfer = decltype(&libusb_interrupt_transfer);

Transfer real_transfer = nullptr;

[[noreturn]] int pause_for_ever() {
    for (;;) {
        pause();
    }
}

int lingering_transfer(libusb_device_handle* handle, unsigned char endpoint, unsigned char* data,
                       int length, int* transferred, unsigned int timeout) {
    const int rc = real_transfer(handle, endpoint, data, length, transferred, timeout);
    const bool is_read = (endpoint & LIBUSB_ENDPOINT_IN) != 0;
    const bool lingers = is_read && rc != 0 && rc != LIBUSB_ERROR_TIMEOUT;
    return lingers ? pause_for_ever() : rc;
}

}  // namespace

extern "C" void* lt_dlsym(lt_dlhandle library, const char* name) {
    const auto real = reinterpret_cast<decltype(&lt_dlsym)>(dlsym(RTLD_NEXT, "lt_dlsym"));
    void* const symbol = real(library, name);
    if (symbol == nullptr || strcmp(name, "libusb_interrupt_transfer") != 0) {
        return symbol;
    }
    real_transfer = reinterpret_cast<Transfer>(symbol);
    return reinterpret_cast<void*>(lingering_transfer);
}
