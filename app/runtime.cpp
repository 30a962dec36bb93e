// Parts of GCC's runtime that are large and of which this program needs little. Each stands in the
// place of the library's own of that name, which is then not linked: together they are 117 KB.
#include <bits/functexcept.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <new>

namespace __gnu_cxx {

// An exception that nobody catches. The library's own would print its type, turned back into source
// text, to an error output that a service does not have.
void __verbose_terminate_handler() { std::abort(); }  // NOLINT

}  // namespace __gnu_cxx

namespace {

// What a string or list throws when it is asked for what it does not have. Whoever catches it here
// catches std::exception.
class ContainerError : public std::exception {
 public:
  explicit ContainerError(const char* text) noexcept : m_text(text) {}
  const char* what() const noexcept override { return m_text; }

 private:
  const char* m_text;
};

}  // namespace

// The library's own come with every standard exception and with two kinds of string for their
// texts.
namespace std {  // NOLINT

void __throw_bad_alloc() { throw bad_alloc(); }                              // NOLINT
void __throw_bad_array_new_length() { throw bad_array_new_length(); }        // NOLINT
void __throw_length_error(const char* text) { throw ContainerError(text); }  // NOLINT
void __throw_logic_error(const char* text) { throw ContainerError(text); }   // NOLINT
void __throw_out_of_range_fmt(const char* format, ...) {                     // NOLINT
  throw ContainerError(format);
}

}  // namespace std

// All that is printed ends in this function. The compiler's own would bring its own conversion of
// numbers with a fraction. No format of this program has one, and Windows' printf prints the rest
// in the same way.
extern "C" int __mingw_vfprintf(FILE* file, const char* format, va_list arguments) {  // NOLINT
  return __ms_vfprintf(file, format, arguments);
}
