// render/render_test.cpp: printed(), save() and writeFile().
#include "render/render.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>

#include "tests/fake_browser.h"
#include "tests/run_nurel.h"

namespace nurel {
namespace {

using testing::readFile;
using testing::TempDir;

TEST(Printed, AStringIsShownWithoutQuotes) {
  EXPECT_EQ("t1", printed("t1"));
  EXPECT_EQ("line one\nline \"two\"", printed("line one\nline \"two\""));
}

TEST(Printed, AnObjectIsIndentedWithSortedKeysAndPlainSlashes) {
  Json reply = {{"zeta", 1}, {"path", "a/b/c"}, {"alpha", {{"b", true}, {"a", nullptr}}}};
  EXPECT_EQ(
      "{\n"
      "  \"alpha\": {\n"
      "    \"a\": null,\n"
      "    \"b\": true\n"
      "  },\n"
      "  \"path\": \"a/b/c\",\n"
      "  \"zeta\": 1\n"
      "}",
      printed(reply));
}

TEST(Printed, KeysSortBytewise) {
  Json reply = Json::parse(R"({"b":1,"B":2,"é":3,"a":4,"_":5})");
  EXPECT_EQ("{\n  \"B\": 2,\n  \"_\": 5,\n  \"a\": 4,\n  \"b\": 1,\n  \"é\": 3\n}", printed(reply));
}

TEST(Printed, ArraysAndEmptyContainers) {
  EXPECT_EQ("[\n  1,\n  \"two\",\n  {},\n  []\n]", printed(Json::parse(R"([1,"two",{},[]])")));
  EXPECT_EQ("[]", printed(Json::array()));
  EXPECT_EQ("{}", printed(Json::object()));
}

TEST(Printed, NonAsciiStaysUtf8AndInvalidBytesBecomeReplacementCharacters) {
  EXPECT_EQ("[\n  \"Settings › Agents\"\n]", printed(Json::array({"Settings › Agents"})));
  EXPECT_EQ(
      "[\n  \"a\xEF\xBF\xBD"
      "b\"\n]",
      printed(Json::array({"a\xff"
                           "b"})));
}

TEST(Printed, OtherValuesInTheirJsonSpelling) {
  EXPECT_EQ("null", printed(nullptr));
  EXPECT_EQ("true", printed(true));
  EXPECT_EQ("false", printed(false));
  EXPECT_EQ("42", printed(42));
  EXPECT_EQ("-7", printed(-7));
  EXPECT_EQ("12.5", printed(12.5));
  EXPECT_EQ("18446744073709551615", printed(Json::parse("[18446744073709551615]")[0]));
}

TEST(Printed, IntegersBeyond64BitsInTheirOwnCharacters) {
  EXPECT_EQ("-9223372036854775809", printed(largeInteger("-9223372036854775809")));
  EXPECT_EQ("{\n  \"n\": 123456789012345678901234567890\n}",
            printed(Json{{"n", largeInteger("123456789012345678901234567890")}}));
}

TEST(Printed, AStringWithNulBytesIsWhole) {
  EXPECT_EQ(std::string("a\0b", 3), printed(std::string("a\0b", 3)));
  EXPECT_EQ("[\n  \"a\\u0000b\"\n]", printed(Json::array({std::string("a\0b", 3)})));
}

TEST(Printed, ControlCharactersAreEscaped) {
  EXPECT_EQ("[\n  \"a\\tb\\u0001\"\n]", printed(Json::array({"a\tb\x01"})));
}

class Save : public ::testing::Test {
 protected:
  TempDir dir;
};

TEST_F(Save, CountsNonEmptyLinesAndAddsALineFeed) {
  std::string path = dir.file("page.txt");
  EXPECT_EQ("saved 2 lines to " + path, save("a\n\nb\n", path));
  EXPECT_EQ("a\n\nb\n\n", readFile(path).value());
}

TEST_F(Save, AnEmptyTextIsZeroLines) {
  EXPECT_EQ("saved 0 lines to " + dir.file("e.txt"), save("", dir.file("e.txt")));
  EXPECT_EQ("\n", readFile(dir.file("e.txt")).value());
}

TEST_F(Save, TildeMeansTheHomeFolder) {
  const char* old = std::getenv("HOME");
  std::string saved = old ? old : "";
  setenv("HOME", dir.path().c_str(), 1);
  std::string result = save("x", "~/x.txt");
  setenv("HOME", saved.c_str(), 1);
  EXPECT_EQ("saved 1 lines to " + dir.file("x.txt"), result);
  EXPECT_EQ("x\n", readFile(dir.file("x.txt")).value());
}

TEST_F(Save, ARelativePathIsTakenFromTheCurrentFolder) {
  char cwd[4096];
  ASSERT_NE(nullptr, getcwd(cwd, sizeof cwd));
  ASSERT_EQ(0, chdir(dir.path().c_str()));
  std::filesystem::create_directories("sub");
  std::string result = save("one", "./sub/../rel.txt");
  std::string plain = save("two", "plain.txt");
  ASSERT_EQ(0, chdir(cwd));
  EXPECT_EQ("saved 1 lines to " + dir.path() + "/sub/../rel.txt", result);
  EXPECT_EQ("saved 1 lines to " + dir.file("plain.txt"), plain);
}

TEST_F(Save, AMissingFolderThrowsAndCreatesNothing) {
  std::string path = dir.file("missing/out.txt");
  try {
    save("x", path);
    FAIL();
  } catch (const FileError& error) {
    EXPECT_EQ("couldn't write " + path + ": no such file or directory", std::string(error.what()));
  }
  EXPECT_FALSE(std::filesystem::exists(dir.file("missing")));
  EXPECT_TRUE(std::filesystem::is_empty(dir.path()));
}

TEST_F(Save, ReplacesAnExistingFileAndLeavesNoTemporaryFile) {
  std::string path = dir.file("out.txt");
  testing::writeTestFile(path, "old content\n");
  save("new", path);
  EXPECT_EQ("new\n", readFile(path).value());
  int files = 0;
  for (auto& entry : std::filesystem::directory_iterator(dir.path())) {
    (void)entry;
    ++files;
  }
  EXPECT_EQ(1, files);
}

TEST_F(Save, ADirectoryInTheWayKeepsItsContent) {
  std::filesystem::create_directories(dir.file("taken/inner"));
  EXPECT_THROW(save("x", dir.file("taken")), FileError);
  EXPECT_TRUE(std::filesystem::exists(dir.file("taken/inner")));
  int files = 0;
  for (auto& entry : std::filesystem::directory_iterator(dir.path())) {
    (void)entry;
    ++files;
  }
  EXPECT_EQ(1, files) << "a temporary file was left behind";
}

TEST_F(Save, NewFilesFollowTheUmask) {
  mode_t old = umask(027);
  save("x", dir.file("m.txt"));
  umask(old);
  struct stat info {};
  ASSERT_EQ(0, stat(dir.file("m.txt").c_str(), &info));
  EXPECT_EQ(0640u, info.st_mode & 0777);
}

TEST_F(Save, ASymbolicLinkIsFollowedNotReplaced) {
  testing::writeTestFile(dir.file("real.txt"), "old\n");
  ASSERT_EQ(0, symlink(dir.file("real.txt").c_str(), dir.file("link.txt").c_str()));
  save("new", dir.file("link.txt"));
  EXPECT_TRUE(std::filesystem::is_symlink(dir.file("link.txt")));
  EXPECT_EQ("new\n", readFile(dir.file("real.txt")).value());
}

TEST_F(Save, ATextWithNulBytesIsSavedWhole) {
  std::string path = dir.file("nul.txt");
  EXPECT_EQ("saved 2 lines to " + path, save(std::string("a\0b\n\0", 5), path));
  EXPECT_EQ(std::string("a\0b\n\0\n", 6), readFile(path).value());
}

TEST_F(Save, APathWithANulByteNamesNoFile) {
  // The system would read the path only up to the NUL byte, and write another file.
  std::string path = dir.file(std::string("out.txt\0.png", 12));
  try {
    save("x", path);
    FAIL();
  } catch (const FileError& error) {
    EXPECT_EQ("couldn't write " + path + ": invalid argument", error.text());
  }
  EXPECT_THROW(writeFile(path, "x"), FileError);
  EXPECT_TRUE(std::filesystem::is_empty(dir.path()));
}

TEST_F(Save, WritesBytesAsTheyAre) {
  std::string bytes("\x89PNG\r\n\x1a\n\0\xff", 10);
  EXPECT_EQ(dir.file("a.png"), writeFile(dir.file("a.png"), bytes));
  EXPECT_EQ(bytes, readFile(dir.file("a.png")).value());
}

}  // namespace
}  // namespace nurel
