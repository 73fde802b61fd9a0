// Writes a file, reads it back, and fails at its end: files
#include <File.h>

#include <fcntl.h>
#include <unistd.h>

#include <exception>
#include <iostream>
#include <string>

int main() {
  try {
    // [use]
    const File file("example.txt", O_RDWR | O_CREAT | O_TRUNC, 0644);
    file.PutString("21.5");

    unsigned char text[4];
    file.Seek(0, SEEK_SET);
    file.ReadBytes(text, sizeof text);  // all four, or an exception
    // [use]
    std::cout << std::string(text, text + sizeof text) << '\n';

    file.ReadBytes(text, 1);
  } catch (const std::exception& e) {
    std::cout << e.what() << '\n';
  }
  ::unlink("example.txt");
  std::cout << "exists: " << (File::Exists("example.txt") ? "yes" : "no") << '\n';
  return 0;
}
