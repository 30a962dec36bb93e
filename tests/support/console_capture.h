// What the process prints.
#pragma once

#include <string>

// Catches what the process prints with printf, byte for byte, until End. Holds up to 64 KB.
class ConsoleCapture {
 public:
  ConsoleCapture();
  ~ConsoleCapture();
  ConsoleCapture(const ConsoleCapture&) = delete;
  ConsoleCapture& operator=(const ConsoleCapture&) = delete;

  // What was caught since the last call.
  std::string Take();

  // Prints to the console again and gives what was caught and not taken.
  std::string End();

 private:
  int m_savedOutput;
  int m_reader;
};
