// tests/fake_browser_main.cpp: the fake browser as a program of its own, for tests that start
// it as the browser's executable and for benchmarks.
//
//   nurel_fake_browser <socket> [<script file> [<record file>]]
//
// Serves until the script says !exit, or until it has been idle for 30 seconds. The script
// file holds one action per line (see fake_browser.h); each request line received is appended
// to the record file.
#include <fstream>
#include <iostream>
#include <thread>

#include "tests/fake_browser.h"

int main(int argc, char** argv) {
  if (argc < 2) {
    std::cerr << "usage: nurel_fake_browser <socket> [<script> [<record>]]\n";
    return 2;
  }
  std::vector<std::string> script;
  if (argc > 2) {
    std::ifstream in(argv[2]);
    for (std::string line; std::getline(in, line);)
      if (!line.empty()) script.push_back(line);
  }
  nurel::testing::FakeBrowser browser(nurel::testing::At{argv[1]}, script);
  size_t seen = 0;
  auto record = [&] {
    auto requests = browser.requests();
    if (argc > 3 && requests.size() > seen) {
      std::ofstream out(argv[3], std::ios::app);
      for (size_t i = seen; i < requests.size(); ++i) out << requests[i] << "\n";
    }
    bool fresh = requests.size() > seen;
    seen = requests.size();
    return fresh;
  };
  for (int idle = 0; !browser.finished() && idle < 1500;) {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    idle = record() ? 0 : idle + 1;
  }
  record();
  return 0;
}
