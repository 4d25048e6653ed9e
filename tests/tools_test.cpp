// tests/tools_test.cpp: the rest of what the tools promise, against real Chromium: media,
// scenarios, and the person.
#include <gtest/gtest.h>

#include <cmath>
#include <filesystem>

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

std::string base64(const std::string& bytes) {
  static const char* digits = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string out;
  for (size_t i = 0; i < bytes.size(); i += 3) {
    uint32_t group = uint32_t(uint8_t(bytes[i])) << 16;
    if (i + 1 < bytes.size()) group |= uint32_t(uint8_t(bytes[i + 1])) << 8;
    if (i + 2 < bytes.size()) group |= uint32_t(uint8_t(bytes[i + 2]));
    out += digits[group >> 18 & 63];
    out += digits[group >> 12 & 63];
    out += i + 1 < bytes.size() ? digits[group >> 6 & 63] : '=';
    out += i + 2 < bytes.size() ? digits[group & 63] : '=';
  }
  return out;
}

TEST(Media, PlaysPausesSeeksAndSaysHowItIs) {
  // From a data: address, which can be sought through as a file can.
  servePage("/player", "<title>Player</title><audio aria-label=tone.wav controls src='data:audio/wav;base64," +
                           base64(tone(5)) + "'></audio>"
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

}  // namespace
}  // namespace nurel::testing
