// browser/framing_test.cpp: splitting DevTools messages and request lines, and the pipe itself.
#include "browser/framing.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <thread>
#include <vector>

#include "browser/chromium.h"

namespace nurel::browser {
namespace {

std::vector<std::string> feedAll(Framing& framing, const std::vector<std::string>& reads,
                                 bool* fits = nullptr) {
  std::vector<std::string> messages;
  bool ok = true;
  for (const auto& bytes : reads)
    ok = ok && framing.feed(bytes, [&](std::string_view m) { messages.emplace_back(m); });
  if (fits) *fits = ok;
  return messages;
}

TEST(Framing, AMessageSplitAcrossReads) {
  Framing framing('\0', 100);
  using namespace std::string_literals;
  EXPECT_EQ(feedAll(framing, {"{\"id\"", ":1", "}\0"s}), std::vector<std::string>{"{\"id\":1}"});
  EXPECT_EQ(framing.pending(), 0u);
}

TEST(Framing, SeveralMessagesAndThePartOfAnotherInOneRead) {
  Framing framing('\0', 100);
  using namespace std::string_literals;
  EXPECT_EQ(feedAll(framing, {"a\0b\0\0c"s}), (std::vector<std::string>{"a", "b", ""}));
  EXPECT_EQ(framing.pending(), 1u);
  EXPECT_EQ(feedAll(framing, {"d\0"s}), std::vector<std::string>{"cd"});
}

TEST(Framing, LinesEndAtLineFeedsOnly) {
  Framing framing('\n', 100);
  using namespace std::string_literals;
  EXPECT_EQ(feedAll(framing, {"{\"a\":\"x\0y\"}\n{}\n"s}),
            (std::vector<std::string>{"{\"a\":\"x\0y\"}"s, "{}"}));
}

TEST(Framing, AMessageOverSixtyFourMiBComesWhole) {
  Framing framing('\0', PipeTransport::maxMessage);
  std::string big(65 << 20, 'x');
  std::vector<std::string> reads;
  for (size_t at = 0; at < big.size(); at += 1 << 20) reads.push_back(big.substr(at, 1 << 20));
  reads.push_back(std::string(1, '\0'));
  auto messages = feedAll(framing, reads);
  ASSERT_EQ(messages.size(), 1u);
  EXPECT_EQ(messages[0].size(), big.size());
}

TEST(Framing, PastTheLimitItSaysSoAndDropsWhatItHeld) {
  Framing framing('\n', 8);
  bool fits = true;
  EXPECT_TRUE(feedAll(framing, {"12345678"}, &fits).empty());
  EXPECT_TRUE(fits);
  feedAll(framing, {"9"}, &fits);
  EXPECT_FALSE(fits);
  EXPECT_EQ(framing.pending(), 0u);
  EXPECT_EQ(feedAll(framing, {"ok\n"}), std::vector<std::string>{"ok"});
}

TEST(PipeTransport, CarriesMessagesBothWaysAndEndsWhenThePipeCloses) {
  int toBrowser[2], fromBrowser[2];
  ASSERT_EQ(pipe(toBrowser), 0);
  ASSERT_EQ(pipe(fromBrowser), 0);
  PipeTransport transport(toBrowser[1], fromBrowser[0]);
  ASSERT_TRUE(transport.send("{\"id\":1}"));
  char got[16] = {};
  ASSERT_EQ(read(toBrowser[0], got, sizeof got), 9);
  EXPECT_EQ(std::string(got, 9), std::string("{\"id\":1}\0", 9));
  using namespace std::string_literals;
  std::string from = "{\"a\":1}\0{\"b\":2}\0"s;
  ASSERT_EQ(write(fromBrowser[1], from.data(), from.size()), ssize_t(from.size()));
  close(fromBrowser[1]);
  std::vector<std::string> messages;
  std::string reason = transport.receive([&](std::string_view m) { messages.emplace_back(m); });
  EXPECT_EQ(messages, (std::vector<std::string>{"{\"a\":1}", "{\"b\":2}"}));
  EXPECT_EQ(reason, "Chromium closed the pipe");
  close(toBrowser[0]);
  signal(SIGPIPE, SIG_IGN);  // as nurel-browser does
  EXPECT_FALSE(transport.send("{}"));
}

TEST(PipeTransport, ShutEndsAReceiveThatWaits) {
  int toBrowser[2], fromBrowser[2];
  ASSERT_EQ(pipe(toBrowser), 0);
  ASSERT_EQ(pipe(fromBrowser), 0);
  PipeTransport transport(toBrowser[1], fromBrowser[0]);
  std::string reason;
  std::thread reader([&] { reason = transport.receive([](std::string_view) {}); });
  transport.shut();
  reader.join();
  EXPECT_EQ(reason, "the back end stopped Chromium");
  close(toBrowser[0]);
  close(fromBrowser[1]);
}

}  // namespace
}  // namespace nurel::browser
