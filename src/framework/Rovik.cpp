#include "Rovik.h"

#include <utility>

#include "Identity.h"
#include "RovikHost.h"

using drovane::IdentityForConstruction;
using drovane::RovikHost;

Rovik::Translation::Translation(std::string its_key, std::string in, std::string out)
    : key(std::move(its_key)), map_in(std::move(in)), map_out(std::move(out)) {}

Rovik::Rovik()
    : fd(-1),
      period(30, 0),
      id(IdentityForConstruction::current().id),
      type(0),
      name(IdentityForConstruction::current().name),
      host(std::make_unique<RovikHost>(*this, IdentityForConstruction::current())) {
  FD_ZERO(&readfds);
}

Rovik::~Rovik() = default;

int Rovik::main() { return host->run(); }

int Rovik::stop() {
  host->askToStop();
  return Thread::stop();
}

std::string Rovik::interpretCmd(char**) { return ""; }
int Rovik::getDescription(cJSON*) { return 0; }
int Rovik::selectMM(RovikMessage*) { return 0; }
int Rovik::selectFD() { return 0; }
int Rovik::selectTI() { return 0; }

int Rovik::messageSnd(RovikMessage* msg) { return host->messageSnd(msg); }
RovikMessage* Rovik::messageSndBlock(RovikMessage* msg) { return host->messageSndBlock(msg); }
bool Rovik::blocksOn(int socket) { return host->blocksOn(socket); }
void Rovik::setWarning(std::string text) { host->setWarning(std::move(text)); }

void Rovik::linkReceived(std::string_view bytes) { host->traffic.received(bytes); }
void Rovik::linkSent(std::string_view bytes) { host->traffic.sent(bytes); }
void Rovik::unitsReceived(std::uint64_t count, std::string_view last) {
  host->traffic.unitsReceived(count, last);
}
void Rovik::unitDropped() { host->traffic.unitDropped(); }
bool Rovik::onTrial() const { return host->onTrial(); }
int Rovik::trialLink(const TrialLink& kind) { return host->trialLink(kind); }
std::atomic<std::size_t>& Rovik::scriptMemory() { return host->script_memory; }
