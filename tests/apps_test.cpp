// tests/apps_test.cpp: what an agent pays on real apps: routers that move within the page,
// long articles read a screen at a time, labels with their values, controls named by what
// stands around them. The pages are in tests/pages/.
#include <gtest/gtest.h>

#include "tests/browser_fixture.h"

namespace nurel::testing {
namespace {

std::string page(const std::string& name) { return fileText(NUREL_TEST_DIR "/pages/" + name); }

// A link that changes only the fragment, in an app routed by it: answered once the router has
// drawn, saying the page stayed; back, forward and navigate within the document alike.
TEST(Apps, AHashRouterMovesWithinThePage) {
  servePage("/todo", page("todo-hash.html"));
  std::string tab = shared().open(url("/todo"));
  std::string s = shared().nurel({"snapshot", tab, "--interactive"}).out;
  std::string active = refOn(s, "link \"Active\"");
  ASSERT_NE(active, "") << s;
  Outcome went = shared().nurel({"click", tab, active});
  EXPECT_EQ(went.out, "clicked link \"Active\" [ref=" + active + "]; the page went to " +
                          url("/todo#/active") + " \"Todos\" (same page)\n") << went.err;
  std::string now = shared().nurel({"snapshot", tab}).out;
  EXPECT_NE(now.find("walk the dog"), std::string::npos) << now;
  EXPECT_EQ(now.find("buy milk"), std::string::npos) << now;

  EXPECT_EQ(shared().nurel({"navigate", tab, url("/todo#/completed")}).out,
            tab + " " + url("/todo#/completed") + " \"Todos\" (same page)\n");
  now = shared().nurel({"snapshot", tab}).out;
  EXPECT_EQ(now.find("walk the dog"), std::string::npos) << now;
  EXPECT_NE(now.find("buy milk"), std::string::npos) << now;

  EXPECT_EQ(shared().nurel({"back", tab}).out, tab + " " + url("/todo#/active") + " \"Todos\" (same page)\n");
  EXPECT_EQ(shared().nurel({"forward", tab}).out, tab + " " + url("/todo#/completed") + " \"Todos\" (same page)\n");
  // A real load is still a load.
  EXPECT_EQ(shared().nurel({"back", tab}).status, 0);
  EXPECT_EQ(shared().nurel({"back", tab}).out, tab + " " + url("/todo") + " \"Todos\" (same page)\n");
  servePage("/todo-second", "<title>Second</title><p>Another document");
  EXPECT_EQ(shared().nurel({"navigate", tab, url("/todo-second")}).out, tab + " " + url("/todo-second") + " \"Second\"\n");
  EXPECT_EQ(shared().nurel({"back", tab}).out, tab + " " + url("/todo") + " \"Todos\"\n");
}

// A router of the history API (pushState, replaceState) and the Navigation API's intercepted
// navigations: each answered once the view is drawn, as within the page.
TEST(Apps, AHistoryRouterMovesWithinThePage) {
  servePage("/app/", page("router-push.html"));
  std::string tab = shared().open(url("/app/"));
  std::string s = shared().nurel({"snapshot", tab}).out;
  std::string orders = refOn(s, "link \"Orders\"");
  EXPECT_EQ(shared().nurel({"click", tab, orders}).out,
            "clicked link \"Orders\" [ref=" + orders + "]; the page went to " + url("/app/orders") +
                " \"Shop: orders\" (same page)\n");
  // What the view drew a moment after the address changed is there.
  std::string now = shared().nurel({"snapshot", tab}).out;
  EXPECT_NE(now.find("3 orders, the last on 2 May"), std::string::npos) << now;
  std::string sort = refOn(s, "button \"Sort by date\"");
  EXPECT_EQ(shared().nurel({"click", tab, sort}).out,
            "clicked button \"Sort by date\" [ref=" + sort + "]; the page went to " +
                url("/app/orders?sort=date") + " \"Shop: sorted\" (same page)\n");
  std::string settings = refOn(s, "button \"Settings\"");
  EXPECT_EQ(shared().nurel({"click", tab, settings}).out,
            "clicked button \"Settings\" [ref=" + settings + "]; the page went to " +
                url("/app/settings") + " \"Shop: settings\" (same page)\n");
  EXPECT_EQ(shared().nurel({"back", tab}).out, tab + " " + url("/app/orders?sort=date") + " \"Shop: orders\" (same page)\n");
  // Refs of the document stay good: it is the same page.
  std::string account = refOn(s, "link \"Account\"");
  EXPECT_EQ(shared().nurel({"click", tab, account}).status, 0);
  EXPECT_NE(shared().nurel({"find", tab, "Balance"}).out.find("42.50 EUR"), std::string::npos);
}

}  // namespace
}  // namespace nurel::testing
