// By this a simulation is told from a real USB library, in the file as well as in memory.

extern "C" {

extern __attribute__((visibility("default"))) const char zelfwsim_simulation;
const char zelfwsim_simulation = 1;

}  // extern "C"
