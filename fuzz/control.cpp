// The control socket's clients: whatever they send, each line is answered with one line, and the
// answers come in the order of the requests.
//
// Input: what clients send. The byte 0x01 goes to the next of the three clients, 0x02 ends the
// sending of the present one, 0x03 breaks its connection, and 0x04 stands for 9,000 blanks.
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>

#include "framework/ConfigFile.h"
#include "framework/ControlServer.h"
#include "framework/House.h"
#include "framework/MessageJson.h"
#include "framework/PluginLoader.h"
#include "support/Property.h"
#include "support/Wait.h"

using drovane::Descriptor;
using drovane::Json;
using fuzzing::require;

namespace {

constexpr int kPatience = 9000;  // milliseconds; under the limit for one input
constexpr std::size_t kLongestLine = 65536;
constexpr std::size_t kMostBytes = 300000;

drovane::ConfigFile configuration() {
  drovane::ConfigFile config;
  config.path = "fuzz.conf";
  for (const int id : {5, 6})
    config.roviks.push_back({id, id, "net" + std::to_string(id), "answering", {}});
  return config;
}

// Two running roviks and their control socket, for as long as the process lives; the socket's file
// only while it is being made.
class RunningHouse {
 public:
  RunningHouse()
      : house(configuration(),
              [](const std::string& finding) { require(false, finding.c_str()); }) {
    std::string folder = (std::filesystem::temp_directory_path() / "drovane-XXXXXX").string();
    require(::mkdtemp(folder.data()) != nullptr, "there is a folder for the socket");
    require(house.make(loader) && house.start(true), "the house starts");
    server.emplace(drovane::ControlServer::Settings{folder + "/socket", "1.0"}, house);
    require(server->start() == 0, "the server starts");
    // The kernel finds the socket by a descriptor of its file as well as by its name.
    place = Descriptor(::open((folder + "/socket").c_str(), O_PATH | O_CLOEXEC));
    require(static_cast<bool>(place), "the socket has a file");
    std::filesystem::remove_all(folder);
  }

  ~RunningHouse() {
    server.reset();
    house.stop();
  }

  Descriptor connect() const {
    Descriptor client(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_un target{};
    target.sun_family = AF_UNIX;
    std::snprintf(target.sun_path, sizeof target.sun_path, "/proc/self/fd/%d", place.get());
    require(::connect(client.get(), reinterpret_cast<const sockaddr*>(&target), sizeof target) == 0,
            "the server takes a client");
    return client;
  }

 private:
  drovane::PluginLoader loader{{DROVANE_FUZZ_PLUGINS}};
  drovane::House house;
  std::optional<drovane::ControlServer> server;
  Descriptor place;
};

// One client, which knows how many answers it has to get.
class Client {
 public:
  explicit Client(const RunningHouse& its_house) : house(its_house) {}

  void put(char byte) {
    if (ended) return;
    pending += byte;
    if (byte == '\n') ++lines;
    line_length = byte == '\n' ? 0 : line_length + 1;
    longest = std::max(longest, line_length);
  }

  // What has been put goes out.
  void send() {
    if (pending.empty() || ended) return;
    if (!socket) socket = house.connect();
    std::string_view rest = pending;
    while (!rest.empty()) {
      receive(0);
      const ssize_t count =
          ::send(socket.get(), rest.data(), rest.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
      if (count > 0) rest.remove_prefix(static_cast<std::size_t>(count));
      if (count < 0 && errno != EAGAIN) break;
      if (count < 0) wait(POLLOUT | POLLIN);
    }
    pending.clear();
  }

  void endSending() {
    send();
    if (socket) ::shutdown(socket.get(), SHUT_WR);
    ended = static_cast<bool>(socket);
  }

  void breakOff() {
    send();
    *this = Client(house);
  }

  // Until everything is answered. After a line that is too long the server refuses to hear more.
  void awaitAnswers() {
    send();
    const bool too_long = longest > kLongestLine;
    while (socket && !gone && (too_long || answers < lines)) receive(kPatience);
    if (too_long)
      require(answers <= lines + 1, "nothing is answered twice");
    else
      require(answers == lines, "each line has one answer");
  }

  Client& operator=(Client&& other) noexcept {
    socket = std::move(other.socket);
    pending = input = {};
    lines = answers = line_length = longest = 0;
    ended = gone = false;
    return *this;
  }

 private:
  void wait(short events) const {
    require(fuzzing::await(socket.get(), events, kPatience), "the server answers in time");
  }

  void receive(int patience) {
    std::array<char, 65536> block;
    if (patience > 0) wait(POLLIN);
    const ssize_t count = ::recv(socket.get(), block.data(), block.size(), MSG_DONTWAIT);
    if (count < 0 && errno == EAGAIN) return;
    if (count <= 0) gone = true;
    if (count > 0) input.append(block.data(), static_cast<std::size_t>(count));
    std::size_t begin = 0;
    for (std::size_t end; (end = input.find('\n', begin)) != std::string::npos; begin = end + 1)
      takeLine(input.substr(begin, end - begin));
    input.erase(0, begin);
  }

  // A reply says whether all is well, and if not, why; all else is for those who watch or trace.
  void takeLine(const std::string& line) {
    const Json json(cJSON_Parse(line.c_str()));
    require(cJSON_IsObject(json.get()) != 0, "the server speaks JSON objects");
    const cJSON* ok = cJSON_GetObjectItemCaseSensitive(json.get(), "ok");
    if (ok == nullptr) {
      const bool watched = cJSON_HasObjectItem(json.get(), "type") != 0 ||
                           cJSON_HasObjectItem(json.get(), "event") != 0 ||
                           cJSON_HasObjectItem(json.get(), "dropped") != 0;
      return require(watched, "what is no reply is a message or an event of a link");
    }
    ++answers;
    require(cJSON_IsBool(ok) != 0, "a reply says whether all is well");
    std::string error;
    require(cJSON_IsTrue(ok) != 0 || drovane::readText(json.get(), "error", error),
            "a refusal has a reason");
  }

  const RunningHouse& house;
  Descriptor socket;
  std::string pending;
  std::string input;
  std::size_t lines = 0;
  std::size_t answers = 0;
  std::size_t line_length = 0;
  std::size_t longest = 0;
  bool ended = false;
  bool gone = false;
};

void perform(std::string_view input, std::array<Client, 3>& clients) {
  std::size_t at = 0;
  std::size_t total = 0;
  for (const char byte : input) {
    Client& client = clients[at];
    switch (byte) {
      case 1:
        client.send();
        at = (at + 1) % clients.size();
        break;
      case 2:
        client.endSending();
        break;
      case 3:
        client.breakOff();
        break;
      case 4:
        for (int i = 0; i < 9000 && total < kMostBytes; ++i, ++total) client.put(' ');
        break;
      default:
        client.put(byte);
    }
  }
  for (Client& client : clients) client.awaitAnswers();
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  fuzzing::silenceLog();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const RunningHouse house;
  std::array<Client, 3> clients{Client(house), Client(house), Client(house)};
  perform(fuzzing::asText(data, size), clients);
  return 0;
}
