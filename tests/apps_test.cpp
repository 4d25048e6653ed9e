// tests/apps_test.cpp: what an agent pays on real apps: routers that move within the page,
// long articles read a screen at a time, labels with their values, controls named by what
// stands around them. The pages are in tests/pages/.
#include <gtest/gtest.h>

#include <string>
#include <vector>

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


// The lines of `text`.
std::vector<std::string> linesOf(const std::string& text) {
  std::vector<std::string> lines;
  for (size_t at = 0, end; at < text.size(); at = end + 1) {
    end = text.find('\n', at);
    if (end == std::string::npos) end = text.size();
    lines.push_back(text.substr(at, end - at));
  }
  return lines;
}

// A long article opened at its top: the viewport snapshot holds what the screen shows (the
// infobox, the first paragraphs, the links in them), not the rest, and says where it is.
TEST(Apps, AViewportSnapshotIsTheScreen) {
  servePage("/article", page("article.html"));
  std::string tab = shared().open(url("/article"));
  std::string full = shared().nurel({"snapshot", tab, "--limit", "0"}).out;
  std::string screen = shared().nurel({"snapshot", tab, "--viewport"}).out;
  EXPECT_LT(screen.size(), 5000u) << screen;
  EXPECT_GT(full.size(), 10 * screen.size());
  for (const char* shown : {"- heading \"Aotera\" [level=1]", "- text: Capital: Wellington",
                            "- link \"Aotera (disambiguation)\"", "- searchbox \"Search the encyclopedia\""})
    EXPECT_NE(screen.find(shown), std::string::npos) << shown << " in\n" << screen;
  for (const char* below : {"About this article", "Kudos", "Festivals"})
    EXPECT_EQ(screen.find(below), std::string::npos) << below << " in\n" << screen;
  // Text and the links in it read as in the full snapshot.
  std::vector<std::string> lines = linesOf(screen);
  for (size_t i = 0; i + 1 < lines.size(); ++i)
    EXPECT_NE(full.find(lines[i]), std::string::npos) << lines[i];
  EXPECT_EQ(lines.back().rfind("[the screen shows 0 to ", 0), 0u) << lines.back();
  EXPECT_NE(lines.back().find(" px: nothing above, "), std::string::npos) << lines.back();
  EXPECT_NE(lines.back().find(" below; scroll to see more, or take a full snapshot]"), std::string::npos);

  // Further down: the headings that place it come first.
  ASSERT_EQ(shared().nurel({"eval", tab, "document.getElementById('Economy').scrollIntoView(); return scrollY > 0"}).out, "true\n");
  screen = shared().nurel({"snapshot", tab, "--viewport"}).out;
  lines = linesOf(screen);
  ASSERT_GT(lines.size(), 3u) << screen;
  EXPECT_EQ(lines[0], "- heading \"Aotera\" [level=1]") << screen;
  EXPECT_EQ(screen.find("Capital"), std::string::npos) << screen;
  EXPECT_NE(screen.find("heading \"Economy\" [level=2]"), std::string::npos) << screen;
  EXPECT_EQ(lines.back().find("nothing above"), std::string::npos) << lines.back();
}

// A label found comes with what it labels; in a snapshot a term and its value are one line.
TEST(Apps, ALabelComesWithItsValue) {
  servePage("/labels", page("article.html") + R"html(
<form><label for=code>Promo code</label><input id=code aria-label=Code value=SPRING>
<fieldset><legend>Delivery</legend><label><input type=radio name=d checked> Standard</label>
<label><input type=radio name=d> Express</label></fieldset>
<label>Country <select><option>Aotera<option>Elsewhere</select></label></form>
<table><tr><th>Item</th><th>Price</th></tr><tr><td>Tea</td><td>4.50</td></tr><tr><td>Cake</td><td>6.00</td></tr></table>
<p><strong>3</strong> items left</p>)html");
  std::string tab = shared().open(url("/labels"));
  auto found = [&](const std::string& text) {
    std::string said = shared().nurel({"find", tab, text}).out;
    // Without the refs, whose numbers depend on what was found before.
    for (size_t at; (at = said.find(" [ref=")) != std::string::npos;) said.erase(at, said.find(']', at) - at + 1);
    return said;
  };
  EXPECT_EQ(found("Capital"), "- rowheader \"Capital\": Wellington\n");
  EXPECT_EQ(found("Kudos"), "- dt \"Kudos:\": 1,234\n");
  EXPECT_EQ(found("Promo"), "- label \"Promo code\": textbox \"Code\" [value=\"SPRING\"]\n");
  EXPECT_EQ(found("Delivery"), "- legend \"Delivery\": radio \"Standard\" [checked], radio \"Express\"\n");
  EXPECT_EQ(found("Country"), "- combobox \"Country\" [value=\"Aotera\"]\n");
  EXPECT_EQ(found("Price"), "- columnheader \"Price\": 4.50, 6.00\n");
  // Words set apart within a text are found with it, and a part of it alone in its own.
  EXPECT_EQ(found("items left"), "- paragraph \"3 items left\"\n");
  EXPECT_EQ(found("Aoteran dollar"), "- cell \"Aoteran dollar (ATD)\"\n");
  std::string full = shared().nurel({"snapshot", tab, "--limit", "0"}).out;
  for (const char* line : {"- text: Capital: Wellington\n", "- text: Words: 12,345\n", "- text: Kudos: 1,234\n",
                           "- text: Population: 5,123,400 (2023 estimate)\n", "- text: Largest city:\n"})
    EXPECT_NE(full.find(line), std::string::npos) << line << " in\n" << full.substr(0, 3000);
}


// A control that says nothing is named by what a person reads for it; what reacts to a double
// click has a ref to double-click.
TEST(Apps, ControlsAreNamedFromWhatStandsAroundThem) {
  servePage("/todo-names", page("todo-hash.html"));
  std::string tab = shared().open(url("/todo-names"));
  std::string s = shared().nurel({"snapshot", tab, "--interactive"}).out;
  for (const char* line : {"- checkbox \"walk the dog\" [ref=", "- checkbox \"buy milk\" [checked] [ref=",
                           "- button \"×\" [ref=", "- clickable \"walk the dog\" [double-click] [ref="})
    EXPECT_NE(s.find(line), std::string::npos) << line << " in\n" << s;
  std::string label = refOn(s, "clickable \"walk the dog\"");
  EXPECT_EQ(shared().nurel({"click", tab, label, "--double"}).out,
            "double-clicked clickable \"walk the dog\" [ref=" + label + "]; the page changed\n");
  // What has focus is typed over with replace, as with a ref.
  EXPECT_EQ(shared().nurel({"type", tab, "--replace", "walk the cat\n"}).status, 0);
  EXPECT_NE(shared().nurel({"snapshot", tab, "--interactive"}).out.find("checkbox \"walk the cat\""), std::string::npos);
  std::string ticked = refOn(s, "checkbox \"walk the dog\"");

  servePage("/icons", R"html(<title>Icons</title>
<button id=close><svg width=10 height=10><title>Close dialog</title><path d="M0 0L10 10"/></svg></button>
<button><i title="Delete" style="display:inline-block;width:10px;height:10px"></i></button>
<table><tr><td><input type=checkbox></td><td>Invoice 42</td><td>12.00</td></tr></table>
<ul id=rows><li><span>alpha</span></li><li><span>beta</span></li></ul>
<div id=root><p>Framework text</p></div>
<script>
  rows.addEventListener('dblclick', (e) => { e.target.textContent += ' (editing)'; });
  root.addEventListener('dblclick', () => {});
</script>)html");
  std::string icons = shared().open(url("/icons"));
  std::string named = shared().nurel({"snapshot", icons}).out;
  for (const char* line : {"- button \"Close dialog\" [ref=", "- button \"Delete\" [ref=",
                           "- checkbox \"Invoice 42 12.00\" [ref=", "- clickable \"alpha\" [double-click] [ref=",
                           "- text: Framework text"})
    EXPECT_NE(named.find(line), std::string::npos) << line << " in\n" << named;
  EXPECT_EQ(named.find("Framework text\" [double-click]"), std::string::npos) << named;
}


// A batch that names an action or a field that isn't there is told, in one line, which are.
TEST(Apps, ABatchSaysWhatItCanDo) {
  servePage("/vocabulary", "<title>Words</title><button onclick=\"said.textContent=1\">Go</button><p id=said></p>");
  std::string tab = shared().open(url("/vocabulary"));
  std::string go = refOn(shared().nurel({"snapshot", tab}).out, "button \"Go\"");
  Outcome unknown = shared().nurel({"batch", tab, R"([{"do":"click","ref":")" + go + R"("},{"do":"select"}])"});
  EXPECT_EQ(unknown.status, 1);
  EXPECT_EQ(unknown.err, "1. click: clicked button \"Go\"; the page changed\n"
                         "2. select failed: not an action a batch can do: do is one of click, type, "
                         "select_option, press_key, scroll, hover, drag, navigate, go_back, go_forward, "
                         "reload, wait_for, media, handle_dialog, snapshot, describe_page, get_text, find, "
                         "inspect, console, evaluate, emulate\n");
  Outcome field = shared().nurel({"batch", tab, R"([{"do":"click","ref":")" + go + R"(","twice":true}])"});
  EXPECT_EQ(field.err, "1. click failed: click has no field \"twice\": its fields are ref, x, y, double, "
                       "button, intent\n");
  Outcome none = shared().nurel({"batch", tab, R"([{"do":"describe_page","all":true}])"});
  EXPECT_EQ(none.err, "1. describe_page failed: describe_page has no field \"all\": it takes none\n");
  EXPECT_EQ(shared().nurel({"batch", tab, R"([{"do":"snapshot","interactive":true,"tab":")" + tab + R"("}])"}).status, 0);
}

}  // namespace
}  // namespace nurel::testing
