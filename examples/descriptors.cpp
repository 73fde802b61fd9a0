// Sends five bytes through a pipe and reads them back: descriptors
#include <SystemCalls.h>

#include <unistd.h>

#include <exception>
#include <iostream>
#include <string>

int main() {
  int ends[2];
  if (::pipe(ends) != 0) {
    return 1;
  }
  const int reading = ends[0];
  const int writing = ends[1];
  try {
    // [use]
    char buffer[5];
    WriteLoop(writing, "hello", 5);            // all five, or an exception
    ReadLoop(reading, buffer, sizeof buffer);  // likewise
    DebugSleep(20);                            // ms, even with signals
    // [use]
    std::cout << std::string(buffer, sizeof buffer) << '\n';

    ::close(writing);
    ReadLoop(reading, buffer, 1);  // nothing more can come
  } catch (const std::exception& e) {
    std::cout << e.what() << '\n';
  }
  ::close(reading);
  return 0;
}
