// Reads the first four bytes of a file, and tells apart what can fail: failures FILE
//
// Needs no special privileges.
#include <File.h>

#include <fcntl.h>

#include <exception>
#include <iostream>
#include <string>
#include <system_error>

int main(int argc, char* argv[]) {
  if (argc != 2) {
    std::cerr << "Usage: failures FILE\n";
    return 2;
  }
  // [use]
  try {
    unsigned char text[4];
    const File file(argv[1], O_RDONLY, 0);
    file.ReadBytes(text, sizeof text);
    std::cout << "begins with " << std::string(text, text + 4) << '\n';
  } catch (const std::system_error& failure) {  // its number says why
    if (failure.code() == std::errc::no_such_file_or_directory) {
      std::cout << "create it first: ";
    }
    std::cout << failure.what() << '\n';
  } catch (const std::exception& failure) {  // everything else
    std::cout << failure.what() << '\n';
  }
  // [use]
  return 0;
}
