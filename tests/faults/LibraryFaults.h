// Failures of calls that no limit, file or peer can be made to cause, wherever they are made: an
// executable's functions come before the C library's, also for the libraries that it uses (see
// tests/CMakeLists.txt for those that have this).
#pragma once

#include <string_view>
#include <thread>

// Makes one call of `name` fail, the first one after `spared` others; others go through. One at a
// time. The calls that it knows are listed in LibraryFaults.cpp.
class LibraryFault {
 public:
  enum class On { ThisThread, OtherThreads };

  LibraryFault(std::string_view its_name, int its_error, On its_threads = On::ThisThread,
               int its_spared = 0);
  ~LibraryFault();
  LibraryFault(const LibraryFault&) = delete;
  LibraryFault& operator=(const LibraryFault&) = delete;

  bool happened() const;

  // The error of this call if it is to fail, else 0.
  static int strikes(std::string_view called);

 private:
  const std::string_view name;
  const int error;
  const On threads;
  const std::thread::id maker = std::this_thread::get_id();
  int spared;
  bool struck = false;
};
