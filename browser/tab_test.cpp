// browser/tab_test.cpp: what a tab learns from Chromium's events, replayed from transcripts that
// Chromium 156 sent the back end (tests/transcripts/, one event a line: the tab, its target and
// the event). Each was recorded once from a tab that opened a page of three buttons and two links
// and then did what its name says.
#include "browser/tab.h"

#include <gtest/gtest.h>

#include <fstream>
#include <functional>

namespace nurel::browser {
namespace {

struct Event {
  std::string method;
  Json params;
};

std::vector<Event> transcript(const std::string& name, std::string& targetId) {
  std::ifstream file(std::string(NUREL_TEST_DIR) + "/transcripts/" + name + ".jsonl");
  std::vector<Event> events;
  std::string line;
  while (std::getline(file, line)) {
    Json recorded = Json::parse(line);
    targetId = recorded.value("targetId", "");
    events.push_back({recorded.value("method", ""), recorded.value("params", Json::object())});
  }
  return events;
}

// Replays a transcript into a fresh tab, calling `seen` after each event it applied.
void replay(Tab& tab, const std::string& name,
            const std::function<void(const Event&)>& seen = nullptr) {
  std::vector<Event> events = transcript(name, tab.targetId);
  ASSERT_FALSE(events.empty()) << name;
  for (const Event& event : events) {
    std::lock_guard<std::mutex> guard(tab.lock);
    applyEvent(tab, event.method, event.params, std::chrono::steady_clock::now());
    if (seen) seen(event);
  }
}

bool endsWith(const std::string& text, const std::string& end) {
  return text.size() >= end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
}

TEST(TabEvents, ANavigationCommitsLoadsAndEndsItsRequests) {
  Tab tab;
  std::string committed;
  replay(tab, "load", [&](const Event& event) {
    if (event.method == "Page.frameNavigated") committed = event.params["frame"].value("loaderId", "");
  });
  // about:blank went to the first page, and that to the second.
  EXPECT_EQ(tab.documents, 2u);
  EXPECT_TRUE(endsWith(tab.url, "/other.html")) << tab.url;
  EXPECT_EQ(tab.loader, committed);
  EXPECT_EQ(tab.loaded.back(), committed);
  EXPECT_EQ(tab.status[committed], 200);
  EXPECT_FALSE(tab.loading);
  EXPECT_EQ(tab.sameDocument, 0u);
  EXPECT_TRUE(tab.requests.empty());
  EXPECT_NE(tab.world, 0) << "our world in the new document";
  EXPECT_FALSE(tab.requestLog.empty());
  EXPECT_FALSE(tab.crashed || tab.gone || tab.dialog);
}

TEST(TabEvents, MovesWithinTheDocumentAreNotLoads) {
  Tab tab;
  uint64_t loadsBefore = 0, documentsBefore = 0;
  bool first = true;
  replay(tab, "same-document", [&](const Event& event) {
    // The first page's load ends the opening; what follows are a #fragment, pushState and back.
    if (first && event.method == "Page.frameStoppedLoading" && tab.loads > 0) {
      first = false;
      loadsBefore = tab.loads;
      documentsBefore = tab.documents;
    }
  });
  EXPECT_FALSE(first);
  EXPECT_EQ(tab.sameDocument, 3u);
  EXPECT_EQ(tab.loads, loadsBefore);
  EXPECT_EQ(tab.documents, documentsBefore);
  EXPECT_TRUE(endsWith(tab.url, "/index.html#second")) << tab.url;
  EXPECT_FALSE(tab.loading);
}

TEST(TabEvents, ADialogShowsUntilItIsAnswered) {
  Tab tab;
  bool shown = false;
  replay(tab, "dialog", [&](const Event& event) {
    if (event.method == "Page.javascriptDialogOpening") {
      ASSERT_TRUE(tab.dialog);
      EXPECT_EQ(tab.dialog->value("type", ""), "alert");
      EXPECT_EQ(tab.dialog->value("message", ""), "hello");
      shown = true;
    }
  });
  EXPECT_TRUE(shown);
  EXPECT_FALSE(tab.dialog);
  EXPECT_EQ(tab.dialogsOpened, 1u);
}

TEST(TabEvents, AFrameOfAnotherSiteIsAttachedThenDetached) {
  Tab tab;
  std::string frame;
  replay(tab, "frames", [&](const Event& event) {
    if (event.method == "Target.attachedToTarget") {
      frame = event.params["targetInfo"].value("targetId", "");
      ASSERT_EQ(tab.frameSessions.count(frame), 1u);
      EXPECT_EQ(tab.frameSessions[frame], event.params.value("sessionId", ""));
    }
  });
  EXPECT_FALSE(frame.empty());
  EXPECT_EQ(tab.frames.count(frame), 1u) << "a frame of the page, for its downloads";
  EXPECT_TRUE(tab.frameSessions.empty());
}

TEST(TabEvents, ACrashIsKeptAndTheReloadCommitsAgain) {
  Tab tab;
  uint64_t documentsAtCrash = 0;
  replay(tab, "crash", [&](const Event& event) {
    if (event.method == "Inspector.targetCrashed") {
      EXPECT_TRUE(tab.crashed);
      EXPECT_EQ(tab.world, 0) << "no world survives its renderer";
      documentsAtCrash = tab.documents;
    }
  });
  EXPECT_TRUE(tab.crashed) << "until reload says otherwise";
  EXPECT_EQ(tab.documents, documentsAtCrash + 1);
  EXPECT_FALSE(tab.gone);
}

TEST(TabEvents, WhatConcernsNoTabChangesNothing) {
  Tab tab;
  tab.targetId = "T";
  std::lock_guard<std::mutex> guard(tab.lock);
  EXPECT_FALSE(applyEvent(tab, "Network.dataReceived", {{"requestId", "1"}}, std::chrono::steady_clock::now()));
  // A frame of the page that isn't the main one starts and stops loading without the tab.
  EXPECT_TRUE(applyEvent(tab, "Page.frameStartedLoading", {{"frameId", "other"}}, std::chrono::steady_clock::now()));
  EXPECT_FALSE(tab.loading);
  EXPECT_EQ(tab.startedLoading, 0u);
}

}  // namespace
}  // namespace nurel::browser
