// The turn of a thread before the others'.
#pragma once

namespace drovane {

// While one of these lives, the scheduler gives its thread ten steps of nice(1) more than before.
// For a thread that works little and that somebody waits for. On Linux each thread has a nice value
// of its own (setpriority(2), "C library/kernel differences").
//
// The system may refuse it to a user (RLIMIT_NICE); then everything stays as it is.
class Precedence {
 public:
  // For the calling thread, which also ends it.
  Precedence();
  ~Precedence();
  Precedence(const Precedence&) = delete;
  Precedence& operator=(const Precedence&) = delete;

  // Gives it up for as long as this lives: for work that has no end. The same thread.
  class Waived {
   public:
    explicit Waived(const Precedence& of);
    ~Waived();
    Waived(const Waived&) = delete;
    Waived& operator=(const Waived&) = delete;

   private:
    const Precedence& precedence;
  };

 private:
  const int usual;    // nice value
  const bool raised;  // the system allowed it
};

}  // namespace drovane
