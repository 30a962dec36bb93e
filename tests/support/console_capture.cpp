#include "tests/support/console_capture.h"

#include <fcntl.h>
#include <io.h>

#include <cstdio>

#include "support/windows_api.h"

namespace {

constexpr unsigned kPipeSize = 65536;

}  // namespace

ConsoleCapture::ConsoleCapture() : m_savedOutput(-1), m_reader(-1) {
  std::fflush(stdout);
  int ends[2] = {-1, -1};
  _pipe(ends, kPipeSize, _O_BINARY);
  m_savedOutput = _dup(_fileno(stdout));
  _dup2(ends[1], _fileno(stdout));
  _close(ends[1]);
  m_reader = ends[0];
}

ConsoleCapture::~ConsoleCapture() { End(); }

std::string ConsoleCapture::Take() {
  std::fflush(stdout);
  DWORD available = 0;
  PeekNamedPipe(reinterpret_cast<HANDLE>(_get_osfhandle(m_reader)), nullptr, 0, nullptr, &available,
                nullptr);
  std::string text(available, '\0');
  const int count = available == 0 ? 0 : _read(m_reader, text.data(), available);
  text.resize(count < 0 ? 0 : static_cast<std::size_t>(count));
  return text;
}

std::string ConsoleCapture::End() {
  std::string text;
  if (m_reader < 0) {
    return text;
  }
  std::fflush(stdout);
  _dup2(m_savedOutput, _fileno(stdout));
  _close(m_savedOutput);
  char buffer[512];
  for (int count = _read(m_reader, buffer, sizeof(buffer)); count > 0;
       count = _read(m_reader, buffer, sizeof(buffer))) {
    text.append(buffer, static_cast<std::size_t>(count));
  }
  _close(m_reader);
  m_reader = -1;
  return text;
}
