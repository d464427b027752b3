// Stands in for libndgts.so, a library that a host loads before libnotes.so. It does nothing but be
// there: libnotes.so notes at its own load which companions are in the process already.
extern "C" __attribute__((visibility("default"))) int NotesSimCompanion_ndgts(void) {
    return 1;
}
