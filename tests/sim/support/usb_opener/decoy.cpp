// Goes by the USB library's name, and leaves a file when it is loaded.
#include <cstdio>
#include <cstdlib>

namespace {

__attribute__((constructor)) void note() {
    const char* file = std::getenv("DECOY_NOTE");
    if (FILE* stream = file != nullptr ? std::fopen(file, "w") : nullptr) {
        std::fclose(stream);
    }
}

}  // namespace

extern "C" int libusb_init(void** context);

extern "C" int libusb_init(void** context) {
    *context = nullptr;
    return 0;
}
