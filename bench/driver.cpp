// bench/driver.cpp: runs the benchmark figures and prints them.
//
//   nurel_bench --nurel <nurel> --floor <floor> --runner <run> --relay <relay>
//               [--dynamic-floor <floor>] [--node <name>=<script> ...] [--figures 1234] [--starts
//               300] [--node-runs 5]
//               [--runs 5] [--sizes 16,64,256] [--calls 10000]
//
// Every figure measures its baseline in the same run, interleaved with the program, and
// prints median, min and max and the ratio of the medians. Run on demand (bench/run.sh),
// never as a test: the figures depend on the machine and on what else runs on it.
#include <sys/stat.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <map>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "bench/browser.h"
#include "bench/process.h"

namespace bench {

namespace {

struct Options {
  std::string nurel, floor, runner, relay;
  std::string dynamicFloor;  // optional: the same empty program, linked against libc.so
  std::vector<std::pair<std::string, std::string>> node;
  std::string figures = "1234";
  int starts = 300, nodeRuns = 5, runs = 5, calls = 10000;
  std::vector<int> sizes = {16, 64, 256};
};

// A list of measurements, in milliseconds.
struct Series {
  std::vector<double> values;

  void add(int64_t nanoseconds) { values.push_back(double(nanoseconds) / 1e6); }
  double at(double fraction) const {
    std::vector<double> sorted = values;
    std::sort(sorted.begin(), sorted.end());
    if (sorted.empty()) return 0;
    size_t index = size_t(fraction * double(sorted.size() - 1) + 0.5);
    return sorted[std::min(index, sorted.size() - 1)];
  }
  double median() const { return at(0.5); }
  double min() const { return at(0); }
  double max() const { return at(1); }
};

std::string format(const char* pattern, double a, double b = 0, double c = 0) {
  char text[160];
  std::snprintf(text, sizeof text, pattern, a, b, c);
  return text;
}

// "label  median [min .. max] ms  n=N" with `scale` converting milliseconds to the unit.
void row(const std::string& label, const Series& series, const std::string& note = "",
         double scale = 1, const char* unit = "ms") {
  std::printf("   %-38s %9.3f %s [%.3f .. %.3f]  n=%zu%s%s\n", label.c_str(),
              series.median() * scale, unit, series.min() * scale, series.max() * scale,
              series.values.size(), note.empty() ? "" : "  ", note.c_str());
}

std::string verdict(bool met) { return met ? "met" : "MISSED"; }

void check(bool ok, const std::string& what) {
  if (!ok) throw std::runtime_error(what);
}

std::string loadAverage() {
  std::ifstream in("/proc/loadavg");
  std::string a, b, c;
  in >> a >> b >> c;
  return a + " " + b + " " + c;
}

// The reply to "tabs": one tab, as a browser lists it.
const std::string tabsReply =
    R"(,"result":[{"id":"t1","title":"Example Domain","url":"https://example.com/"}]})"
    "\n";

const std::string initialize =
    R"({"jsonrpc":"2.0","id":1,"method":"initialize","params":{"protocolVersion":"2025-06-18",)"
    R"("capabilities":{},"clientInfo":{"name":"nurel-bench","version":"1"}}})"
    "\n";
const std::string listTools = R"({"jsonrpc":"2.0","method":"notifications/initialized"})"
                              "\n"
                              R"({"jsonrpc":"2.0","id":2,"method":"tools/list"})"
                              "\n";

std::string toolCall(int64_t id, const std::string& name, const std::string& arguments) {
  return R"({"jsonrpc":"2.0","id":)" + std::to_string(id) +
         R"(,"method":"tools/call","params":{"name":")" + name + R"(","arguments":)" + arguments +
         "}}\n";
}

size_t count(const std::string& text, const std::string& word) {
  size_t found = 0;
  for (size_t at = text.find(word); at != std::string::npos; at = text.find(word, at + 1)) ++found;
  return found;
}

// The program `name` as found on PATH.
std::string which(const std::string& name) {
  const char* path = std::getenv("PATH");
  std::stringstream folders(path ? path : "/usr/bin");
  for (std::string folder; std::getline(folders, folder, ':');)
    if (access((folder + "/" + name).c_str(), X_OK) == 0) return folder + "/" + name;
  throw std::runtime_error(name + " is not on PATH");
}

struct Context {
  Options options;
  Browser& browser;
  std::string dir;
  std::string socketEnv() const { return "NUREL_SOCKET=" + browser.socket(); }
};

// The empty program linked against the C library as a shared object: what loading a shared
// library costs any dynamically linked program, shown beside the figures for reference.
struct DynamicFloor {
  Launch launch;
  Series times;
  bool wanted() const { return !launch.argv.empty(); }
  void measure() {
    if (wanted()) times.add(timeRun(launch));
  }
  void show(double median) const {
    if (!wanted()) return;
    row("floor, dynamically linked (libc.so)", times,
        format("nurel is %.2fx this", median / times.median()));
  }
};

DynamicFloor dynamicFloor(const Options& o) {
  DynamicFloor floor;
  if (!o.dynamicFloor.empty()) floor.launch = {{o.dynamicFloor}, {}, false, ""};
  return floor;
}

// 1) One command end to end.

void figureCommand(Context& context) {
  const Options& o = context.options;
  context.browser.answerWith(tabsReply);
  Launch floor{{o.floor}, {}, false, ""};
  Launch tabs{{o.nurel, "tabs"}, {context.socketEnv()}, false, ""};
  {
    Child shown({tabs.argv, tabs.env, true, ""});
    std::string head;
    std::string all;
    while (shown.line(&head, nullptr, 4096) >= 0) all += head + "\n";
    check(shown.wait() == 0 && all.find("\"id\": \"t1\"") != std::string::npos,
          "nurel tabs did not print the tab: " + all);
  }
  DynamicFloor shared = dynamicFloor(o);
  for (int i = 0; i < 20; ++i) timeRun(floor), shared.measure(), timeRun(tabs);
  shared.times.values.clear();
  Series floorTimes, tabsTimes;
  for (int i = 0; i < o.starts; ++i) {
    floorTimes.add(timeRun(floor));
    shared.measure();
    int64_t took = timeRun(tabs);
    check(took > 0, "nurel tabs failed");
    tabsTimes.add(took);
  }
  Child measured({tabs.argv, tabs.env, false, o.runner});
  measured.wait();
  double ratio = tabsTimes.median() / floorTimes.median();
  std::printf(
      "\n1) one command end to end: `nurel tabs`, start to reaping, browser answers at once\n");
  row("floor: static C program, start to reaping", floorTimes);
  row("nurel tabs", tabsTimes,
      format("%.2fx floor", ratio) + " (goal <= 2x: " + verdict(ratio <= 2) + ")");
  shared.show(tabsTimes.median());
  std::printf("   %-38s %9.1f MiB\n", "nurel tabs peak RSS", double(measured.peakKiB()) / 1024);
}

// 2) The MCP server's start: process start to the answers to initialize and tools/list.

struct Handshake {
  int64_t took = -1;
  size_t tools = 0;
};

Handshake handshake(const Launch& launch, long* peakKiB) {
  Child server(launch);
  int64_t start = server.startedAt();
  std::string head, tail;
  check(server.send(initialize), launch.argv[0] + " did not read initialize");
  server.line(&head, &tail, 1 << 20);
  check(head.find("\"result\"") != std::string::npos,
        launch.argv.back() + ": no answer to initialize");
  check(server.send(listTools), launch.argv[0] + " did not read tools/list");
  server.line(&head, &tail, 16 << 20);
  Handshake done;
  done.took = now() - start;
  done.tools = count(head, "\"inputSchema\"");
  check(done.tools > 0, launch.argv.back() + ": no tools in the answer to tools/list");
  server.wait(5);
  if (peakKiB) *peakKiB = server.peakKiB();
  return done;
}

void figureServer(Context& context) {
  const Options& o = context.options;
  Launch floor{{o.floor}, {}, false, ""};
  Launch mcp{{o.nurel, "mcp"}, {context.socketEnv()}, true, ""};
  Launch mcpMeasured = mcp;
  mcpMeasured.runner = o.runner;
  DynamicFloor shared = dynamicFloor(o);
  for (int i = 0; i < 20; ++i) timeRun(floor), shared.measure(), handshake(mcp, nullptr);
  shared.times.values.clear();
  Series floorTimes, mcpTimes;
  size_t tools = 0;
  for (int i = 0; i < o.starts; ++i) {
    floorTimes.add(timeRun(floor));
    shared.measure();
    Handshake done = handshake(mcp, nullptr);
    mcpTimes.add(done.took);
    tools = done.tools;
  }
  long mcpPeak = 0;
  handshake(mcpMeasured, &mcpPeak);
  double ratio = mcpTimes.median() / floorTimes.median();
  std::printf("\n2) MCP server: process start to the answers to initialize and tools/list\n");
  row("floor: static C program, start to reaping", floorTimes);
  row("nurel mcp (" + std::to_string(tools) + " tools)", mcpTimes,
      format("%.2fx floor", ratio) + " (goal <= 3x: " + verdict(ratio <= 3) + ")");
  shared.show(mcpTimes.median());
  std::printf("   %-38s %9.1f MiB\n", "nurel mcp peak RSS", double(mcpPeak) / 1024);
  for (auto& [name, script] : o.node) {
    Launch server{{which("node"), script}, {}, true, o.runner};
    // Its defaults send usage statistics over the network and start a process that asks the
    // npm registry for a newer version.
    if (name == "chrome-devtools-mcp") {
      server.argv.push_back("--no-usage-statistics");
      server.env.push_back("CHROME_DEVTOOLS_MCP_NO_UPDATE_CHECKS=1");
    }
    Series times;
    std::vector<double> peaks;
    for (int i = 0; i < o.nodeRuns; ++i) {
      long peak = 0;
      Handshake done = handshake(server, &peak);
      times.add(done.took);
      peaks.push_back(double(peak) / 1024);
      tools = done.tools;
    }
    std::sort(peaks.begin(), peaks.end());
    double peak = peaks[peaks.size() / 2];
    double faster = times.median() / mcpTimes.median();
    double smaller = peak / (double(mcpPeak) / 1024);
    row("node " + name + " (" + std::to_string(tools) + " tools)", times,
        format("nurel %.0fx faster", faster) + " (goal >= 100x: " + verdict(faster >= 100) + ")");
    std::printf("   %-38s %9.1f MiB  nurel uses 1/%.0f (goal <= 1/20: %s)\n",
                ("node " + name + " peak RSS").c_str(), peak, smaller,
                verdict(smaller >= 20).c_str());
  }
}

// 3) A large reply relayed.

// `{"png":"<size bytes of base64>"}` as the rest of a reply.
std::string screenshotReply(size_t size) {
  static const char alphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string text = R"(,"result":{"png":")";
  size_t start = text.size();
  text.resize(start + size);
  uint64_t state = 0x9e3779b97f4a7c15u;
  for (size_t i = 0; i < size; i += 8) {
    state ^= state << 13, state ^= state >> 7, state ^= state << 17;
    for (size_t j = 0; j < 8 && i + j < size; ++j)
      text[start + i + j] = alphabet[(state >> (6 * j)) & 63];
  }
  text += R"("}})";
  text += '\n';
  return text;
}

struct Relayed {
  Series relay, mcp, file;
  double mcpPeak = 0, filePeak = 0;  // MiB, the largest of the runs
  double reply = 0;                  // MiB
};

int64_t relayOnce(Context& context, const std::string& request, int64_t expected) {
  Child relay({{context.options.relay, context.browser.socket()}, {}, true, ""});
  relay.send(request);
  int64_t length = relay.line();
  int64_t stop = now();
  check(length == expected, "the relay moved " + std::to_string(length) + " bytes");
  relay.wait();
  return stop - context.browser.lastReplyStart();
}

int64_t serverOnce(Context& context, size_t size, double* peak) {
  Child server(
      {{context.options.nurel, "mcp"}, {context.socketEnv()}, true, context.options.runner});
  server.send(toolCall(1, "screenshot", R"({"tab":"t1"})"));
  std::string head, tail;
  int64_t length = server.line(&head, &tail);
  int64_t stop = now();
  check(length > int64_t(size) && length < int64_t(size) + 200 &&
            tail.find("image/png") != std::string::npos,
        "nurel mcp answered " + head.substr(0, 200));
  check(server.wait() == 0, "nurel mcp failed");
  *peak = std::max(*peak, double(server.peakKiB()) / 1024);
  return stop - context.browser.lastReplyStart();
}

int64_t fileOnce(Context& context, size_t size, double* peak) {
  std::string path = context.dir + "/shot.png";
  Child command({{context.options.nurel, "screenshot", "t1", "--file", path},
                 {context.socketEnv()},
                 false,
                 context.options.runner});
  check(command.wait() == 0, "nurel screenshot --file failed");
  struct stat info {};
  check(stat(path.c_str(), &info) == 0 && size_t(info.st_size) == size / 4 * 3,
        "nurel screenshot --file wrote the wrong size");
  unlink(path.c_str());
  *peak = std::max(*peak, double(command.peakKiB()) / 1024);
  return command.endedAt() - context.browser.lastReplyStart();
}

Relayed relayed(Context& context, int mebibytes) {
  size_t size = size_t(mebibytes) << 20;
  Relayed out;
  std::string reply = screenshotReply(size);
  // The whole line, {"id":1 included; the line feed is not counted.
  int64_t expected = int64_t(reply.size()) + 7 - 1;
  out.reply = double(expected + 1) / (1 << 20);
  context.browser.answerWith(std::move(reply));
  std::string request = R"({"id":1,"method":"screenshot","params":{"tab":"t1"}})"
                        "\n";
  for (int i = 0; i < context.options.runs; ++i) {
    out.relay.add(relayOnce(context, request, expected));
    out.mcp.add(serverOnce(context, size, &out.mcpPeak));
    out.file.add(fileOnce(context, size, &out.filePeak));
  }
  context.browser.answerWith(tabsReply);
  return out;
}

void figureRelay(Context& context) {
  std::printf(
      "\n3) a screenshot reply relayed: the browser's first byte to the host's last byte\n");
  std::printf(
      "   baseline: the same bytes through a Unix socket and a pipe, plain reads and writes\n");
  std::vector<std::pair<int, Relayed>> all;
  for (int mebibytes : context.options.sizes) {
    Relayed one = relayed(context, mebibytes);
    std::printf("   %d MiB of base64 (reply line %.1f MiB)\n", mebibytes, one.reply);
    double mcpRatio = one.mcp.median() / one.relay.median();
    double fileRatio = one.file.median() / one.relay.median();
    row("baseline: socket and pipe copy", one.relay,
        format("%.2f GB/s", one.reply * 1.048576 / one.relay.median()));
    row("nurel mcp, tools/call screenshot", one.mcp,
        format("%.2fx baseline", mcpRatio) + " (goal <= 3x: " + verdict(mcpRatio <= 3) + ")" +
            format(", peak RSS %.0f MiB = %.2fx reply", one.mcpPeak, one.mcpPeak / one.reply) +
            " (goal <= 3x: " + verdict(one.mcpPeak <= 3 * one.reply) + ")");
    row("nurel screenshot --file (decode, write)", one.file,
        format("%.2fx baseline", fileRatio) + " (goal <= 3x: " + verdict(fileRatio <= 3) + ")" +
            format(", peak RSS %.0f MiB = %.2fx reply", one.filePeak, one.filePeak / one.reply) +
            " (goal <= 3x: " + verdict(one.filePeak <= 3 * one.reply) + ")");
    all.emplace_back(mebibytes, std::move(one));
  }
  for (size_t i = 1; i < all.size(); ++i) {
    const Relayed& small = all[i - 1].second;
    const Relayed& large = all[i].second;
    double step = double(all[i].first) / all[i - 1].first;
    double mcp = large.mcp.median() / small.mcp.median();
    double file = large.file.median() / small.file.median();
    double relay = large.relay.median() / small.relay.median();
    double limit = step * 1.1;
    std::printf(
        "   growth %d -> %d MiB (%.0fx size): baseline %.2fx, mcp %.2fx, --file %.2fx"
        " (goal <= %.1fx: %s)\n",
        all[i - 1].first, all[i].first, step, relay, mcp, file, limit,
        verdict(mcp <= limit && file <= limit).c_str());
    // On a busy machine the medians of large copies swing with what the neighbours do, and
    // when the baseline itself does not grow linearly, the fastest runs say more about nurel.
    std::printf("     the same, fastest runs: baseline %.2fx, mcp %.2fx, --file %.2fx\n",
                large.relay.min() / small.relay.min(), large.mcp.min() / small.mcp.min(),
                large.file.min() / small.file.min());
  }
}

// 4) A small tool call's own cost, over one connection.

void figureCalls(Context& context) {
  const Options& o = context.options;
  context.browser.answerWith(tabsReply);
  Child server({{o.nurel, "mcp"}, {context.socketEnv()}, true, ""});
  Child relay({{o.relay, context.browser.socket()}, {}, true, ""});
  int64_t serverID = 0, relayID = 0;
  std::string head;
  auto viaServer = [&] {
    int64_t start = now();
    server.send(toolCall(++serverID, "list_tabs", "{}"));
    server.line(&head, nullptr, 512);
    int64_t took = now() - start;
    check(head.find("Example Domain") != std::string::npos &&
              head.find("isError") == std::string::npos,
          "nurel mcp answered " + head);
    return took;
  };
  auto viaRelay = [&] {
    int64_t start = now();
    relay.send(R"({"id":)" + std::to_string(++relayID) +
               R"(,"method":"tabs","params":{}})"
               "\n");
    relay.line(&head, nullptr, 512);
    int64_t took = now() - start;
    check(head.find("Example Domain") != std::string::npos, "the relay answered " + head);
    return took;
  };
  for (int i = 0; i < 200; ++i) viaServer(), viaRelay();
  // One call each in turn, so that a busy moment of the machine hits both alike.
  Series serverTimes, relayTimes;
  for (int i = 0; i < o.calls; ++i) {
    serverTimes.add(viaServer());
    relayTimes.add(viaRelay());
  }
  check(server.wait() == 0, "nurel mcp failed");
  relay.wait();
  std::printf("\n4) %d tools/calls of list_tabs over one connection, browser answers at once\n",
              o.calls);
  std::printf("   baseline: the same exchange through a process that only copies bytes\n");
  row("baseline: one round trip through a copier", relayTimes,
      format("p99 %.1f us", relayTimes.at(0.99) * 1000), 1000, "us");
  row("nurel mcp: one tools/call", serverTimes, format("p99 %.1f us", serverTimes.at(0.99) * 1000),
      1000, "us");
  std::printf("   %-38s median %.1f us, p99 %.1f us per call\n", "added by nurel",
              (serverTimes.median() - relayTimes.median()) * 1000,
              (serverTimes.at(0.99) - relayTimes.at(0.99)) * 1000);
}

Options parse(int argc, char** argv) {
  Options o;
  std::map<std::string, std::string*> texts = {
      {"--nurel", &o.nurel}, {"--floor", &o.floor},     {"--runner", &o.runner},
      {"--relay", &o.relay}, {"--figures", &o.figures}, {"--dynamic-floor", &o.dynamicFloor}};
  std::map<std::string, int*> numbers = {{"--starts", &o.starts},
                                         {"--node-runs", &o.nodeRuns},
                                         {"--runs", &o.runs},
                                         {"--calls", &o.calls}};
  for (int i = 1; i + 1 < argc; i += 2) {
    std::string name = argv[i], value = argv[i + 1];
    if (texts.count(name)) {
      *texts[name] = value;
    } else if (numbers.count(name)) {
      *numbers[name] = std::stoi(value);
    } else if (name == "--node") {
      auto equals = value.find('=');
      check(equals != std::string::npos, "--node takes <name>=<script>");
      o.node.emplace_back(value.substr(0, equals), value.substr(equals + 1));
    } else if (name == "--sizes") {
      o.sizes.clear();
      std::stringstream list(value);
      for (std::string item; std::getline(list, item, ',');) o.sizes.push_back(std::stoi(item));
    } else {
      throw std::runtime_error("unknown option " + name);
    }
  }
  check(!o.nurel.empty() && !o.floor.empty() && !o.runner.empty() && !o.relay.empty(),
        "usage: nurel_bench --nurel <path> --floor <path> --runner <path> --relay <path> ...");
  return o;
}

void header(const Options& o) {
  utsname system{};
  uname(&system);
  std::printf("nurel benchmarks: %s %s %s, %u CPUs, load average %s\n", system.sysname,
              system.release, system.machine, std::thread::hardware_concurrency(),
              loadAverage().c_str());
  std::printf(
      "times: median [min .. max] over n runs; ratios compare medians measured in this run\n");
  std::printf("nurel: %s\n", o.nurel.c_str());
}

}  // namespace

// `nurel_bench --serve <socket> [<MiB>]`: the fake browser alone, until killed, for measuring
// by hand (perf, hyperfine): it answers with the tab list, or with a screenshot of that size.
int serve(const std::string& socket, int mebibytes) {
  Browser browser(socket);
  browser.answerWith(mebibytes > 0 ? screenshotReply(size_t(mebibytes) << 20) : tabsReply);
  for (;;) pause();
}

int run(int argc, char** argv) {
  try {
    if (argc >= 3 && std::string(argv[1]) == "--serve")
      return serve(argv[2], argc > 3 ? std::stoi(argv[3]) : 0);
    Options options = parse(argc, argv);
    char pattern[] = "/tmp/nurel-bench-XXXXXX";
    check(mkdtemp(pattern) != nullptr, "cannot make a temporary folder");
    std::string dir = pattern;
    {
      Browser browser(dir + "/b.sock");
      Context context{options, browser, dir};
      header(options);
      std::fflush(stdout);
      for (char figure : options.figures) {
        if (figure == '1') figureCommand(context);
        if (figure == '2') figureServer(context);
        if (figure == '3') figureRelay(context);
        if (figure == '4') figureCalls(context);
        std::fflush(stdout);
      }
    }
    rmdir(dir.c_str());
    std::printf("\nload average at the end: %s\n", loadAverage().c_str());
    return 0;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "nurel_bench: %s\n", error.what());
    return 1;
  }
}

}  // namespace bench

int main(int argc, char** argv) { return bench::run(argc, argv); }
