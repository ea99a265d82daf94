#include "Farewell.h"

#include <algorithm>

namespace drovane {

void Farewell::post() {
  if (host.status().link_open) post(items.emplace_back(Item{"close"}));
  post(items.emplace_back(Item{"luaclose"}));
}

void Farewell::post(const Item& item) {
  // The flags outlive this object: a stuck thread may answer at any time.
  auto command =
      std::make_shared<Command>(std::vector<std::string>{item.word},
                                [ran = item.ran, over = item.over](const CommandResult& result) {
                                  ran->store(result.answered);
                                  over->store(true);
                                });
  if (!host.post(command)) item.over->store(true);
}

bool Farewell::over() const {
  return std::all_of(items.begin(), items.end(),
                     [](const Item& item) { return item.over->load(); });
}

// A link may have been opened after the look that post has taken.
void Farewell::runRest() {
  if (host.status().link_open) host.command({"close"});
  const bool script_closed = !items.empty() && items.back().ran->load();
  if (!script_closed) host.command({"luaclose"});
}

}  // namespace drovane
