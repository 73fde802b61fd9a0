// Counts how often threads that each have a File of their own get in each other's way: files-by-threads 8 200000
//
// File closes its stream and then the descriptor, whose number the stream has just closed. In between, another thread
// may have been given that number, and loses the file behind it.
#include <File.h>

#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <cstddef>
#include <cstdlib>
#include <exception>
#include <iostream>
#include <string>
#include <thread>
#include <vector>

namespace {

std::atomic<int> failures{0};
std::atomic<int> foreign{0};

void WriteAndReadBack(int thread, int files) {
  const std::string name = "by-thread-" + std::to_string(thread);
  const std::string mine(16, static_cast<char>('a' + thread % 26));
  for (int i = 0; i < files; ++i) {
    try {
      const File file(name, O_RDWR | O_CREAT | O_TRUNC, 0600);
      file.PutString(mine);
      file.Seek(0, SEEK_SET);
      std::vector<unsigned char> found(mine.size());
      file.ReadBytes(found.data(), static_cast<unsigned int>(found.size()));
      if (std::string(found.begin(), found.end()) != mine) {
        ++foreign;
      }
    } catch (const std::exception&) {
      ++failures;
    }
  }
  ::unlink(name.c_str());
}

}  // namespace

int main(int argc, char* argv[]) {
  if (argc != 3) {
    std::cerr << "Usage: files-by-threads THREADS FILES\nWrites into the current directory.\n";
    return 2;
  }
  const int threads = static_cast<int>(std::strtol(argv[1], nullptr, 10));
  const int files = static_cast<int>(std::strtol(argv[2], nullptr, 10));
  if (threads < 1 || files < threads) {
    std::cerr << "files-by-threads: at least one thread, and a file for each\n";
    return 2;
  }
  std::vector<std::thread> running;
  running.reserve(static_cast<std::size_t>(threads));
  for (int thread = 0; thread < threads; ++thread) {
    running.emplace_back(WriteAndReadBack, thread, files / threads);
  }
  for (std::thread& thread : running) {
    thread.join();
  }
  std::cout << "of " << files / threads * threads << " files, " << foreign << " have another thread's bytes, "
            << failures << " failed\n";
  return 0;
}
