// Keeps the books of a soak: judges every numbered line that reaches it, answers data requests with
// a number, and sends numbered requests at a steady pace.
//
// A numbered line reads "#CONNECTION.NUMBER", with "!" behind it when it is the last one of a
// connection that ends in good order, and a blank before anything else. Numbers begin at 1 in each
// connection. The lines of one sender and key form one stream.
#include <cjson/cJSON.h>
#include <malloc.h>

#include <charconv>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "Owned.h"
#include "Rovik.h"

namespace {

using Clock = std::chrono::steady_clock;

// The value number under which a script of the soak complains.
constexpr std::uint32_t kComplaint = 9;
constexpr std::size_t kFaultsTold = 20;
// What a thread's stock can hold, and the bundles in which it gives away what is too much: not all
// threads are to do that at the same time.
constexpr std::uint32_t kStock = 128;
constexpr std::uint32_t kBundle = 64;
// The longest texts in the load.
constexpr std::size_t kLongestLine = 400;
constexpr std::size_t kLongestRequest = 1600;

struct Line {
  std::int64_t connection = 0;
  std::int64_t number = 0;
  bool last = false;
};

bool readLine(std::string_view text, Line& line) {
  if (!text.starts_with('#')) return false;
  const char* const end = text.data() + text.size();
  const auto connection = std::from_chars(text.data() + 1, end, line.connection);
  if (connection.ec != std::errc() || connection.ptr == end || *connection.ptr != '.') return false;
  const auto number = std::from_chars(connection.ptr + 1, end, line.number);
  if (number.ec != std::errc()) return false;
  line.last = number.ptr != end && *number.ptr == '!';
  return true;
}

struct Stream {
  std::int64_t connection = 0;
  std::int64_t number = 0;
  std::int64_t ends = 0;         // connections that ended in good order
  std::int64_t ended_lines = 0;  // of these connections
};

// Whether every number has to come, or only none that is not above the one before: datagrams that
// find no room are lost.
enum class Rule { Exact, Rising };

bool follows(const Stream& stream, const Line& line, Rule rule) {
  if (line.connection != stream.connection)
    return line.connection > stream.connection && (rule == Rule::Rising || line.number == 1);
  return rule == Rule::Rising ? line.number > stream.number : line.number == stream.number + 1;
}

// Requests for one rovik.
struct Asking {
  std::uint32_t whom = 0;
  Clock::duration interval{};
  std::string padding;
  std::int64_t sent = 0;
  Clock::time_point due;
};

class Ledger : public Rovik {
 public:
  Ledger() { period = TimeValue(0, 5000); }

  // expect ID exact|rising; ask ID MILLISECONDS SIZE; fill; begin; rest; heap; report
  std::string interpretCmd(char** arg) override {
    const std::string_view word = arg[0] != nullptr ? arg[0] : "";
    if (word == "expect" && arg[2] != nullptr) return expect(arg[1], arg[2]);
    if (word == "ask" && arg[3] != nullptr) return ask(arg[1], arg[2], arg[3]);
    if (word == "fill") return fill();
    if (word == "begin") return begin();
    if (word == "rest") return rest();
    if (word == "heap") return heap();
    if (word == "report") return report();
    return Rovik::interpretCmd(arg);
  }

  int selectMM(RovikMessage* msg) override {
    if (msg->type == MM_DATA) enter(static_cast<MMData&>(*msg));
    if (msg->type == MM_DATA_REQUEST) answer(static_cast<MMDataRequest&>(*msg));
    return 0;
  }

  int selectTI() override {
    const auto now = Clock::now();
    for (Asking& asking : askings)
      if (asks && now >= asking.due) send(asking, now);
    return 0;
  }

 private:
  std::string expect(const char* whom, std::string_view rule) {
    rules[number(whom)] = rule == "rising" ? Rule::Rising : Rule::Exact;
    return "OK";
  }

  std::string ask(const char* whom, const char* interval, const char* size) {
    askings.push_back({number(whom), std::chrono::milliseconds(number(interval)),
                       std::string(number(size), 'x'), 0, Clock::time_point()});
    return "OK";
  }

  // Each thread keeps a stock of records that it has done with, and each record the memory of its
  // texts. All of that is filled with as much as the load will ever need, so that whatever grows
  // afterwards is a leak. Links do nothing with such messages.
  std::string fill() {
    for (const auto& [whom, rule] : rules)
      for (std::uint32_t i = 0; i < kStock + whom % kBundle; ++i) {
        fillWith<MMData>(MM_DATA, whom, kLongestLine);
        fillWith<MMActuatorRequest>(MM_ACTUATOR_REQUEST, whom, kLongestRequest);
      }
    return "OK";
  }

  template <typename Kind>
  void fillWith(MessageTypes kind, std::uint32_t whom, std::size_t longest) {
    const auto record = createOwned<Kind>(kind);
    if (record == nullptr) return;
    record->dst = whom;
    record->value_s.assign(longest, ' ');
    messageSnd(record.get());
  }

  // Not all at once.
  std::string begin() {
    asks = true;
    const auto now = Clock::now();
    for (std::size_t i = 0; i < askings.size(); ++i)
      askings[i].due = now + askings[i].interval * i / askings.size();
    return "OK";
  }

  std::string rest() {
    asks = false;
    return "OK";
  }

  // Bytes that this process has in use, by the books of its allocator: free of what that keeps
  // back.
  static std::string heap() {
    const struct mallinfo2 books = mallinfo2();
    return std::to_string(books.uordblks + books.hblkhd);
  }

  static std::uint32_t number(const char* text) {
    return static_cast<std::uint32_t>(std::strtoul(text, nullptr, 10));
  }

  void enter(MMData& data) {
    const auto rule = rules.find(data.src);
    if (rule == rules.end() || data.network_id != data.src) return;
    if (data.node_id == kComplaint) return fault(data.getKey() + ": " + data.value_s);
    Line line;
    if (!readLine(data.value_s, line))
      return fault(data.getKey() + ": no numbered line: " + data.value_s.substr(0, 80));
    judge(data, line, rule->second);
  }

  void judge(MMData& data, const Line& line, Rule rule) {
    Stream& stream = streams[{data.src, data.node_id}];
    if (!follows(stream, line, rule))
      fault(data.getKey() + ": line " + std::to_string(line.number) + " of connection " +
            std::to_string(line.connection) + " came after line " + std::to_string(stream.number) +
            " of connection " + std::to_string(stream.connection));
    stream.connection = line.connection;
    stream.number = line.number;
    if (!line.last) return;
    ++stream.ends;
    stream.ended_lines += line.number;
  }

  void fault(const std::string& text) {
    if (++fault_count <= kFaultsTold) faults.push_back(text);
    setWarning(text);
  }

  // How many answers this rovik has had, this one included.
  void answer(MMDataRequest& request) {
    const auto data = createOwned<MMData>(MM_DATA);
    if (data == nullptr) return;
    data->setKey(request.getKey().c_str());
    data->dst = request.src;
    data->seqnr = request.seqnr;
    data->value_type = VAL_INT;
    data->value_i = ++answers[request.src];
    messageSnd(data.get());
  }

  void send(Asking& asking, Clock::time_point now) {
    asking.due = now + asking.interval;
    const auto request = createOwned<MMActuatorRequest>(MM_ACTUATOR_REQUEST);
    if (request == nullptr) return;
    request->network_id = asking.whom;
    request->dst = asking.whom;
    request->value_type = VAL_STRING;
    request->value_s = "R" + std::to_string(++asking.sent) + " " + asking.padding;
    messageSnd(request.get());
  }

  std::string report() const {
    const std::unique_ptr<cJSON, void (*)(cJSON*)> books(cJSON_CreateObject(), cJSON_Delete);
    cJSON_AddNumberToObject(books.get(), "faults", static_cast<double>(fault_count));
    cJSON* const texts = cJSON_AddArrayToObject(books.get(), "texts");
    for (const std::string& text : faults)
      cJSON_AddItemToArray(texts, cJSON_CreateString(text.c_str()));
    cJSON* const rows = cJSON_AddArrayToObject(books.get(), "streams");
    for (const auto& [whose, stream] : streams) {
      cJSON* const row = addRow(rows, whose.first);
      cJSON_AddNumberToObject(row, "node", whose.second);
      cJSON_AddNumberToObject(row, "ends", static_cast<double>(stream.ends));
      cJSON_AddNumberToObject(row, "lines", static_cast<double>(stream.ended_lines));
    }
    cJSON* const requests = cJSON_AddArrayToObject(books.get(), "asked");
    for (const Asking& asking : askings)
      cJSON_AddNumberToObject(addRow(requests, asking.whom), "sent",
                              static_cast<double>(asking.sent));
    cJSON* const answered = cJSON_AddArrayToObject(books.get(), "answered");
    for (const auto& [whom, count] : answers)
      cJSON_AddNumberToObject(addRow(answered, whom), "answers", count);
    const std::unique_ptr<char, void (*)(void*)> text(cJSON_PrintUnformatted(books.get()),
                                                      cJSON_free);
    return text != nullptr ? text.get() : "ERROR";
  }

  static cJSON* addRow(cJSON* rows, std::uint32_t rovik) {
    cJSON* const row = cJSON_CreateObject();
    cJSON_AddItemToArray(rows, row);
    cJSON_AddNumberToObject(row, "id", rovik);
    return row;
  }

  std::map<std::uint32_t, Rule> rules;
  std::map<std::pair<std::uint32_t, std::uint32_t>, Stream> streams;  // by sender and node
  std::map<std::uint32_t, std::uint32_t> answers;
  std::vector<Asking> askings;
  bool asks = false;
  std::uint64_t fault_count = 0;
  std::vector<std::string> faults;  // the first of them
};

}  // namespace

extern "C" Rovik* maker() { return new Ledger; }
