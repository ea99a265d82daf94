#include "Sockets.h"

namespace soak {
namespace {

class TcpPlace : public Place {
 public:
  std::string commands() const override { return door.commands("tcp"); }
  std::unique_ptr<Line> welcome() override {
    drovane::Descriptor taken = door.take();
    return taken ? std::make_unique<TcpLine>(std::move(taken)) : nullptr;
  }
  void shut() override { door.shut(); }
  void open() override { door.open(); }

 private:
  TcpDoor door;
};

}  // namespace

std::unique_ptr<Place> makeTcpPlace() { return std::make_unique<TcpPlace>(); }

}  // namespace soak
