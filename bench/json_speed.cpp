// bench/json_speed.cpp: reading and writing a large reply in process, against nlohmann/json.
//
//   nurel_bench_json [<MiB>]      (default 64)
//
// Times parseDocument() and compact() on a screenshot reply of that much base64, and
// decodeBase64InPlace() on its image (the decoder a screenshot or PDF goes through), with and
// without its AVX2 loop, and the same reading and writing done by nlohmann's parse() and
// dump(); prints the best of a few runs of each, in ms of processor time and GB/s of input.
#include <time.h>

#include <cstdio>
#include <functional>
#include <string>

#include "link/json.h"
#include "render/base64.h"

namespace {

double milliseconds() {
  timespec at{};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &at);
  return double(at.tv_sec) * 1e3 + double(at.tv_nsec) / 1e6;
}

// The best of `runs` runs of `work`, in ms; `prepare` runs untimed before each.
double best(int runs, const std::function<void()>& work,
            const std::function<void()>& prepare = [] {}) {
  double fastest = 1e30;
  for (int i = 0; i < runs; ++i) {
    prepare();
    double start = milliseconds();
    work();
    fastest = std::min(fastest, milliseconds() - start);
  }
  return fastest;
}

void show(const char* what, double ms, size_t bytes) {
  std::printf("  %-36s %9.1f ms  %6.2f GB/s\n", what, ms, double(bytes) / ms / 1e6);
}

}  // namespace

int main(int argc, char** argv) {
  size_t size = size_t(argc > 1 ? std::stoi(argv[1]) : 64) << 20;
  static const char alphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string png(size, 'A');
  uint64_t state = 0x9e3779b97f4a7c15u;
  for (auto& c : png) {
    state ^= state << 13, state ^= state >> 7, state ^= state << 17;
    c = alphabet[state & 63];
  }
  std::string reply = R"({"id":1,"result":{"png":")" + png + R"(","refs":"e1 button \"OK\""}})";
  std::printf("a reply of %zu MiB of base64\n", size >> 20);
  int runs = 5;
  nurel::Json value;
  show("parseDocument", best(runs, [&] { value = nurel::parseDocument(reply); }), reply.size());
  show("compact", best(runs, [&] { nurel::compact(value); }), reply.size());
  std::string text;
  auto fresh = [&] { text = png; };
  show("decodeBase64InPlace", best(runs, [&] { nurel::decodeBase64InPlace(text); }, fresh),
       png.size());
  show("decodeBase64InPlace without AVX2",
       best(runs, [&] { nurel::decodeBase64InPlaceScalar(text); }, fresh), png.size());
  runs = 2;
  show("nlohmann parse", best(runs, [&] { value = nurel::Json::parse(reply); }), reply.size());
  show("nlohmann dump", best(runs, [&] { value.dump(); }), reply.size());
  return 0;
}
