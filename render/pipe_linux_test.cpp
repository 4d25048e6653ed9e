// render/pipe_linux_test.cpp: large outputs grow the pipe they go to, and nothing else changes.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>
#include <thread>

#include "render/pipe.h"
#include "render/render.h"

namespace nurel {
namespace {

// A pipe whose reading end is drained on a thread; `received` is complete once joined.
struct DrainedPipe {
  DrainedPipe() {
    EXPECT_EQ(0, pipe2(ends, O_CLOEXEC));
    reader = std::thread([this] {
      char block[65536];
      for (ssize_t got; (got = read(ends[0], block, sizeof block)) > 0;)
        received.append(block, size_t(got));
    });
  }
  ~DrainedPipe() {
    finish();
    close(ends[0]);
  }
  void finish() {
    if (ends[1] >= 0) close(ends[1]);
    ends[1] = -1;
    if (reader.joinable()) reader.join();
  }
  int size() const { return fcntl(ends[1], F_GETPIPE_SZ); }

  int ends[2] = {-1, -1};
  std::thread reader;
  std::string received;
};

std::string bytes(size_t size) {
  std::string out(size, '\0');
  for (size_t i = 0; i < size; ++i) out[i] = char('a' + i % 23);
  return out;
}

TEST(LargeOutput, AWriteOfAMebibyteGrowsThePipeAndArrivesWhole) {
  DrainedPipe pipe;
  ASSERT_EQ(65536, pipe.size());
  std::string text = bytes(largeOutput);
  EXPECT_TRUE(writeAll(pipe.ends[1], text));
  EXPECT_EQ(int(largeOutput), pipe.size());
  pipe.finish();
  EXPECT_EQ(text, pipe.received);
}

TEST(LargeOutput, SmallerWritesLeaveThePipeAsItIs) {
  DrainedPipe pipe;
  std::string text = bytes(largeOutput - 1);
  EXPECT_TRUE(writeAll(pipe.ends[1], text));
  EXPECT_EQ(65536, pipe.size());
  pipe.finish();
  EXPECT_EQ(text, pipe.received);
}

TEST(LargeOutput, AFileIsWrittenAsBefore) {
  char name[] = "/tmp/nurel-pipe-test.XXXXXX";
  int file = mkostemp(name, O_CLOEXEC);
  ASSERT_GE(file, 0);
  unlink(name);
  std::string text = bytes(largeOutput + 5);
  EXPECT_TRUE(writeAll(file, text));
  EXPECT_EQ(off_t(text.size()), lseek(file, 0, SEEK_CUR));
  close(file);
}

}  // namespace
}  // namespace nurel
