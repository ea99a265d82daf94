// The plug-in at the other end of GenericNet's records. It counts them and adds their values up, or
// sends each value back to whoever measures how long it takes.
#include <charconv>
#include <cstdint>
#include <cstdlib>
#include <iostream>
#include <string>
#include <string_view>

#include "Rovik.h"
#include "support/Sockets.h"

namespace {

class Tally : public Rovik {
 public:
  // Lines that were lost, or came twice, are told by what is written at the end.
  ~Tally() override {
    if (count != expected) tell();
  }

  // expect N:     count, and write the result to standard output when N have come.
  // answer PORT:  send each value as a line to the port of 127.0.0.1.
  std::string interpretCmd(char** arg) override {
    const std::string_view word = arg[0] != nullptr ? arg[0] : "";
    if (arg[1] == nullptr || (word != "expect" && word != "answer"))
      return Rovik::interpretCmd(arg);
    if (word == "expect") {
      expected = std::strtoull(arg[1], nullptr, 10);
    } else {
      answers = bench::connectTo(std::atoi(arg[1]));
    }
    return "OK";
  }

  int selectMM(RovikMessage* msg) override {
    if (msg->type != MM_DATA) return 0;
    const std::string& value = static_cast<MMData*>(msg)->value_s;
    if (answers) {
      line.assign(value).push_back('\n');
      bench::writeAll(answers.get(), line);
    } else {
      add(value);
    }
    return 0;
  }

 private:
  void add(std::string_view value) {
    std::uint64_t number = 0;
    std::from_chars(value.data(), value.data() + value.size(), number);
    sum += number;
    if (++count == expected) tell();
  }

  void tell() const { std::cout << count << ' ' << sum << std::endl; }

  std::uint64_t expected = 0;
  std::uint64_t count = 0;
  std::uint64_t sum = 0;
  drovane::Descriptor answers;
  std::string line;
};

}  // namespace

extern "C" Rovik* maker() { return new Tally; }
