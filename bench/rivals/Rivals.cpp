#include "rivals/Rivals.h"

#include <fstream>
#include <stdexcept>

namespace bench {
namespace {

const std::string kSources = RIVALS_SOURCES "/";

std::vector<Words> drovane(const Job& job) {
  const std::string file = job.folder + "/house.conf";
  const std::string task = job.answer_port != 0 ? "answer " + std::to_string(job.answer_port)
                                                : "expect " + std::to_string(job.lines);
  std::ofstream out(file);
  out << "rovik 2 tally tally\n  " << task << R"(
rovik 1 link generic_net
  mode tcp
  host 127.0.0.1
  port )"
      << job.port << R"(
  chopeol on
  unparsedout off
  reg on
  regin 5_1_0 '^T[0-9]+=([0-9]+)$' '\1'
  open
)";
  if (!out.flush()) throw std::runtime_error("cannot write " + file);
  return {{DROVANE_PROGRAM, "run", file, "--strict", "--plugins", RIVALS_PLUGINS, "--log-file",
           job.folder + "/log", "--control", job.folder + "/control"}};
}

std::vector<Words> script(Words words, const Job& job) {
  words.push_back(std::to_string(job.port));
  if (job.answer_port != 0) words.push_back(std::to_string(job.answer_port));
  return {words};
}

std::vector<Words> python(const Job& job) {
  return script({"/usr/bin/python3", kSources + "lines.py"}, job);
}

std::vector<Words> lua(const Job& job) {
  return script({"/usr/bin/lua5.2", kSources + "lines.lua"}, job);
}

Words socat(const std::string& from, const std::string& to) {
  return {"/usr/bin/socat", "-u", "-b65536", from, to};
}

Words awk(Words words, const std::string& source) {
  words.insert(words.end(), {"-f", kSources + source});
  return words;
}

std::vector<Words> pipeOf(const Words& mawk, const Job& job) {
  const std::string host = "TCP4:127.0.0.1:";
  std::vector<Words> programs = {socat(host + std::to_string(job.port), "STDOUT"),
                                 awk(mawk, "cut.awk")};
  if (job.answer_port == 0) {
    programs.push_back(awk(mawk, "count.awk"));
  } else {
    programs.push_back(awk(mawk, "answer.awk"));
    programs.push_back(socat("STDIN", host + std::to_string(job.answer_port) + ",nodelay"));
  }
  return programs;
}

std::vector<Words> pipe(const Job& job) { return pipeOf({"/usr/bin/mawk"}, job); }

std::vector<Words> promptPipe(const Job& job) {
  return pipeOf({"/usr/bin/mawk", "-W", "interactive"}, job);
}

}  // namespace

const std::vector<Rival>& rivals() {
  static const std::vector<Rival> all = {
      {"drovane", true, true, drovane},
      {"Python asyncio", true, false, python},
      {"Lua 5.2, LuaSocket", true, false, lua},
      {"socat | mawk", false, false, pipe},
      {"socat | mawk -W interactive", true, false, promptPipe},
  };
  return all;
}

}  // namespace bench
