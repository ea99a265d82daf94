// script/soak has the help text; this is its program.
#include <signal.h>

#include <charconv>
#include <csignal>
#include <cstring>
#include <exception>
#include <iostream>

#include "Soak.h"

namespace {

volatile std::sig_atomic_t interrupted = 0;

void onSignal(int) { interrupted = 1; }

void takeSignals() {
  struct sigaction action {};
  action.sa_handler = onSignal;
  for (const int number : {SIGINT, SIGTERM}) sigaction(number, &action, nullptr);
}

int minutesOf(const char* text) {
  int minutes = 0;
  const auto [end, error] = std::from_chars(text, text + std::strlen(text), minutes);
  return error == std::errc() && *end == '\0' ? minutes : 0;
}

}  // namespace

int main(int count, char** arguments) {
  const int minutes = count == 2 || count == 3 ? minutesOf(arguments[1]) : 0;
  if (minutes < 1) {
    std::cerr << "Usage: soak MINUTES [FILE]\n";
    return 2;
  }
  takeSignals();
  try {
    soak::Soak soak(
        std::chrono::minutes(minutes), [] { return interrupted != 0; },
        count == 3 ? arguments[2] : "");
    return soak.run() ? 0 : 1;
  } catch (const std::exception& error) {
    std::cerr << "soak: " << error.what() << '\n';
    return 1;
  }
}
