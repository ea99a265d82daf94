// A house in this process that is made what another configuration says.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <future>

#include "faults/LibraryFaults.h"
#include "faults/MemoryFaults.h"
#include "framework/House.h"
#include "framework/Router.h"
#include "support/Eventually.h"
#include "support/LogCapture.h"
#include "support/TempFolder.h"
#include "support/TestRovik.h"

namespace {

using drovane::Command;
using drovane::CommandResult;
using drovane::ConfigFile;
using drovane::House;
using State = House::Member::State;
using testing::ElementsAre;
using testing::IsEmpty;

const char* const kTwo = "rovik 5 boiler echo\n  say a\nrovik 6 lamp echo\n  say b\n";

class HouseReload : public testing::Test {
 protected:
  ConfigFile config(const std::string& text) const {
    folder.write("house.conf", text);
    return ConfigFile::read(folder / "house.conf");
  }
  void start(const std::string& text) {
    house.emplace(config(text), [](const std::string&) {});
    ASSERT_TRUE(house->make(loader));
    ASSERT_TRUE(house->start(false));
  }
  House::Reloaded reload(const std::string& text, const House::Terms& terms = {}) {
    return house->reload(config(text), loader, terms);
  }
  // Behind the name of the file.
  std::string summary(const std::string& counts) const {
    return (folder / "house.conf") + ": " + counts;
  }
  std::string at(int line, const std::string& problem) const {
    return (folder / "house.conf") + ":" + std::to_string(line) + ": " + problem;
  }
  const Rovik* rovik(const std::string& name) const {
    const House::Found found = house->find(name);
    return found == nullptr ? nullptr : found->rovik.get();
  }
  bool runs(const std::string& name) const {
    const House::Found found = house->find(name);
    return !(found == nullptr) && found->state == State::Running && found->host().status().running;
  }
  std::vector<std::string> labels() const {
    std::vector<std::string> all;
    for (const House::Member& member : house->all()) all.push_back(member.label());
    return all;
  }

  // Has a rovik of the plug-in "waits" wait until goOn.
  void letWait(const std::string& name) {
    const auto command =
        std::make_shared<Command>(Words{"wait", file}, [](const CommandResult&) {});
    ASSERT_TRUE(house->find(name)->host().post(command));
    ASSERT_TRUE(log.waitFor("waits now"));
  }
  void goOn() const { folder.write("go on", ""); }

  void TearDown() override {
    goOn();
    if (house) house->stop();
  }

  const TempFolder folder;
  const std::string file = folder / "go on";
  drovane::PluginLoader loader{{DROVANE_TEST_PLUGINS}};
  LogCapture log;
  std::optional<House> house;
};

TEST_F(HouseReload, ARovikWhoseBlockIsTheSameIsKept) {
  start(kTwo);
  const Rovik* const boiler = rovik("boiler");
  const Rovik* const lamp = rovik("lamp");
  const House::Reloaded outcome = reload(
      "# a comment\n\nrovik  5 boiler echo # another\n\n say 'a'\nrovik 6 lamp echo\nsay b\n");
  EXPECT_TRUE(outcome.done);
  EXPECT_EQ(outcome.text, summary("2 roviks, 2 kept, 0 changed, 0 added, 0 removed"));
  EXPECT_THAT(outcome.findings, IsEmpty());
  EXPECT_EQ(rovik("boiler"), boiler);
  EXPECT_EQ(rovik("lamp"), lamp);
  EXPECT_EQ(log.count("started"), 2U);
  EXPECT_EQ(log.count("stopped"), 0U);
}

TEST_F(HouseReload, AChangedRovikIsEndedInGoodOrderAndStartedAnew) {
  start("rovik 5 boiler echo\n  open\nrovik 6 lamp echo\n");
  const House::Reloaded outcome = reload("rovik 5 boiler echo\n  log new\nrovik 6 lamp echo\n");
  EXPECT_EQ(outcome.text, summary("2 roviks, 1 kept, 1 changed, 0 added, 0 removed"));
  std::vector<std::string> texts;
  for (const CapturedLine& line : log.lines())
    if (line.text.find("lamp") == std::string::npos) texts.push_back(line.text);
  const std::string plug_in = "rovik 5 boiler: plug-in echo from " DROVANE_TEST_PLUGINS "/echo.so";
  EXPECT_THAT(texts,
              ElementsAre(plug_in, "rovik 5 boiler: link open", "rovik 5 boiler: started",
                          "echo closed its link", "rovik 5 boiler: link closed", "echo destroyed",
                          "rovik 5 boiler: stopped", plug_in, "new", "rovik 5 boiler: started"));
  EXPECT_TRUE(runs("boiler"));
}

struct OneChange {
  const char* name;
  const char* block;
};

class HouseReloadOf : public HouseReload, public testing::WithParamInterface<OneChange> {};

TEST_P(HouseReloadOf, MakesARovikAnew) {
  start(kTwo);
  const House::Reloaded outcome =
      reload(GetParam().block + std::string("rovik 6 lamp echo\n  say b\n"));
  EXPECT_EQ(outcome.text, summary("2 roviks, 1 kept, 1 changed, 0 added, 0 removed"));
  EXPECT_EQ(log.count("rovik 5 boiler: stopped"), 1U);
  EXPECT_EQ(log.count(": started"), 3U);
}

INSTANTIATE_TEST_SUITE_P(
    House, HouseReloadOf,
    testing::Values(OneChange{"AnotherId", "rovik 7 boiler echo\n  say a\n"},
                    OneChange{"AnotherName", "rovik 5 kettle echo\n  say a\n"},
                    OneChange{"AnotherPlugIn", "rovik 5 boiler waits\n  say a\n"},
                    OneChange{"AnotherWord", "rovik 5 boiler echo\n  say c\n"},
                    OneChange{"OneWordMore", "rovik 5 boiler echo\n  say a ''\n"},
                    OneChange{"OneCommandMore", "rovik 5 boiler echo\n  say a\n  say a\n"},
                    OneChange{"OneCommandLess", "rovik 5 boiler echo\n"}),
    [](const auto& each) { return std::string(each.param.name); });

TEST_F(HouseReload, WhatIsNotThereAnyMoreIsEndedAndWhatIsNewIsStarted) {
  start(kTwo);
  const House::Reloaded outcome =
      reload("rovik 9 fan echo\nrovik 5 boiler echo\n  say a\nrovik 8 door echo\n");
  EXPECT_EQ(outcome.text, summary("3 roviks, 1 kept, 0 changed, 2 added, 1 removed"));
  EXPECT_THAT(labels(), ElementsAre("9 fan", "5 boiler", "8 door"));
  EXPECT_TRUE(runs("fan") && runs("door"));
  EXPECT_EQ(log.count("rovik 6 lamp: stopped"), 1U);
  EXPECT_EQ(drovane::Router::global().table()->byName("lamp"), nullptr);
}

TEST_F(HouseReload, TwoRoviksMayChangeTheirIds) {
  start(kTwo);
  const House::Reloaded outcome = reload("rovik 6 boiler echo\nrovik 5 lamp echo\n");
  EXPECT_EQ(outcome.text, summary("2 roviks, 0 kept, 2 changed, 0 added, 0 removed"));
  EXPECT_TRUE(runs("boiler") && runs("lamp"));
  EXPECT_EQ(drovane::Router::global().table()->byId(5)->name, "lamp");
}

TEST_F(HouseReload, RestartingAllKeepsNone) {
  start(kTwo);
  House::Terms terms;
  terms.restart_all = true;
  EXPECT_EQ(reload(kTwo, terms).text, summary("2 roviks, 0 kept, 2 changed, 0 added, 0 removed"));
  EXPECT_EQ(log.count("stopped"), 2U);
  EXPECT_TRUE(runs("boiler") && runs("lamp"));
}

// --- What cannot be done ---

class RefusedReload : public HouseReload {
 protected:
  void SetUp() override {
    start(kTwo);
    boiler = rovik("boiler");
  }
  // Refused with this reason; nobody has noticed.
  void expectRefused(const std::string& text, const std::string& reason) {
    House::Terms terms;
    terms.apply = [&] { ADD_FAILURE() << "something was changed"; };
    const House::Reloaded outcome = reload(text, terms);
    EXPECT_FALSE(outcome.done);
    EXPECT_EQ(outcome.text, reason);
    EXPECT_EQ(rovik("boiler"), boiler);
    EXPECT_TRUE(runs("boiler") && runs("lamp"));
    EXPECT_EQ(log.count("stopped"), 0U);
    EXPECT_THAT(labels(), ElementsAre("5 boiler", "6 lamp"));
  }

  const Rovik* boiler = nullptr;
};

const char* const kMissing =
    ": plug-in 'missing' was not found; expected missing.so in " DROVANE_TEST_PLUGINS;

TEST_F(RefusedReload, APlugInThatIsMissing) {
  expectRefused("rovik 5 boiler echo\nrovik 8 new missing\n",
                folder / "house.conf" + std::string(":2") + kMissing);
}

TEST_F(RefusedReload, CountsWhatElseIsWrong) {
  expectRefused("rovik 8 new missing\nrovik 9 newer missing\nrovik 10 newest null_maker\n",
                folder / "house.conf" + std::string(":1") + kMissing + " (and 2 more in the log)");
}

TEST_F(RefusedReload, AnAddressThatSomebodyElseHas) {
  const auto other = TestRovik::make(8, "somebody");
  expectRefused("rovik 8 door echo\n", at(1, "id or name of rovik 8 door is already in use"));
  expectRefused("rovik 9 somebody echo\n",
                at(1, "id or name of rovik 9 somebody is already in use"));
}

TEST_F(HouseReload, AThreadThatCannotBeStartedIsReportedAndTriedAgainNextTime) {
  start("rovik 5 boiler echo\n  say a\n");
  {
    const LibraryFault fault("pthread_create", EAGAIN);
    const House::Reloaded outcome = reload(kTwo);
    EXPECT_TRUE(outcome.done);
    EXPECT_THAT(outcome.findings, ElementsAre(at(3,
                                                 "the thread of rovik 6 lamp could not be started: "
                                                 "Resource temporarily unavailable")));
  }
  EXPECT_TRUE(runs("boiler"));
  EXPECT_FALSE(runs("lamp"));
  EXPECT_EQ(reload(kTwo).text, summary("2 roviks, 1 kept, 1 changed, 0 added, 0 removed"));
  EXPECT_TRUE(runs("lamp"));
}

TEST_F(HouseReload, ACommandThatFailsIsReportedAndTheRovikRuns) {
  start(kTwo);
  const House::Reloaded outcome = reload("rovik 5 boiler echo\n  fail\n  nonsense\n");
  EXPECT_TRUE(outcome.done);
  EXPECT_THAT(
      outcome.findings,
      ElementsAre(at(2, "rovik 5 boiler: 'fail' was answered with ERROR (FAILED)"),
                  at(3,
                     "rovik 5 boiler: nothing handled 'nonsense'; expected a command of echo "
                     "(some need the script or an open link)")));
  EXPECT_TRUE(runs("boiler"));
}

TEST_F(HouseReload, WithStrictARovikWhoseCommandFailsDoesNotRunAndTheOthersDo) {
  start(kTwo);
  House::Terms terms;
  terms.strict = true;
  const House::Reloaded outcome =
      reload("rovik 5 boiler echo\n  fail\nrovik 6 lamp echo\n  say b\nrovik 7 fan echo\n", terms);
  EXPECT_TRUE(outcome.done);
  EXPECT_THAT(outcome.findings,
              ElementsAre(at(2, "rovik 5 boiler: 'fail' was answered with ERROR (FAILED)")));
  EXPECT_FALSE(runs("boiler"));
  EXPECT_TRUE(runs("lamp") && runs("fan"));
}

// Whatever step of the reload meets it: afterwards the house is as before, or the next reload
// brings it in order.
TEST_F(HouseReload, MemoryThatIsMissingHarmsNobodyForLong) {
  start(kTwo);
  const std::string other = "rovik 5 boiler echo\n  say c\nrovik 7 another_fan_of_the_house echo\n";
  int struck = 0;
  for (std::size_t size = 8; size <= 1024; size += 8) {
    const std::string& text = size % 16 == 0 ? kTwo : other;
    const ConfigFile wanted = config(text);
    {
      const NoMemory none(size);
      try {
        house->reload(wanted, loader, {});
      } catch (const std::bad_alloc&) {
      }
      struck += none.happened() ? 1 : 0;
    }
    EXPECT_TRUE(house->reload(wanted, loader, {}).done) << size;
    EXPECT_THAT(labels(),
                ElementsAre("5 boiler", text == kTwo ? "6 lamp" : "7 another_fan_of_the_house"))
        << size;
    for (const House::Member& member : house->all())
      EXPECT_TRUE(member.host().status().running) << size << ": " << member.label();
  }
  EXPECT_GT(struck, 5);
}

// --- Roviks that take their time ---

TEST_F(HouseReload, MembersCanBeLookedAtWhileARovikTakesItsTimeToEnd) {
  start("rovik 5 slow waits\nrovik 6 lamp echo\n");
  letWait("slow");
  auto outcome = std::async(std::launch::async, [&] { return reload("rovik 6 lamp echo\n"); });
  EXPECT_TRUE(eventually([&] { return house->find("slow")->unwanted.load(); }));
  EXPECT_THAT(labels(), ElementsAre("5 slow", "6 lamp"));
  EXPECT_TRUE(house->find("slow")->host().status().running);
  goOn();
  EXPECT_EQ(outcome.get().text, summary("1 rovik, 1 kept, 0 changed, 0 added, 1 removed"));
  EXPECT_EQ(house->find("slow"), nullptr);
}

TEST_F(HouseReload, NobodyWaitsForTheEndOfAnother) {
  start("rovik 5 slow waits\nrovik 6 lamp echo\n");
  letWait("slow");
  auto outcome = std::async(std::launch::async, [&] {
    return reload("rovik 6 lamp echo\n  log new\nrovik 7 fan echo\n");
  });
  EXPECT_TRUE(eventually([&] { return runs("fan") && log.count("new") == 1; }));
  EXPECT_EQ(labels().front(), "5 slow");
  goOn();
  EXPECT_TRUE(outcome.get().done);
}

TEST_F(HouseReload, ACommandThatWaitsForARovikThatEndsIsAnswered) {
  start("rovik 5 slow waits\nrovik 6 lamp echo\n");
  letWait("slow");
  auto outcome = std::async(std::launch::async, [&] { return reload("rovik 6 lamp echo\n"); });
  EXPECT_TRUE(eventually([&] { return house->find("slow")->state == State::Leaving; }));
  std::promise<CommandResult> answer;
  EXPECT_TRUE(house->find("slow")->host().post(std::make_shared<Command>(
      Words{"wait", file}, [&](CommandResult result) { answer.set_value(std::move(result)); })));
  EXPECT_TRUE(eventually([&] { return house->find("slow")->state == State::Stopping; }));
  goOn();
  const CommandResult result = answer.get_future().get();
  EXPECT_FALSE(result.answered);
  EXPECT_EQ(result.text, "the rovik is being stopped");
  EXPECT_TRUE(outcome.get().done);
}

TEST_F(HouseReload, OneThatDoesNotEndInTimeIsLeftAndNothingIsStartedInItsPlace) {
  start("rovik 5 slow waits\nrovik 6 lamp echo\n");
  letWait("slow");
  const House::Reloaded outcome =
      reload("rovik 8 slow echo\nrovik 5 kettle echo\nrovik 6 lamp echo\nrovik 7 fan echo\n");
  EXPECT_TRUE(outcome.done);
  EXPECT_EQ(outcome.text,
            summary("3 roviks, 1 kept, 0 changed, 1 added, 0 removed, 1 did not end"));
  const std::string reason = " is not started: the one that has its id or name did not end in time";
  EXPECT_THAT(outcome.findings,
              ElementsAre("rovik 5 slow did not end in time; it is left as it is until it does",
                          at(1, "rovik 8 slow" + reason), at(2, "rovik 5 kettle" + reason)));
  EXPECT_THAT(labels(), ElementsAre("6 lamp", "7 fan", "5 slow"));
  goOn();
  EXPECT_TRUE(eventually([&] { return !house->find("slow")->host().status().running; }));
  EXPECT_EQ(reload("rovik 8 slow echo\nrovik 6 lamp echo\nrovik 7 fan echo\n").text,
            summary("3 roviks, 2 kept, 1 changed, 0 added, 0 removed"));
  EXPECT_TRUE(runs("slow"));
}

TEST_F(HouseReload, OneThatIsNotConfiguredInTimeGoesOn) {
  start("rovik 6 lamp echo\n");
  const std::string both = "rovik 5 slow waits\n  wait '" + file + "'\nrovik 6 lamp echo\n";
  const House::Reloaded outcome = reload(both);
  EXPECT_THAT(outcome.findings,
              ElementsAre(at(1,
                             "rovik 5 slow has not come to the end of its configuration in "
                             "time; it goes on")));
  const Rovik* const slow = rovik("slow");
  EXPECT_EQ(reload(both).text, summary("2 roviks, 2 kept, 0 changed, 0 added, 0 removed"));
  goOn();
  EXPECT_TRUE(eventually([&] { return runs("slow"); }));
  EXPECT_EQ(rovik("slow"), slow);
}

TEST_F(HouseReload, OneThatIsStillBeingConfiguredCanBeRemoved) {
  start("rovik 6 lamp echo\n");
  reload("rovik 5 slow waits\n  wait '" + file + "'\n  nonsense\nrovik 6 lamp echo\n");
  auto outcome = std::async(std::launch::async, [&] { return reload("rovik 6 lamp echo\n"); });
  EXPECT_TRUE(eventually([&] { return house->find("slow")->unwanted.load(); }));
  goOn();
  EXPECT_EQ(outcome.get().text, summary("1 rovik, 1 kept, 0 changed, 0 added, 1 removed"));
  EXPECT_EQ(log.count("rovik 5 slow: started"), 0U);
}

TEST_F(HouseReload, StopEndsAReloadThatWaitsForARovik) {
  start("rovik 5 slow waits\nrovik 6 lamp echo\n  open\n");
  letWait("slow");
  auto outcome =
      std::async(std::launch::async, [&] { return reload("rovik 6 lamp echo\n  open\n"); });
  EXPECT_TRUE(eventually([&] { return house->find("slow")->state == State::Leaving; }));
  auto stopped = std::async(std::launch::async, [&] { house->stop(); });
  EXPECT_EQ(outcome.get().text, "drovane is being stopped");
  EXPECT_TRUE(log.waitFor("rovik 6 lamp: stopped"));
  EXPECT_THAT(house->unended(), ElementsAre("5 slow"));
  goOn();
  stopped.get();
  EXPECT_THAT(house->unended(), IsEmpty());
  EXPECT_THAT(labels(), IsEmpty());
}

TEST_F(HouseReload, AHouseThatIsStoppedIsNotChangedAnyMore) {
  start(kTwo);
  house->stop();
  const House::Reloaded outcome = reload("rovik 7 fan echo\n");
  EXPECT_FALSE(outcome.done);
  EXPECT_EQ(outcome.text, "drovane is being stopped");
  EXPECT_THAT(labels(), IsEmpty());
}

// Looks of every kind while members come and go.
TEST_F(HouseReload, OthersMayLookAtTheMembersAllTheTime) {
  start(kTwo);
  std::atomic<bool> over{false};
  auto looks = std::async(std::launch::async, [&] {
    int answered = 0;
    while (!over) {
      for (const House::Member& member : house->all()) answered += member.host().status().id > 0;
      const House::Found boiler = house->find("boiler");
      if (boiler == nullptr) continue;
      boiler->host().post(
          std::make_shared<Command>(Words{"say", "x"}, [](const CommandResult&) {}));
    }
    return answered;
  });
  for (int i = 0; i < 20; ++i)
    EXPECT_TRUE(reload(i % 2 == 0 ? "rovik 5 boiler echo\n" : kTwo).done);
  over = true;
  EXPECT_GT(looks.get(), 0);
}

}  // namespace
