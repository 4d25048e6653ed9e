// tests/transcript_test.cpp: MCP sessions kept as data in tests/mcp/*.test.
//
// Each file runs twice: in process through MCPServer::handle (a fake launch, nothing sleeps),
// and against the built `nurel mcp` with all its input lines on standard input. Both talk to
// a FakeBrowser scripted by the file's "browser>" lines. The format, one item per line:
//
//   # comment
//   > line                 a line of standard input, verbatim (">" alone: an empty line)
//   < json                 the answer to the last input, compared as JSON (key order free)
//   <~ json                only the members written must match
//   <= text                the answer byte for byte
//   browser< json          the next request the browser must receive, compared as JSON
//   browser<= text         the next request the browser must receive, byte for byte
//   browser> action        the browser's answer to its next request (fake_browser.h syntax)
//   file <path> "text"     the file must exist and hold exactly that text (a JSON string)
//   nofile <path>          no such file may exist
//   connections <n>        the browser has accepted n connections so far
//
// "$DIR" stands for a fresh folder that is also the home folder ("~") of the run. Extra or
// missing answers and requests fail. In process, each answer, request and check is compared
// where it stands; against the binary, in order at the end of the run (the binary must also
// write one line per answer, nothing on standard error, and exit 0).
//
// NUREL_UPDATE=1 rewrites the "<" lines from the answers of the in-process run; review the diff.
#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "link/launch.h"
#include "link/places.h"
#include "mcp/mcp_server.h"
#include "tests/fake_browser.h"
#include "tests/run_nurel.h"

namespace nurel::testing {
namespace {

enum class Kind {
  input,
  answer,
  partial,
  exact,
  request,
  exactRequest,
  reply,
  file,
  nofile,
  connections
};

struct Step {
  Kind kind;
  std::string text;  // after the prefix, "$DIR" not yet replaced
  size_t line;       // 1-based, for messages
};

// clang-format off
const std::pair<const char*, Kind> prefixes[] = {
    {"browser< ", Kind::request}, {"browser<= ", Kind::exactRequest},
    {"browser> ", Kind::reply},   {"<~ ", Kind::partial},     {"<= ", Kind::exact},
    {"< ", Kind::answer},         {"> ", Kind::input},        {"file ", Kind::file},
    {"nofile ", Kind::nofile},    {"connections ", Kind::connections},
};
// clang-format on

struct Transcript {
  std::string path;
  std::vector<std::string> lines;  // the file as it stands
  std::vector<Step> steps;
};

Transcript load(const std::string& path) {
  Transcript transcript{path, {}, {}};
  std::ifstream in(path, std::ios::binary);
  for (std::string line; std::getline(in, line);) transcript.lines.push_back(line);
  for (size_t i = 0; i < transcript.lines.size(); ++i) {
    const std::string& line = transcript.lines[i];
    if (line.empty() || line[0] == '#') continue;
    bool known = false;
    for (auto& [prefix, kind] : prefixes) {
      if (line.starts_with(prefix)) {
        transcript.steps.push_back({kind, line.substr(std::strlen(prefix)), i + 1});
        known = true;
        break;
      }
    }
    // ">" alone is an empty input line.
    if (!known && line == ">") {
      transcript.steps.push_back({Kind::input, "", i + 1});
      known = true;
    }
    if (!known) ADD_FAILURE() << path << ":" << i + 1 << ": unknown line: " << line;
  }
  return transcript;
}

std::string replaced(std::string text, const std::string& from, const std::string& to) {
  for (size_t at = text.find(from); at != std::string::npos; at = text.find(from, at + to.size()))
    text.replace(at, from.size(), to);
  return text;
}

std::vector<std::string> transcriptFiles() {
  std::vector<std::string> files;
  for (auto& entry : std::filesystem::directory_iterator(NUREL_TEST_DIR "/mcp"))
    if (entry.path().extension() == ".test") files.push_back(entry.path().string());
  std::sort(files.begin(), files.end());
  return files;
}

std::optional<Json> parsed(const std::string& text) {
  Json value = Json::parse(text, nullptr, false);
  if (value.is_discarded()) return std::nullopt;
  return value;
}

// Every member written in `expected` is in `actual` with a matching value; arrays match
// element by element and must be as long.
bool matches(const Json& actual, const Json& expected) {
  if (expected.is_object()) {
    if (!actual.is_object()) return false;
    for (auto& [key, value] : expected.items())
      if (!actual.contains(key) || !matches(actual.at(key), value)) return false;
    return true;
  }
  if (expected.is_array()) {
    if (!actual.is_array() || actual.size() != expected.size()) return false;
    for (size_t i = 0; i < expected.size(); ++i)
      if (!matches(actual[i], expected[i])) return false;
    return true;
  }
  return actual == expected;
}

class Session {
 public:
  explicit Session(const Transcript& transcript) : transcript(transcript) {
    std::vector<std::string> script;
    for (auto& step : transcript.steps)
      if (step.kind == Kind::reply) script.push_back(expand(step.text));
    browser = std::make_unique<FakeBrowser>(script);
  }

  std::string expand(const std::string& text) const { return replaced(text, "$DIR", dir.path()); }
  std::string where(const Step& step) const {
    return transcript.path + ":" + std::to_string(step.line);
  }

  void checkAnswer(const Step& step, const std::optional<std::string>& actual) const {
    if (!actual) {
      ADD_FAILURE() << where(step) << ": no answer; expected " << step.text;
      return;
    }
    std::string expected = expand(step.text);
    if (step.kind == Kind::exact) {
      EXPECT_EQ(expected, *actual) << where(step);
      return;
    }
    auto want = parsed(expected);
    auto got = parsed(*actual);
    ASSERT_TRUE(want) << where(step) << ": the expected answer is not JSON";
    ASSERT_TRUE(got) << where(step) << ": the answer is not JSON: " << *actual;
    if (step.kind == Kind::partial)
      EXPECT_TRUE(matches(*got, *want))
          << where(step) << "\n  expected members of: " << expected << "\n  actual: " << *actual;
    else
      EXPECT_EQ(*want, *got) << where(step) << "\n  expected: " << expected
                             << "\n  actual: " << *actual;
  }

  void checkRequest(const Step& step, const std::vector<std::string>& requests,
                    size_t index) const {
    if (index >= requests.size()) {
      ADD_FAILURE() << where(step) << ": the browser received no request; expected " << step.text;
      return;
    }
    if (step.kind == Kind::exactRequest) {
      EXPECT_EQ(expand(step.text), requests[index]) << where(step);
      return;
    }
    auto want = parsed(expand(step.text));
    ASSERT_TRUE(want) << where(step) << ": the expected request is not JSON";
    EXPECT_EQ(*want, Json::parse(requests[index]))
        << where(step) << "\n  actual: " << requests[index];
  }

  void checkFile(const Step& step) const {
    std::string text = expand(step.text);
    if (step.kind == Kind::nofile) {
      EXPECT_FALSE(std::filesystem::exists(text)) << where(step) << ": " << text;
      return;
    }
    if (step.kind == Kind::connections) {
      // The fake accepts on its own thread, a moment after the connection is made.
      int count = std::stoi(text);
      for (int i = 0; i < 1000 && browser->connections() < count; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
      EXPECT_EQ(count, browser->connections()) << where(step) << ": connections";
      return;
    }
    auto space = text.find(' ');
    ASSERT_NE(std::string::npos, space) << where(step) << ": file <path> \"content\"";
    auto content = readFile(text.substr(0, space));
    ASSERT_TRUE(content) << where(step) << ": no file " << text.substr(0, space);
    EXPECT_EQ(Json::parse(text.substr(space + 1)).get<std::string>(), *content) << where(step);
  }

  const Transcript& transcript;
  TempDir dir;
  std::unique_ptr<FakeBrowser> browser;
};

// A launch that never starts anything and never sleeps.
class NoLaunch : public Launch {
 public:
  void start(const std::string&, const Json&) override {}
  void pause(unsigned) override {}
};

// The home folder an in-process run sees, put back afterwards.
class ScopedHome {
 public:
  explicit ScopedHome(const std::string& home) : oldHome(std::getenv("HOME")) {
    setenv("HOME", home.c_str(), 1);
  }
  ~ScopedHome() {
    if (oldHome)
      setenv("HOME", oldHome->c_str(), 1);
    else
      unsetenv("HOME");
  }

 private:
  std::optional<std::string> oldHome;
};

// Writes the answers of an in-process run in place of the file's "<" lines.
void update(const Transcript& transcript, const std::vector<std::optional<std::string>>& answers,
            const std::string& dir) {
  std::vector<std::string> out;
  size_t input = 0;  // inputs seen so far
  bool placed = true;
  auto place = [&] {
    if (!placed && input > 0 && answers[input - 1])
      out.push_back("< " + replaced(*answers[input - 1], dir, "$DIR"));
    placed = true;
  };
  for (auto& line : transcript.lines) {
    if (line.starts_with("> ") || line == ">" || line.starts_with("#")) {
      place();
      if (!line.starts_with("#")) {
        ++input;
        placed = false;
      }
    }
    if (line.starts_with("<~ ") || line.starts_with("<= ")) placed = true;
    if (line.starts_with("< ")) {
      place();
      continue;
    }
    out.push_back(line);
  }
  place();
  std::ofstream file(transcript.path, std::ios::binary);
  for (auto& line : out) file << line << "\n";
}

class Transcripts : public ::testing::TestWithParam<std::string> {};

TEST_P(Transcripts, InProcess) {
  Transcript transcript = load(GetParam());
  Session run(transcript);
  ScopedHome home(run.dir.path());
  NoLaunch launch;
  MCPServer server(placeAt(run.browser->socket()), launch);
  bool updating = std::getenv("NUREL_UPDATE") != nullptr;
  std::vector<std::optional<std::string>> answers;
  std::optional<std::string> pending;
  size_t requests = 0;
  auto settle = [&](const Step* next) {
    if (pending && !updating)
      ADD_FAILURE() << (next ? run.where(*next) : transcript.path + ": at the end")
                    << ": unexpected answer " << *pending;
    pending.reset();
    EXPECT_EQ(requests, run.browser->requests().size())
        << (next ? run.where(*next) : transcript.path + ": at the end")
        << ": requests the browser received";
  };
  for (auto& step : transcript.steps) {
    switch (step.kind) {
      case Kind::input:
        settle(&step);
        pending = server.handle(run.expand(step.text));
        answers.push_back(pending);
        break;
      case Kind::answer:
      case Kind::partial:
      case Kind::exact:
        if (!updating || step.kind != Kind::answer) run.checkAnswer(step, pending);
        pending.reset();
        break;
      case Kind::request:
      case Kind::exactRequest:
        run.checkRequest(step, run.browser->requests(), requests++);
        break;
      case Kind::reply:
        break;
      default:
        run.checkFile(step);
    }
  }
  settle(nullptr);
  if (updating) update(transcript, answers, run.dir.path());
}

TEST_P(Transcripts, Binary) {
  Transcript transcript = load(GetParam());
  Session run(transcript);
  RunOptions options;
  options.env["NUREL_SOCKET"] = run.browser->socket();
  options.env["HOME"] = run.dir.path();
  std::vector<const Step*> answers, requests, checks;
  for (auto& step : transcript.steps) {
    if (step.kind == Kind::input) options.input += run.expand(step.text) + "\n";
    if (step.kind == Kind::answer || step.kind == Kind::partial || step.kind == Kind::exact)
      answers.push_back(&step);
    if (step.kind == Kind::request || step.kind == Kind::exactRequest) requests.push_back(&step);
    if (step.kind >= Kind::file) checks.push_back(&step);
  }
  Outcome outcome = runNurel({"mcp"}, options);
  EXPECT_EQ(0, outcome.status) << transcript.path;
  EXPECT_EQ("", outcome.err) << transcript.path;
  if (!outcome.out.empty()) {
    EXPECT_EQ('\n', outcome.out.back()) << transcript.path;
  }
  std::vector<std::string> lines;
  std::istringstream out(outcome.out);
  for (std::string line; std::getline(out, line);) lines.push_back(line);
  EXPECT_EQ(answers.size(), lines.size()) << transcript.path << ": answer lines\n" << outcome.out;
  for (size_t i = 0; i < std::min(answers.size(), lines.size()); ++i)
    run.checkAnswer(*answers[i], lines[i]);
  auto received = run.browser->requests();
  EXPECT_EQ(requests.size(), received.size()) << transcript.path << ": requests received";
  for (size_t i = 0; i < requests.size(); ++i) run.checkRequest(*requests[i], received, i);
  for (auto* step : checks) run.checkFile(*step);
}

std::string testName(const ::testing::TestParamInfo<std::string>& info) {
  std::string name = std::filesystem::path(info.param).stem().string();
  for (char& c : name)
    if (!std::isalnum(static_cast<unsigned char>(c))) c = '_';
  return name;
}

INSTANTIATE_TEST_SUITE_P(Mcp, Transcripts, ::testing::ValuesIn(transcriptFiles()), testName);

}  // namespace
}  // namespace nurel::testing
