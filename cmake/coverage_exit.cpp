// How a program ends at once when its lines are counted: the counts, which an ordinary end writes,
// are written first. Linked with -Wl,--wrap,_exit.
extern "C" {

// The compiler and the linker call them by these names.
void __gcov_dump();                   // NOLINT
[[noreturn]] void __real__exit(int);  // NOLINT
[[noreturn]] void __wrap__exit(int);  // NOLINT
}

void __wrap__exit(int code) {  // NOLINT
  __gcov_dump();
  __real__exit(code);
}
