// Needs the decoy, so that it comes along without being asked for.
extern "C" int libusb_init(void** context);

int main() {
    void* context = nullptr;
    return libusb_init(&context);
}
