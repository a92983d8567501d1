// The unwind tables of 32-bit ARM name the routines that read them, so that a linker brings these along, and
// with them a library that we do not need: the unwinder at work finds its own by their numbers. These stand
// in for the names.
#define STANDS_IN __attribute__((visibility("hidden")))

extern "C" {
STANDS_IN void __aeabi_unwind_cpp_pr0(void) {}
STANDS_IN void __aeabi_unwind_cpp_pr1(void) {}
STANDS_IN void __aeabi_unwind_cpp_pr2(void) {}
}
