// Opens a shared object by name, as a program does that does not link its USB library, and says
// whether that is the simulation.
#include <dlfcn.h>

#include <cstdio>

int main(int argc, char** argv) {
    void* library = argc == 2 ? dlopen(argv[1], RTLD_NOW) : nullptr;
    if (library == nullptr) {
        std::puts("none");
        return 1;
    }
    std::puts(dlsym(library, "zelfwsim_simulation") != nullptr ? "simulation" : "another");
    return 0;
}
