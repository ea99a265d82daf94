// The same stream, cut wherever a network may cut it, gives what a straightforward model gives.
#include <algorithm>
#include <random>
#include <utility>

#include "Drovane.h"
#include "NetTest.h"
#include "RovikUtil.h"
#include "support/Inbox.h"

namespace {

using namespace std::string_literals;
using Values = std::vector<std::string>;

struct Settings {
  std::string eol;
  bool chop;
  bool raw;
  bool eolclose;
};

std::ostream& operator<<(std::ostream& out, const Settings& settings) {
  std::string eol;
  RovikUtil::escape(eol, settings.eol.data(), settings.eol.size());
  return out << "eol " << eol << " chop " << settings.chop << " raw " << settings.raw
             << " eolclose " << settings.eolclose;
}

// What a stream has become: while the link was open, and by the peer's farewell.
struct Outcome {
  Values open;
  Values farewell;

  bool operator==(const Outcome&) const = default;
};

void PrintTo(const Outcome& outcome, std::ostream* out) {
  *out << testing::PrintToString(outcome.open) << " then "
       << testing::PrintToString(outcome.farewell);
}

// Of a stream that arrives in these pieces and then ends.
Outcome model(const Settings& settings, const std::vector<std::string>& pieces) {
  Values units;
  std::string buffer;
  const auto arrive = [&](const std::string& bytes) {
    buffer += bytes;
    if (settings.raw) units.push_back(std::exchange(buffer, ""));
    for (std::size_t at = 0; !settings.eolclose && !settings.raw;) {
      if ((at = buffer.find(settings.eol)) == std::string::npos) break;
      units.push_back(buffer.substr(0, at + (settings.chop ? 0 : settings.eol.size())));
      buffer.erase(0, at + settings.eol.size());
    }
    if (buffer.size() >= 4096) buffer.clear();
  };
  for (const auto& piece : pieces)
    for (std::size_t at = 0; at < piece.size();) {
      const std::size_t room = std::min(4096 - buffer.size(), piece.size() - at);
      arrive(piece.substr(at, room));
      at += room;
    }
  if (settings.eolclose && !buffer.empty()) return {units, {buffer}};
  return {units, {}};
}

class FramingProperty : public NetTest {
 protected:
  FramingProperty() { Drovane::global.setLogLevel(LOG_LEVEL_ERROR); }

  void apply(const Settings& settings) {
    std::string eol;
    RovikUtil::escape(eol, settings.eol.data(), settings.eol.size());
    net->command({"eolin", eol});
    net->command({"chopeol", settings.chop ? "on" : "off"});
    net->command({"raw", settings.raw ? "on" : "off"});
    net->command({"eolclose", settings.eolclose ? "on" : "off"});
  }

  void readAll() {
    while (net->bytesWaiting() > 0) {
      net->readLinkNow();
      ASSERT_TRUE(net->bufferIsClean());
    }
  }

  Values takeUnits() {
    Values units;
    for (const auto& text : inbox.takeValues()) units.push_back(decoded(text));
    return units;
  }

  // What the pieces, one read or more each, and the peer's farewell become.
  Outcome outcomeOf(const std::vector<std::string>& pieces) {
    openTo(peer);
    for (const auto& piece : pieces) {
      deliver(peer, piece);
      readAll();
    }
    Outcome outcome{takeUnits(), {}};
    peer.close();
    awaitEnd();
    net->readLinkNow();
    EXPECT_EQ(-1, net->fd);
    EXPECT_TRUE(net->bufferIsClean());
    outcome.farewell = takeUnits();
    return outcome;
  }

  static std::string decoded(const std::string& text) {
    std::string bytes(text.size(), '\0');
    const int size =
        RovikUtil::unescape(bytes.data(), static_cast<int>(bytes.size()), text.c_str());
    bytes.resize(static_cast<std::size_t>(size));
    return bytes;
  }

  std::size_t upTo(std::size_t most) {
    return std::uniform_int_distribution<std::size_t>(0, most)(random);
  }

  // Few different bytes, so that sequences of them turn up by chance too.
  std::string randomBytes(std::size_t length) {
    static const std::string kBytes("\0\nab", 4);
    std::string bytes;
    while (bytes.size() < length) bytes += kBytes[upTo(3)];
    return bytes;
  }

  std::string randomStream(const std::string& eol, std::size_t length) {
    std::string stream;
    while (stream.size() < length) {
      stream += upTo(60) == 0 ? randomBytes(4080 + upTo(40)) : randomBytes(upTo(30));
      const std::size_t part = upTo(3) == 0 ? upTo(eol.size()) : eol.size();
      stream += eol.substr(0, part);
    }
    return stream;
  }

  std::vector<std::string> cutAtRandom(const std::string& stream, std::size_t longest) {
    std::vector<std::string> pieces;
    for (std::size_t at = 0; at < stream.size();) {
      const std::size_t length = 1 + upTo(longest - 1);
      pieces.push_back(stream.substr(at, length));
      at += length;
    }
    return pieces;
  }

  std::vector<Settings> everySetting(const std::string& eol) const {
    std::vector<Settings> all;
    for (const bool chop : {false, true})
      for (const bool raw : {false, true})
        for (const bool eolclose : {false, true}) all.push_back({eol, chop, raw, eolclose});
    return all;
  }

  TcpPeer peer;
  Inbox inbox;
  std::mt19937 random{20240117};
};

// Whole and half ends of lines, alone and in a row.
const std::string kStream = "\nab\r\n\r\n\r\r\nc\0d\r\n\n\re"s;

// The same for any end of line.
std::string streamFor(const std::string& eol) {
  const std::string half = eol.substr(0, eol.size() / 2);
  return eol + "ab" + eol + eol + half + eol + "c\0d"s + half + half + "e";
}

TEST_F(FramingProperty, OneCutAtEveryPlace) {
  for (std::size_t size = 1; size <= 10; ++size) {
    const std::string eol = std::string("\r\n\r\n\0\r\r\n\n\0", 10).substr(0, size);
    const std::string stream = (size < 3 ? kStream : "") + streamFor(eol);
    for (const auto& settings : everySetting(eol)) {
      apply(settings);
      for (std::size_t cut = 1; cut < stream.size(); ++cut) {
        const std::vector<std::string> pieces = {stream.substr(0, cut), stream.substr(cut)};
        ASSERT_EQ(model(settings, pieces), outcomeOf(pieces)) << settings << " cut at " << cut;
      }
    }
  }
}

TEST_F(FramingProperty, ByteByByte) {
  for (const auto& settings : everySetting("\r\n")) {
    apply(settings);
    const auto pieces = cutAtRandom(kStream, 1);
    ASSERT_EQ(model(settings, pieces), outcomeOf(pieces)) << settings;
  }
}

TEST_F(FramingProperty, RandomStreamsInRandomPieces) {
  for (std::size_t size = 1; size <= 10; ++size)
    for (auto settings : everySetting(randomBytes(size))) {
      apply(settings);
      for (const std::size_t longest : {40U, 5000U}) {
        const std::string stream =
            randomStream(settings.eol, 1 + upTo(longest < 100 ? 5000 : 15000));
        const auto pieces = cutAtRandom(stream, longest);
        ASSERT_EQ(model(settings, pieces), outcomeOf(pieces)) << settings;
      }
    }
}

}  // namespace
