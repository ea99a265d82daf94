// Who lives in the soak: the links of the house, and what each of their peers is like.
#pragma once

#include <chrono>
#include <string>
#include <vector>

namespace soak {

using Clock = std::chrono::steady_clock;

enum class Transport { Tcp, Udp, Tls, Serial };

// How a peer behaves.
enum class Character {
  Steady,   // sends at a steady pace and stays
  Comes,    // and goes: in good order, in the middle of a line, by a reset; may refuse for a while
  Floods,   // now and then sends far more than the house can take at once
  Stalls,   // now and then reads nothing, while it is sent requests
  Garbles,  // sends bytes that mean nothing between its lines
  Visited,  // is silent; its rovik opens a link for each request and closes it again
};

// What becomes of a line in the rovik.
enum class Handling { CatchAll, Rules, Reporter, Sender, Writer, Asker };

// A number of links that are alike.
struct Kind {
  const char* name;
  int count;
  Transport transport;
  Character character;
  Handling handling;
  std::chrono::milliseconds ask_interval;  // between requests to it; 0 for none
  int ask_size;                            // bytes of padding in each of them
};

struct Link {
  int id;
  std::string name;
  Kind kind;

  // What the rovik at the other end does between events: the name of its script, or none.
  const char* script() const;
  // Datagrams that nobody has room for are lost: numbers may be left out.
  bool mayLose() const;
  // The peer may lose its link, because it ends links itself or because its rovik has to.
  bool mayPart() const;
};

inline constexpr int kLedgerId = 9;
inline constexpr int kFirstLinkId = 101;

std::vector<Link> plan();

}  // namespace soak
