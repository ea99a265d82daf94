#include "Farewell.h"

#include <algorithm>

namespace drovane {

void Farewell::choose() {
  if (!items.empty()) return;
  if (host.status().link_open) items.push_back({"close"});
  items.push_back({"luaclose"});
}

void Farewell::post() {
  choose();
  for (const Item& item : items) post(item);
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

void Farewell::runRest() {
  choose();
  for (const Item& item : items)
    if (!item.ran->load()) host.command({item.word});
}

}  // namespace drovane
