// A wall clock that is wrong, for a program that is started with this library in LD_PRELOAD.
//   DROVANE_CLOCK_SHIFT=SECONDS       the program's wall clock is ahead by so much; behind when < 0
//   DROVANE_CLOCK_SHIFT_FILE=PATH     the same, read anew at each look at the clock, so that the
//                                     clock of a running program can jump
// Both are added. The monotonic clocks, and the times of files, stay as they are.
//
// Where a time_t has 32 bits the answers are those of that machine's C library once its kernel's
// clock has passed the year 2038: see each function.
#include <fcntl.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <limits>

namespace {

// What the kernel fills in, on machines of either width.
struct WideTime {
  std::int64_t seconds = 0;
  std::int64_t nanoseconds = 0;
};

#ifdef SYS_clock_gettime64
constexpr long kWideClockCall = SYS_clock_gettime64;
#else
constexpr long kWideClockCall = SYS_clock_gettime;
#endif

bool isWallClock(clockid_t clock) {
  return clock == CLOCK_REALTIME || clock == CLOCK_REALTIME_COARSE;
}

std::int64_t number(const char* text) { return text == nullptr ? 0 : std::atoll(text); }

// No file, and a file without a number, are no shift.
std::int64_t numberInFile(const char* path) {
  if (path == nullptr) return 0;
  const int file = ::open(path, O_RDONLY | O_CLOEXEC);
  if (file < 0) return 0;
  std::array<char, 32> text{};
  const ssize_t length = ::read(file, text.data(), text.size() - 1);
  ::close(file);
  return length > 0 ? number(text.data()) : 0;
}

std::int64_t shift() {
  const int kept = errno;
  const std::int64_t seconds = number(std::getenv("DROVANE_CLOCK_SHIFT")) +
                               numberInFile(std::getenv("DROVANE_CLOCK_SHIFT_FILE"));
  errno = kept;
  return seconds;
}

// 0, or -1 with errno. By the system call, because the C library's own is what is replaced here.
int shiftedTime(clockid_t clock, WideTime& now) {
  if (::syscall(kWideClockCall, clock, &now) != 0) return -1;
  if (isWallClock(clock)) now.seconds += shift();
  return 0;
}

bool fits(std::int64_t seconds) {
  return seconds >= std::numeric_limits<time_t>::min() &&
         seconds <= std::numeric_limits<time_t>::max();
}

}  // namespace

// Past 2038 with 32 bits: fails with EOVERFLOW and leaves the result untouched.
extern "C" int clock_gettime(clockid_t clock, timespec* result) noexcept {
  WideTime now;
  if (shiftedTime(clock, now) != 0) return -1;
  if (!fits(now.seconds)) {
    errno = EOVERFLOW;
    return -1;
  }
  result->tv_sec = static_cast<time_t>(now.seconds);
  result->tv_nsec = static_cast<long>(now.nanoseconds);
  return 0;
}

// Past 2038 with 32 bits: fails with EOVERFLOW and leaves the result untouched.
extern "C" int gettimeofday(timeval* result, void* /*zone*/) noexcept {
  timespec now{};
  if (clock_gettime(CLOCK_REALTIME, &now) != 0) return -1;
  result->tv_sec = now.tv_sec;
  result->tv_usec = static_cast<suseconds_t>(now.tv_nsec / 1000);
  return 0;
}

// Past 2038 with 32 bits: fails with EOVERFLOW.
extern "C" time_t time(time_t* result) noexcept {
  timespec now{};
  if (clock_gettime(CLOCK_REALTIME, &now) != 0) return -1;
  if (result != nullptr) *result = now.tv_sec;
  return now.tv_sec;
}
