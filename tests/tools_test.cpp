// tests/tools_test.cpp: the rest of what the tools promise, against real Chromium: media,
// scenarios, and the person.
#include <gtest/gtest.h>

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <thread>

#include "link/json.h"
#include "tests/browser_fixture.h"
#include "tests/session.h"

namespace nurel::testing {
namespace {

// `seconds` of a quiet tone as a WAV file: 8 kHz, 8 bits, one channel.
std::string tone(int seconds) {
  const uint32_t rate = 8000, samples = rate * uint32_t(seconds);
  std::string wav = "RIFF";
  auto word = [&](uint32_t value, int bytes) {
    for (int i = 0; i < bytes; ++i) wav += char((value >> (8 * i)) & 0xFF);
  };
  word(36 + samples, 4);
  wav += "WAVEfmt ";
  word(16, 4), word(1, 2), word(1, 2), word(rate, 4), word(rate, 4), word(1, 2), word(8, 2);
  wav += "data";
  word(samples, 4);
  for (uint32_t i = 0; i < samples; ++i) wav += char(128 + int(20 * std::sin(i * 2 * 3.14159 * 440 / rate)));
  return wav;
}

TEST(Media, PlaysPausesSeeksAndSaysHowItIs) {
  // From a data: address, which can be sought through as a file can.
  servePage("/player",
            "<title>Player</title><audio aria-label=tone.wav controls src='data:audio/wav;base64," +
                encodedBase64(tone(5)) +
                "'></audio>"
                "<button onclick=\"said.textContent = 'next'\">Next track</button><p id=said></p>");
  std::string tab = shared().open(url("/player"));
  EXPECT_EQ(shared().nurel({"media", tab}).out,
            "audio \"tone.wav\": paused at 0:00 of 0:05, volume 100%, rate 1x\n");
  Outcome played = shared().nurel({"media", tab, "play"});
  EXPECT_EQ(played.out.rfind("audio \"tone.wav\": playing at 0:0", 0), 0u) << played.out << played.err;
  EXPECT_EQ(shared().nurel({"media", tab, "pause"}).out.rfind("audio \"tone.wav\": paused at 0:0", 0), 0u);
  EXPECT_EQ(shared().nurel({"media", tab, "seek", "3"}).out,
            "audio \"tone.wav\": paused at 0:03 of 0:05, volume 100%, rate 1x\n");
  EXPECT_EQ(shared().nurel({"media", tab, "skip", "-2"}).out,
            "audio \"tone.wav\": paused at 0:01 of 0:05, volume 100%, rate 1x\n");
  EXPECT_EQ(shared().nurel({"media", tab, "volume", "0.5"}).out,
            "audio \"tone.wav\": paused at 0:01 of 0:05, volume 50%, rate 1x\n");
  EXPECT_EQ(shared().nurel({"media", tab, "mute"}).out,
            "audio \"tone.wav\": paused at 0:01 of 0:05, volume 50%, muted, rate 1x\n");
  EXPECT_EQ(shared().nurel({"media", tab, "rate", "1.5"}).out,
            "audio \"tone.wav\": paused at 0:01 of 0:05, volume 50%, muted, rate 1.5x\n");
  EXPECT_EQ(shared().nurel({"media", tab, "unmute"}).out,
            "audio \"tone.wav\": paused at 0:01 of 0:05, volume 50%, rate 1.5x\n");
  EXPECT_EQ(shared().nurel({"media", tab, "toggle"}).out.rfind("audio \"tone.wav\": playing", 0), 0u);
  EXPECT_EQ(shared().nurel({"eval", tab, "const a = document.querySelector('audio'); return [a.paused, a.volume, a.playbackRate]"}).out,
            "[\n  false,\n  0.5,\n  1.5\n]\n");
  shared().nurel({"media", tab, "next"});
  EXPECT_EQ(shared().nurel({"eval", tab, "return said.textContent"}).out, "next\n");

  Outcome bad = shared().nurel({"media", tab, "volume", "2"});
  EXPECT_EQ(bad.err, "volume failed: volume takes a value from 0 to 1\n");
  bad = shared().nurel({"media", tab, "seek"});
  EXPECT_EQ(bad.err, "seek failed: seek takes a value: seconds from the start\n");
  bad = shared().nurel({"media", tab, "pip"});
  EXPECT_EQ(bad.err, "pip failed: picture in picture is for video, and this is audio\n");
  bad = shared().nurel({"media", tab, "dance"});
  EXPECT_NE(bad.err.find("no media action \"dance\""), std::string::npos) << bad.err;

  std::string quiet = shared().open(url("/second"));
  EXPECT_EQ(shared().nurel({"media", quiet}).out, "nothing on the page plays audio or video\n");
  EXPECT_EQ(shared().nurel({"media", quiet, "play"}).err,
            "nothing on the page plays audio or video, so nothing to play\n");
}


// The back end's data folder (the one folder it made under XDG_DATA_HOME).
std::string dataFolder(const BackEnd& backEnd) {
  std::error_code error;
  for (auto& entry : std::filesystem::directory_iterator(backEnd.file("data"), error))
    if (entry.is_directory()) return entry.path().string();
  return {};
}

TEST(Scenarios, ARecordedScenarioRunsWithItsValuesAndStopsWhereAStepFails) {
  servePage("/shop", R"html(<title>Shop</title>
<form onsubmit="event.preventDefault(); done.textContent = 'Ordered ' + size.value + ' for ' + email.value + ', ' + pw.value.length">
<label>Email <input id=email></label><label>Password <input id=pw type=password></label>
<select id=size aria-label=Size><option>Small<option>Large</select><button>Order</button></form>
<p id=done></p><div id=late></div>
<script>setTimeout(() => late.innerHTML = '<button onclick="this.textContent = \'Thanked\'">Say thanks</button>', 700)</script>)html");
  std::string tab = shared().open(url("/second"));
  std::string folder = dataFolder(shared()) + "/scenarios";
  ASSERT_NE(folder, "/scenarios");
  std::filesystem::create_directories(folder);
  writeTestFile(folder + "/coffee.json", R"({"name": "Order coffee", "start": ")" + url("/shop") + R"(",
  "steps": [
    {"do": "type", "role": "textbox", "name": "Email", "text": "{{email}}"},
    {"do": "type", "role": "textbox", "name": "password", "secret": true},
    {"do": "select_option", "role": "combobox", "name": "Size", "option": "Large"},
    {"do": "click", "role": "button", "name": "Order", "intent": "Ordering"},
    {"do": "click", "role": "button", "name": "Say thanks"}
  ]})");
  writeTestFile(folder + "/missing.json", R"({"name": "Missing", "start": ")" + url("/shop") + R"(",
    "steps": [{"do": "click", "role": "button", "name": "Order"},
              {"do": "click", "role": "button", "name": "Nowhere", "timeout": 1},
              {"do": "press_key", "key": "Enter"}]})");
  writeTestFile(folder + "/broken.json", "{\"name\": ");
  writeTestFile(folder + "/wrong.json", R"({"name": "Wrong", "start": "/", "steps": [{"do": "fly"}]})");

  Outcome listed = shared().nurel({"scenarios"});
  EXPECT_EQ(listed.out,
            "\"Order coffee\" (coffee.json): starts at " + url("/shop") + ", 5 steps\n"
            "  1. type textbox \"Email\": {{email}}\n"
            "  2. type textbox \"password\": (secret)\n"
            "  3. select_option combobox \"Size\": Large\n"
            "  4. click button \"Order\"\n"
            "  5. click button \"Say thanks\"\n"
            "\"Missing\" (missing.json): starts at " + url("/shop") + ", 3 steps\n"
            "  1. click button \"Order\"\n"
            "  2. click button \"Nowhere\"\n"
            "  3. press_key: Enter\n"
            "broken.json: skipped, it isn't valid JSON\n"
            "wrong.json: skipped, step 1: fly isn't an action a step can do\n") << listed.err;

  // A secret step without its value: nothing is done, not even the start page.
  Outcome refused = shared().nurel({"run", tab, "Order", "coffee", "--values", R"({"email": "ann@example.com"})"});
  EXPECT_EQ(refused.err, "step 2 (type textbox \"password\": (secret)) is secret and needs its value: give it "
                         "as values {\"2\": …}; nothing was done\n");
  EXPECT_EQ(shared().nurel({"eval", tab, "return document.title"}).out, "Second\n");

  // Through the MCP server, as an agent runs it.
  Session mcp(shared().socket());
  mcp.send(R"({"jsonrpc":"2.0","id":1,"method":"tools/call","params":{"name":"run_scenario","arguments":{"tab":")" +
           tab + R"(","scenario":"Order coffee","values":{"email":"ann@example.com","2":"s3cret-pass"}}}})");
  auto answer = mcp.next();
  ASSERT_TRUE(answer);
  Json reply = parseDocument(*answer);
  EXPECT_FALSE(reply["result"].value("isError", false)) << *answer;
  std::string text = reply["result"]["content"][0]["text"];
  EXPECT_EQ(text.substr(0, text.find('\n')), "started at " + url("/shop") + " \"Shop\"") << text;
  EXPECT_NE(text.find("\n2. type textbox \"password\": (secret): typed 11 characters into textbox \"Password\""),
            std::string::npos) << text;
  EXPECT_NE(text.find("\n5. click button \"Say thanks\": clicked button \"Say thanks\""), std::string::npos) << text;
  EXPECT_EQ(text.substr(text.rfind('\n') + 1), "done: \"Order coffee\", 5 steps");
  EXPECT_EQ(text.find("s3cret"), std::string::npos);
  EXPECT_EQ(mcp.finish(), 0);
  EXPECT_EQ(shared().nurel({"eval", tab, "return done.textContent + ' ' + late.textContent"}).out,
            "Ordered Large for ann@example.com, 11 Thanked\n");

  Outcome stopped = shared().nurel({"run", tab, "missing"});
  EXPECT_EQ(stopped.status, 1);
  EXPECT_NE(stopped.err.find("\n1. click button \"Order\": clicked button \"Order\""), std::string::npos) << stopped.err;
  EXPECT_EQ(stopped.err.substr(stopped.err.find("\nstopped")),
            "\nstopped at step 2 (click button \"Nowhere\"): no button \"Nowhere\" on the page after 1 s "
            "(the 1 after it not done)\n");
  EXPECT_EQ(shared().nurel({"run", tab, "Tea"}).err, "no scenario \"Tea\": scenarios lists them\n");
}

// A virtual display for a back end with a window, and xdotool as the person at its keyboard;
// skipped where they are not installed.
class Display {
 public:
  Display() {
    if (system("command -v Xvfb >/dev/null && command -v xdotool >/dev/null") != 0) return;
    int fds[2];
    if (pipe(fds) != 0) return;
    pid = fork();
    if (pid == 0) {
      dup2(fds[1], 3);
      execlp("Xvfb", "Xvfb", "-displayfd", "3", "-screen", "0", "1280x900x24", "-nolisten", "tcp", nullptr);
      _exit(127);
    }
    close(fds[1]);
    std::string number;
    char c;
    while (read(fds[0], &c, 1) == 1 && c != '\n') number += c;
    close(fds[0]);
    if (!number.empty()) name = ":" + number;
  }
  ~Display() {
    if (pid > 0) {
      kill(pid, SIGTERM);
      waitpid(pid, nullptr, 0);
    }
  }
  // Presses `key` in the browser's window showing `title`, as a person at the keyboard does.
  bool press(const std::string& title, const std::string& key) const {
    std::string command = "DISPLAY=" + name + " xdotool search --sync --onlyvisible --name '^" + title +
                          "' windowfocus --sync key " + key + " >/dev/null 2>&1";
    return system(command.c_str()) == 0;
  }
  std::string name;

 private:
  pid_t pid = -1;
};

TEST(Person, AskShowsABannerThePageCannotReadOrClickAndWaitsForThePerson) {
  if (overWebSocket()) GTEST_SKIP() << "a remote browser's person is the pool's to know";
  Display display;
  if (display.name.empty()) GTEST_SKIP() << "needs Xvfb and xdotool";
  BackEnd headed({{"NUREL_HEADED", "1"}, {"DISPLAY", display.name}});
  // The page tries what a hostile page would: read the banner, click it, take it away.
  servePage("/hostile-ask", R"html(<title>Puzzle</title><h1>A puzzle</h1><script>
window.findings = [];
const look = setInterval(() => {
  const host = document.querySelector('nurel-ask');
  if (!host) return;
  clearInterval(look);
  findings.push(String(host.shadowRoot), host.textContent, host.innerText);
  host.click();
  host.dispatchEvent(new MouseEvent('click', {bubbles: true, composed: true}));
  host.remove();
  setTimeout(() => findings.push(!!document.querySelector('nurel-ask')), 300);
}, 50);
</script>)html");
  std::string tab = headed.open(url("/hostile-ask"));
  ASSERT_NE(tab, "");

  Outcome asked;
  std::atomic<bool> answered{false};
  std::thread person([&] {
    asked = headed.nurel({"ask", tab, "Please", "solve", "the", "puzzle", "--timeout", "0.5"});
    answered = true;
  });
  std::string refused;
  EXPECT_TRUE(eventually([&] {
    refused = headed.nurel({"click", tab, "10", "10"}).err;
    return refused.find("is the person's") != std::string::npos;
  }));
  EXPECT_EQ(refused, tab + " is the person's until they answer what ask showed them: wait for it\n");
  std::this_thread::sleep_for(std::chrono::milliseconds(800));  // the page's tries
  // The person presses Enter on the focused "Done" (again if a busy machine lost the key).
  for (int tries = 0; tries < 5 && !answered; ++tries) {
    EXPECT_TRUE(display.press("Puzzle", "Return"));
    eventually([&] { return answered.load(); }, std::chrono::seconds(2));
  }
  person.join();
  // An X server under a loaded machine now and then loses the key to another window; then the
  // time runs out, which is the other answer the agent can get.
  if (asked.out == "the person didn't answer in 0.5 minutes\n")
    std::printf("[ note     ] the key didn't reach the banner; the time ran out instead\n");
  else
    EXPECT_EQ(asked.out, "the person says it's done\n") << asked.err;
  EXPECT_EQ(headed.nurel({"eval", tab, "return findings"}).out, "[\n  \"null\",\n  \"\",\n  \"\",\n  true\n]\n");
  EXPECT_EQ(headed.nurel({"eval", tab, "return !!document.querySelector('nurel-ask')"}).out, "false\n");

  // Nobody there: the time runs out (a fraction of a minute here).
  Outcome late = headed.nurel({"ask", tab, "Anyone?", "--timeout", "0.02"});
  EXPECT_EQ(late.out, "the person didn't answer in 0.02 minutes\n") << late.err;

  // An action's intent shows over the page while it runs, as an element the page can't read.
  servePage("/intent", "<title>Intent</title><button onclick=\"seen.textContent = "
                       "document.querySelector('nurel-intent') ? 'shown, ' + document.querySelector('nurel-intent').textContent.length : 'not shown'\">"
                       "Go</button><p id=seen></p>");
  EXPECT_EQ(headed.nurel({"navigate", tab, url("/intent")}).status, 0);
  std::string button = refOn(headed.nurel({"snapshot", tab}).out, "button \"Go\"");
  EXPECT_EQ(headed.nurel({"click", tab, button, "--intent", "Pressing go"}).status, 0);
  EXPECT_EQ(headed.nurel({"eval", tab, "return seen.textContent"}).out, "shown, 0\n");
  // The back end's own words are no part of the page the agent reads.
  std::string after = headed.nurel({"snapshot", tab}).out;
  EXPECT_EQ(after.find("Pressing go"), std::string::npos) << after;
}

}  // namespace
}  // namespace nurel::testing
