// link/places_test.cpp: the bundle, its Info.plist, the data name and the socket path.
#include "link/places.h"

#include <gtest/gtest.h>
#include <plist/plist.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>

#include "tests/fake_browser.h"
#include "tests/run_nurel.h"

namespace nurel {
namespace {

using testing::TempDir;
using testing::writeTestFile;

void makeBundle(const TempDir& dir) {
  std::filesystem::create_directories(dir.file("Nurel.app/Contents/MacOS"));
}

TEST(Places, TheBundleIsThreeFoldersAboveTheExecutable) {
  TempDir dir;
  makeBundle(dir);
  writeTestFile(dir.file("Nurel.app/Contents/MacOS/nurel"), "", true);
  EXPECT_EQ(dir.file("Nurel.app"), bundleOf(dir.file("Nurel.app/Contents/MacOS/nurel")));
}

TEST(Places, SymbolicLinksLeadIntoTheBundle) {
  TempDir dir;
  makeBundle(dir);
  writeTestFile(dir.file("Nurel.app/Contents/MacOS/nurel"), "", true);
  ASSERT_EQ(0,
            symlink(dir.file("Nurel.app/Contents/MacOS/nurel").c_str(), dir.file("nurel").c_str()));
  EXPECT_EQ(dir.file("Nurel.app"), bundleOf(dir.file("nurel")));
}

TEST(Places, AShallowPathStopsAtTheRoot) {
  EXPECT_EQ("/", bundleOf("/no-such-folder/nurel"));
  EXPECT_EQ("/usr", bundleOf("/usr/local/bin/no-such-nurel"));
}

TEST(Places, AnXmlInfoPlistIsRead) {
  TempDir dir;
  makeBundle(dir);
  writeTestFile(dir.file("Nurel.app/Contents/Info.plist"), R"(<?xml version="1.0" encoding="UTF-8"?>
<!DOCTYPE plist PUBLIC "-//Apple//DTD PLIST 1.0//EN" "http://www.apple.com/DTDs/PropertyList-1.0.dtd">
<plist version="1.0"><dict>
  <key>CFBundleExecutable</key><string>Nurel</string>
  <key>NurelDataName</key><string>Nurel Beta</string>
  <key>LSUIElement</key><true/>
  <key>Count</key><integer>3</integer>
</dict></plist>
)");
  Json info = readInfo(dir.file("Nurel.app"));
  EXPECT_EQ("Nurel", info["CFBundleExecutable"]);
  EXPECT_EQ("Nurel Beta", info["NurelDataName"]);
  EXPECT_EQ(true, info["LSUIElement"]);
  EXPECT_EQ(3, info["Count"]);
  EXPECT_EQ("Nurel Beta", dataNameOf(info));
}

TEST(Places, ABinaryInfoPlistIsRead) {
  TempDir dir;
  makeBundle(dir);
  plist_t root = plist_new_dict();
  plist_dict_set_item(root, "NurelDataName", plist_new_string("Nurel Dev"));
  char* bytes = nullptr;
  uint32_t length = 0;
  plist_to_bin(root, &bytes, &length);
  writeTestFile(dir.file("Nurel.app/Contents/Info.plist"), std::string(bytes, length));
  free(bytes);
  plist_free(root);
  EXPECT_EQ("Nurel Dev", dataNameOf(readInfo(dir.file("Nurel.app"))));
}

TEST(Places, AMissingOrBrokenInfoPlistGivesAnEmptyDictionary) {
  TempDir dir;
  makeBundle(dir);
  EXPECT_EQ(Json::object(), readInfo(dir.file("Nurel.app")));
  writeTestFile(dir.file("Nurel.app/Contents/Info.plist"), "<plist><dict><key>broken");
  EXPECT_EQ(Json::object(), readInfo(dir.file("Nurel.app")));
  writeTestFile(dir.file("Nurel.app/Contents/Info.plist"),
                R"(<plist version="1.0"><array><string>x</string></array></plist>)");
  EXPECT_EQ(Json::object(), readInfo(dir.file("Nurel.app")));
}

TEST(Places, TheDataNameDefaultsToNurel) {
  EXPECT_EQ("Nurel", dataNameOf(Json::object()));
  EXPECT_EQ("Nurel", dataNameOf({{"NurelDataName", 7}}));
  EXPECT_EQ("", dataNameOf({{"NurelDataName", ""}}));
}

TEST(Places, TheEnvironmentWinsEvenWhenEmpty) {
  EXPECT_EQ("/tmp/x.sock", socketPathOf("/tmp/x.sock", "/home/a", "Nurel"));
  EXPECT_EQ("", socketPathOf("", "/home/a", "Nurel"));
}

TEST(Places, TheDefaultSocketIsInApplicationSupport) {
  EXPECT_EQ("/home/a/Library/Application Support/Nurel/agent.sock",
            socketPathOf(nullptr, "/home/a", "Nurel"));
  EXPECT_EQ("/home/a/Library/Application Support/Nurel Beta/agent.sock",
            socketPathOf(nullptr, "/home/a/", "Nurel Beta"));
}

}  // namespace
}  // namespace nurel
