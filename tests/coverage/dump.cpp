// Linked into every program and library that counts its lines: has the counts written also where a
// process ends by _exit, as children do.
extern "C" void __gcov_dump();
extern "C" [[gnu::weak]] void qrtln_before_exit(void (*call)());

namespace {

struct Registration {
    Registration() {
        if (qrtln_before_exit != nullptr) {
            qrtln_before_exit(__gcov_dump);
        }
    }
} s_registration;

} // namespace
