// tests/fuzz_corpus_test.cpp: every seed and every input that once broke a fuzz target, run
// through the same checks in the ordinary test build, so a fixed crash stays fixed.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>

#include "cli/scan.h"
#include "fuzz/checks.h"
#include "link/json.h"
#include "tests/run_nurel.h"

namespace nurel::fuzz {
namespace {

using Check = std::string (*)(const uint8_t*, size_t);

// Runs `check` over fuzz/corpus/<target>/* and returns how many files it read.
size_t replay(const std::string& target, Check check) {
  std::filesystem::path folder = std::filesystem::path(NUREL_TEST_DIR) / ".." / "fuzz" /
                                 "corpus" / target;
  size_t files = 0;
  for (auto& entry : std::filesystem::directory_iterator(folder)) {
    std::ifstream in(entry.path(), std::ios::binary);
    std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    EXPECT_EQ("", check(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size()))
        << entry.path().filename();
    ++files;
  }
  return files;
}

TEST(FuzzCorpus, CommandLines) { EXPECT_LT(40u, replay("cli", checkCommandLine)); }
TEST(FuzzCorpus, McpLines) { EXPECT_LT(10u, replay("mcp_line", checkMcpLines)); }
TEST(FuzzCorpus, ReplyStreams) { EXPECT_LT(10u, replay("reply", checkReplyStream)); }
TEST(FuzzCorpus, PrintedValues) { EXPECT_LT(5u, replay("printed", checkPrinted)); }
#ifdef __linux__
TEST(FuzzCorpus, BackEndRequestLines) { EXPECT_LT(10u, replay("request", checkRequestLines)); }
TEST(FuzzCorpus, SnapshotAnswers) { EXPECT_LT(10u, replay("snapshot", checkSnapshotAnswer)); }
#endif

// The checks themselves must be able to fail, or the fuzzers prove nothing.
TEST(FuzzChecks, Utf8Validity) {
  EXPECT_TRUE(validUtf8("plain caf\xc3\xa9 \xf0\x9f\x98\x80"));
  for (const char* bad : {"\xff", "\xc3", "\xc0\xaf", "\xed\xa0\x80", "\xf4\x90\x80\x80",
                          "\xe0\x80\xaf", "\xf0\x80\x80\xaf"})
    EXPECT_FALSE(validUtf8(bad)) << bad;
}

TEST(FuzzChecks, AnArgumentVectorThatIsNotUtf8MayFailToSerialise) {
  std::string open = std::string("\x01", 1) + "\xff\xfe";
  EXPECT_EQ("", checkCommandLine(reinterpret_cast<const uint8_t*>(open.data()), open.size()));
}

#ifdef __linux__
TEST(FuzzChecks, TheSnapshotCheckTellsAWrongDiffAndAMissingNote) {
  auto check = [](uint8_t flags, const std::string& last, const std::string& text) {
    std::string input = std::string(1, char(flags)) + char(last.size() >> 8) +
                        char(last.size() & 0xff) + last + text;
    return checkSnapshotAnswer(reinterpret_cast<const uint8_t*>(input.data()), input.size());
  };
  EXPECT_EQ("", check(1, "a\nb\nc\n", "a\nc\nd\n"));
  EXPECT_EQ("", check(2 * 5, "", "line one\nline two\n"));  // cut at 7 characters
}

TEST(FuzzChecks, TheRequestCheckWantsOneAnswerPerRequest) {
  std::string lines = "{\"id\":1,\"method\":\"hello\"}\nnot json\n{\"id\":2,\"method\":\"open\","
                      "\"params\":{\"url\":\"http://127.0.0.1:1/\"}}\n";
  EXPECT_EQ("", checkRequestLines(reinterpret_cast<const uint8_t*>(lines.data()), lines.size()));
}
#endif

// What the fuzzers found, each pinned down where it was fixed.

// nlohmann refuses a number beyond a double's range with out_of_range, not parse_error; it
// escaped parseDocument() and ended the command line with an uncaught exception.
TEST(FoundByFuzzing, ANumberTooLargeForADoubleIsUnreadableJson) {
  EXPECT_THROW(parseDocument("[1e999]"), JsonError);
  EXPECT_THROW(parseDocument(R"({"a":-1e999})"), JsonError);
}

TEST(FoundByFuzzing, ValuesWithANumberTooLargeAreAUsageError) {
  std::vector<std::string> run{"t1", "checkout", "--values", R"({"a":1e999})"};
  try {
    requestParams(*findCommand("run"), run);
    ADD_FAILURE() << "no usage error";
  } catch (const UsageError& error) {
    EXPECT_STREQ("values takes a JSON object", error.what());
  }
  std::vector<std::string> batch{"t1", R"([{"a":-1e999}])"};
  EXPECT_THROW(requestParams(*findCommand("batch"), batch), UsageError);
}

TEST(FoundByFuzzing, TheProgramReportsANumberTooLargeInsteadOfAborting) {
  testing::Outcome run = testing::runNurel({"run", "t1", "s", "--values", R"({"a":1e999})"});
  EXPECT_EQ(0, run.signal);
  EXPECT_EQ(1, run.status);
  EXPECT_EQ("values takes a JSON object\n", run.err);
}

// A parse error quotes the input it stopped at: any bytes, any length. The message must stay one
// short line of valid UTF-8, or an MCP tool result carrying it could not be written at all.
TEST(FoundByFuzzing, ParseErrorsAreOneShortLineOfValidUtf8) {
  for (std::string bad : {std::string("{\"a\":\"caf\xff\xfe\"}"),
                          "{\"a\":\"" + std::string(1 << 20, 'x'), std::string("[1,\n\r\x01x]")}) {
    try {
      parseDocument(bad);
      ADD_FAILURE() << "parsed";
    } catch (const JsonError& error) {
      std::string message = error.what();
      EXPECT_TRUE(validUtf8(message)) << message;
      EXPECT_EQ(std::string::npos, message.find_first_of("\r\n")) << message;
      EXPECT_GT(300u, message.size()) << message;
    }
  }
}

}  // namespace
}  // namespace nurel::fuzz
