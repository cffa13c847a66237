// Stands in the way of the USB library: it has the first function that is looked up, and no other.

extern "C" int libusb_init(void** context);

// The guard takes no library without it.
extern "C" const char zelfwsim_simulation;
extern "C" const char zelfwsim_simulation = 1;

extern "C" int libusb_init(void** context) {
    *context = nullptr;
    return 0;
}
