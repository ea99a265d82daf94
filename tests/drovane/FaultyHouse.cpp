#include "FaultyHouse.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <system_error>

#include "support/Eventually.h"

namespace {

void check(int result, const char* call) {
  if (result != 0) throw std::system_error(errno, std::generic_category(), call);
}

}  // namespace

Process& FaultyHouse::start(const std::string& config, const Arguments& options,
                            Process::Environment extra, Arguments before) {
  program.folder.write("house.conf", config);
  before.insert(before.end(), {DROVANE_PROGRAM, "run", program.file(), "--plugins", plug_ins});
  before.insert(before.end(), options.begin(), options.end());
  extra["DROVANE_CONTROL"] = program.control;
  process = std::make_unique<Process>(before, extra);
  return *process;
}

Process& FaultyHouse::startReady(const std::string& config, const Arguments& options,
                                 const Process::Environment& extra) {
  start(config, options, extra);
  EXPECT_TRUE(process->waitForErrors("house.conf: ")) << process->errors();
  return *process;
}

Process& FaultyHouse::restart(const Arguments& options) {
  return start(program.folder.read("house.conf"), options);
}

std::string FaultyHouse::command(const std::string& rovik, const Arguments& words) const {
  Arguments line = {"cmd", rovik};
  line.insert(line.end(), words.begin(), words.end());
  const Finished done = program.ask(line);
  return done.output + done.errors;
}

bool FaultyHouse::arrives(const std::string& value) const {
  return eventually([&] { return command("other", {"last"}).find(value) != std::string::npos; });
}

void FaultyHouse::expectEndsInTime() {
  const auto begun = std::chrono::steady_clock::now();
  process->signal(SIGTERM);
  EXPECT_EQ(process->wait(), 0) << process->errors();
  EXPECT_LT(std::chrono::steady_clock::now() - begun, std::chrono::seconds(6) * slowness());
}

void FaultyHouse::limit(__rlimit_resource resource, rlim_t now) const {
  rlimit all{};
  check(::prlimit(process->pid(), resource, nullptr, &all), "prlimit");
  all.rlim_cur = now;
  check(::prlimit(process->pid(), resource, &all, nullptr), "prlimit");
}

void FaultyHouse::unlimit(__rlimit_resource resource) const {
  rlimit all{};
  check(::prlimit(process->pid(), resource, nullptr, &all), "prlimit");
  limit(resource, all.rlim_max);
}

rlim_t FaultyHouse::addressSpace() const {
  rlim_t pages = 0;
  std::ifstream("/proc/" + std::to_string(process->pid()) + "/statm") >> pages;
  return pages * static_cast<rlim_t>(::sysconf(_SC_PAGESIZE));
}

void FaultyHouse::script(const std::string& name, const std::string& text) const {
  std::filesystem::create_directories(program.folder / "lua");
  program.folder.write("lua/" + name + ".lua", text);
}

std::string FaultyHouse::folderWithBroken(const std::string& library) const {
  std::filesystem::create_directories(program.folder / "libraries");
  program.folder.write("libraries/" + library, "This is no library.\n");
  return program.folder / "libraries";
}

bool FaultyHouse::hasLoaded(const std::string& library) const {
  std::ifstream maps("/proc/" + std::to_string(process->pid()) + "/maps");
  for (std::string line; std::getline(maps, line);)
    if (line.find('/' + library) != std::string::npos) return true;
  return false;
}

void ShortSupply::set(std::uint32_t n, std::uint32_t m) const {
  const std::array<std::uint32_t, 2> numbers = {n, m};
  const drovane::Descriptor file(
      ::open((folder / "supply").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
  if (::pwrite(file.get(), numbers.data(), sizeof numbers, 0) != sizeof numbers)
    throw std::system_error(errno, std::generic_category(), "pwrite");
}

Process::Environment ShortSupply::environment() const {
  return {{"LD_PRELOAD", DROVANE_SHORT_SUPPLY}, {"DROVANE_SHORT_SUPPLY_FILE", folder / "supply"}};
}

std::string houseOf(const TcpPeer& peer, const std::string& more) {
  return "rovik 5 boiler generic_net\n  mode tcp\n  host 127.0.0.1\n  port " +
         std::to_string(peer.port()) +
         "\n  eolin \\n\n  unparsedout on\n  open\nrovik 6 other echo\n" + more;
}
