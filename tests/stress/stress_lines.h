// The lines that the writing processes write: numbered, of many lengths, each with a text that
// follows from its number.
#pragma once

#include <string>

constexpr unsigned kThreads = 3;
// What the module stress_module.dll writes counts as a thread of its own.
constexpr unsigned kModuleThread = kThreads;
constexpr unsigned kModuleLines = 6;
// Tells the module which writer it belongs to.
constexpr char kWriterVariable[] = "VORL_STRESS_WRITER";

inline std::string FillerOf(unsigned number) {
  return std::string(number % 97, static_cast<char>('a' + number % 26));
}

template <typename Trace>
void WriteLine(Trace* logTrace, unsigned writer, unsigned thread, unsigned number) {
  logTrace(2, "stress.exe", "Writer", "stress.cpp", static_cast<int>(thread), "w=%u t=%u n=%u [%s]",
           writer, thread, number, FillerOf(number).c_str());
}
