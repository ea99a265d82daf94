// A house in this process: what becomes of roviks that cannot be started or made.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>

#include "faults/LibraryFaults.h"
#include "framework/House.h"
#include "support/LogCapture.h"
#include "support/TempFolder.h"
#include "support/TestRovik.h"

namespace {

using drovane::ConfigFile;
using drovane::House;
using State = House::Member::State;
using testing::ElementsAre;
using testing::IsEmpty;

class HouseTest : public testing::Test {
 protected:
  ConfigFile config(const std::string& text) const {
    folder.write("house.conf", text);
    return ConfigFile::read(folder / "house.conf");
  }
  House house(const std::string& text) {
    return House(config(text), [this](const std::string& finding) { findings.push_back(finding); });
  }
  std::string at(int line, const std::string& problem) const {
    return (folder / "house.conf") + ":" + std::to_string(line) + ": " + problem;
  }

  const TempFolder folder;
  std::vector<std::string> findings;
  drovane::PluginLoader loader{{DROVANE_TEST_PLUGINS}};
  LogCapture log;
};

TEST_F(HouseTest, AnAddressThatAnotherHasIsReportedWithItsLine) {
  const auto other = TestRovik::make(5, "somebody");
  House two = house("rovik 6 lamp echo\nrovik 5 boiler echo\n");
  EXPECT_FALSE(two.make(loader));
  EXPECT_THAT(findings, ElementsAre(at(2, "id or name of rovik 5 boiler is already in use")));
}

TEST_F(HouseTest, AThreadThatCannotBeStartedIsReportedAndTheOthersRun) {
  House two = house("rovik 5 boiler echo\nrovik 6 lamp echo\n");
  ASSERT_TRUE(two.make(loader));
  {
    const LibraryFault fault("pthread_create", EAGAIN);
    EXPECT_TRUE(two.start(false));
  }
  EXPECT_THAT(findings, ElementsAre(at(1,
                                       "the thread of rovik 5 boiler could not be started: "
                                       "Resource temporarily unavailable")));
  EXPECT_EQ(two.find("boiler")->state, State::Idle);
  EXPECT_FALSE(two.find("5")->host().status().running);
  EXPECT_EQ(two.find("lamp")->state, State::Running);
  EXPECT_THAT(two.unended(), ElementsAre("6 lamp"));
  two.stop();
  EXPECT_THAT(two.unended(), IsEmpty());
  EXPECT_EQ(log.count("stopped"), 2U);
}

TEST_F(HouseTest, AStrictStartEndsWithTheFirstThreadThatCannotBeStarted) {
  House two = house("rovik 5 boiler echo\nrovik 6 lamp echo\n");
  ASSERT_TRUE(two.make(loader));
  const LibraryFault fault("pthread_create", EAGAIN);
  EXPECT_FALSE(two.start(true));
  EXPECT_EQ(two.find("lamp")->state, State::Idle);
  EXPECT_EQ(log.count("started"), 0U);
  two.stop();
}

TEST_F(HouseTest, AHouseThatIsNeverStartedIsTakenDownAllTheSame) {
  House two = house("rovik 5 boiler echo\nrovik 6 lamp missing\n");
  EXPECT_FALSE(two.make(loader));
  two.stop();
  EXPECT_THAT(two.unended(), IsEmpty());
  EXPECT_EQ(log.count("echo destroyed"), 1U);
}

TEST_F(HouseTest, WhatIsStoppedIsNotStartedAnyMore) {
  House one = house("rovik 5 boiler echo\n  log configured\n");
  ASSERT_TRUE(one.make(loader));
  one.stop();
  EXPECT_TRUE(one.start(false));
  EXPECT_EQ(log.count("configured"), 0U);
}

TEST_F(HouseTest, NobodyIsFoundUnderAnotherNameOrNumber) {
  House one = house("rovik 5 boiler echo\n");
  ASSERT_TRUE(one.make(loader));
  EXPECT_EQ(one.find("6"), nullptr);
  EXPECT_EQ(one.find("boil"), nullptr);
  EXPECT_EQ(one.find("5"), one.find("boiler"));
}

}  // namespace
