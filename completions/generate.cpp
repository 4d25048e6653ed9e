// completions/generate.cpp: the build step that writes the shell completions and the manual
// page from the command table compiled into nurel.
//
//   nurel_generate <nurel.bash> <_nurel> <nurel.fish> <nurel.1.in> <nurel.1>
#include <fstream>
#include <iostream>
#include <sstream>
#include <string>

#include "cli/usage.h"
#include "completions/manual.h"
#include "completions/shells.h"

namespace {

void writeText(const std::string& path, const std::string& text) {
  std::ofstream file(path, std::ios::binary | std::ios::trunc);
  file << text;
  file.close();
  if (!file) throw std::runtime_error("couldn't write " + path);
}

std::string readText(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  std::ostringstream text;
  text << file.rdbuf();
  if (!file) throw std::runtime_error("couldn't read " + path);
  return text.str();
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 6) {
    std::cerr << "usage: nurel_generate <nurel.bash> <_nurel> <nurel.fish> <nurel.1.in> "
                 "<nurel.1>\n";
    return 2;
  }
  try {
    std::vector<nurel::UsageEntry> entries = nurel::usageEntries();
    nurel::CompletionModel completion = nurel::completionModel(entries);
    writeText(argv[1], nurel::bashCompletion(completion));
    writeText(argv[2], nurel::zshCompletion(completion));
    writeText(argv[3], nurel::fishCompletion(completion));
    writeText(argv[5], nurel::manualPage(readText(argv[4]), entries));
  } catch (const std::exception& error) {
    std::cerr << "nurel_generate: " << error.what() << "\n";
    return 1;
  }
  return 0;
}
