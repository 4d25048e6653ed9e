// link/home_test.cpp: the home folder, "~" and absolute paths.
#include "link/home.h"

#include <gtest/gtest.h>
#include <pwd.h>
#include <unistd.h>

#include <cstdlib>

namespace nurel {
namespace {

class Home : public ::testing::Test {
 protected:
  void SetUp() override {
    const char* home = std::getenv("HOME");
    saved = home ? std::optional<std::string>(home) : std::nullopt;
    setenv("HOME", "/home/tester", 1);
  }
  void TearDown() override {
    if (saved)
      setenv("HOME", saved->c_str(), 1);
    else
      unsetenv("HOME");
  }
  std::optional<std::string> saved;
};

TEST_F(Home, HomeComesFromTheEnvironment) { EXPECT_EQ("/home/tester", homeDirectory()); }

TEST_F(Home, AnEmptyHomeFallsBackToThePasswordDatabase) {
  setenv("HOME", "", 1);
  passwd* entry = getpwuid(getuid());
  ASSERT_NE(nullptr, entry);
  EXPECT_EQ(entry->pw_dir, homeDirectory());
}

TEST_F(Home, TildeAloneAndWithASlashIsTheHome) {
  EXPECT_EQ("/home/tester", expandTilde("~"));
  EXPECT_EQ("/home/tester/a.pdf", expandTilde("~/a.pdf"));
}

TEST_F(Home, TildeWithANameIsThatUsersHome) {
  passwd* root = getpwnam("root");
  ASSERT_NE(nullptr, root);
  EXPECT_EQ(std::string(root->pw_dir) + "/x.txt", expandTilde("~root/x.txt"));
  EXPECT_EQ(root->pw_dir, expandTilde("~root"));
}

TEST_F(Home, AnUnknownUserLeavesThePathAsItIs) {
  EXPECT_EQ("~no-such-user-here/x", expandTilde("~no-such-user-here/x"));
}

TEST_F(Home, ANameWithANulByteIsNobodys) {
  // The password database would read "root" and miss the rest of the name.
  std::string path("~root\0x/y.txt", 13);
  EXPECT_EQ(path, expandTilde(path));
}

TEST_F(Home, OtherPathsAreLeftAlone) {
  EXPECT_EQ("a/~/b", expandTilde("a/~/b"));
  EXPECT_EQ("/abs/~", expandTilde("/abs/~"));
  EXPECT_EQ("", expandTilde(""));
}

TEST_F(Home, RelativePathsAreTakenFromTheCurrentFolder) {
  char cwd[4096];
  ASSERT_NE(nullptr, getcwd(cwd, sizeof cwd));
  std::string here = cwd;
  if (here == "/") here = "";
  EXPECT_EQ(here + "/out.txt", absolutePath("out.txt"));
  EXPECT_EQ(here + "/a/b.txt", absolutePath("./a//./b.txt"));
  EXPECT_EQ("/home/tester/x.pdf", absolutePath("~/x.pdf"));
  EXPECT_EQ("/tmp/../x", absolutePath("/tmp/../x"));
}

}  // namespace
}  // namespace nurel
