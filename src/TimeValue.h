// A point in time or a span of it, in seconds and microseconds.
#pragma once

#include <sys/time.h>

// The system's timeval with arithmetic, an order and a text form. Not synchronised: one thread
// at a time may use a value.
class TimeValue : public timeval {
 public:
  // Stores both numbers as they are: nothing is carried from one into the other, and either may
  // be negative (a delay of 0 s, -1 us is a delay below zero).
  TimeValue(int sec, int usec);
  TimeValue(const TimeValue& other);
  TimeValue& operator=(const TimeValue& other);
  ~TimeValue() = default;

  // Sum and difference, afterwards with tv_usec between 0 and 999,999.
  TimeValue& operator+=(const TimeValue& other);
  TimeValue& operator-=(const TimeValue& other);

  // True when the value is not zero.
  explicit operator bool() const;

  // Writes the value as local wall-clock time, "YYYY-MM-DD HH:MM:SS.mmm", into tbuf.
  void setTbuf();

  // Fills `now` with the current wall-clock time (gettimeofday(2)). Where a time_t has 32 bits
  // it stands still at 2038-01-19T03:14:07.999999 UTC, the last moment that they can hold.
  static void getCurrentSystemTime(timeval& now);

  // The text form, NUL-terminated; empty until setTbuf.
  char tbuf[26];
};

// Seconds decide; with equal seconds the microseconds do. Both are compared as signed numbers,
// and equal values are not greater.
bool operator>(const TimeValue& a, const TimeValue& b);
