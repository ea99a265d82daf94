// The loader and the shelf of good and bad plug-ins.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "framework/PluginLoader.h"
#include "framework/RovikHost.h"
#include "support/TempFolder.h"

namespace {

using drovane::PluginError;
using drovane::PluginLoader;
using testing::HasSubstr;
using testing::StartsWith;

const std::string kShelf = DROVANE_TEST_PLUGINS;

std::string errorOf(PluginLoader& loader, const std::string& plug_in) {
  try {
    loader.make(plug_in, 5, "boiler");
  } catch (const PluginError& error) {
    return error.what();
  }
  return "no error";
}

std::string errorOf(const std::string& plug_in) {
  PluginLoader loader({kShelf});
  return errorOf(loader, plug_in);
}

std::string shelved(const std::string& plug_in) {
  return "plug-in '" + plug_in + "' (" + kShelf + "/" + plug_in + ".so)";
}

TEST(PluginLoaderTest, MakesARovikWithItsIdAndName) {
  PluginLoader loader({kShelf});
  const PluginLoader::Made made = loader.make("echo", 5, "boiler");
  EXPECT_EQ(made.file, kShelf + "/echo.so");
  EXPECT_EQ(drovane::RovikHost::of(*made.rovik).address().id, 5);
  EXPECT_EQ(drovane::RovikHost::of(*made.rovik).address().name, "boiler");
}

TEST(PluginLoaderTest, MakesSeveralRoviksFromOneLibrary) {
  PluginLoader loader({kShelf});
  const PluginLoader::Made first = loader.make("echo", 5, "boiler");
  const PluginLoader::Made second = loader.make("echo", 6, "other");
  EXPECT_NE(first.rovik, second.rovik);
  EXPECT_EQ(drovane::RovikHost::of(*second.rovik).address().name, "other");
}

TEST(PluginLoaderTest, TakesTheFirstFolderThatHasThePlugIn) {
  const TempFolder empty;
  PluginLoader loader({empty.path(), kShelf});
  EXPECT_EQ(loader.make("echo", 5, "boiler").file, kShelf + "/echo.so");
}

TEST(PluginLoaderTest, NamesTheFoldersWhereAMissingPlugInWasLookedFor) {
  PluginLoader loader({"/nowhere", kShelf});
  EXPECT_EQ(errorOf(loader, "none"),
            "plug-in 'none' was not found; expected none.so in /nowhere, " + kShelf);
}

TEST(PluginLoaderTest, RefusesANameWithAFolderInIt) {
  EXPECT_EQ(errorOf("sub/echo"),
            "plug-in 'sub/echo' cannot be a plug-in's name; expected letters, digits, '_', '.' "
            "and '-'");
}

TEST(PluginLoaderTest, RefusesAFileThatIsNoLibrary) {
  const TempFolder folder;
  folder.write("text.so", "this is a text\n");
  PluginLoader loader({folder.path()});
  EXPECT_THAT(errorOf(loader, "text"), StartsWith("plug-in 'text' (" + (folder / "text.so") +
                                                  ") is not a library that can be loaded: "));
}

TEST(PluginLoaderTest, RefusesALibraryThatNeedsAFunctionWhichNobodyHas) {
  EXPECT_THAT(errorOf("unresolved"),
              StartsWith(shelved("unresolved") + " is not a library that can be loaded: "));
  EXPECT_THAT(errorOf("unresolved"), HasSubstr("function_that_nobody_has"));
}

TEST(PluginLoaderTest, RefusesALibraryWithoutMaker) {
  EXPECT_EQ(errorOf("no_maker"),
            shelved("no_maker") + " exports no function 'maker'; expected a plug-in");
}

TEST(PluginLoaderTest, RefusesAMakerThatReturnsNull) {
  EXPECT_EQ(errorOf("null_maker"), shelved("null_maker") + ": its maker returned null");
}

TEST(PluginLoaderTest, RefusesAMakerThatThrows) {
  EXPECT_EQ(errorOf("throwing_maker"),
            shelved("throwing_maker") + ": its maker threw: the device is on fire");
}

TEST(PluginLoaderTest, RefusesAMakerThatThrowsWhatIsNoException) {
  EXPECT_EQ(errorOf("throws_a_number"),
            shelved("throws_a_number") + ": its maker threw something unknown");
}

TEST(PluginLoaderTest, LooksIntoTheFolderOfTheUserLast) {
  const auto folders = PluginLoader::standardFolders("/of/the/user");
  ASSERT_EQ(folders.size(), 4U);
  EXPECT_EQ(folders[3], "/of/the/user");
  EXPECT_EQ(PluginLoader::standardFolders("").size(), 3U);
}

TEST(PluginLoaderTest, GoesOnAfterEveryBadPlugIn) {
  PluginLoader loader({kShelf});
  for (const char* bad : {"none", "no_maker", "null_maker", "throwing_maker", "unresolved"})
    EXPECT_NE(errorOf(loader, bad), "no error") << bad;
  EXPECT_EQ(errorOf(loader, "echo"), "no error");
}

}  // namespace
