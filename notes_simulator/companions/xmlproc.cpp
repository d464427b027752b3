// Stands in for libxmlproc.so, a library that a host loads before libnotes.so. It does nothing but
// be there: libnotes.so notes at its own load which companions are in the process already.
extern "C" __attribute__((visibility("default"))) int NotesSimCompanion_xmlproc(void) {
    return 1;
}
