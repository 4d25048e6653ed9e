// tests/acting_test.cpp: the agent's loop on real pages: snapshots with refs, and acting on them
// through nurel and nurel mcp, against real Chromium.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>

#include "link/json.h"
#include "tests/browser_fixture.h"
#include "tests/session.h"

namespace nurel::testing {
namespace {

const char* formPage = R"html(<title>Form</title>
<main><h1>Sign up</h1><p>Please fill in <b>all</b> fields.</p>
<form aria-label="Signup" onsubmit="event.preventDefault();
  document.getElementById('out').textContent = 'Sent ' + name.value + ' ' + size.value + ' ' + agree.checked">
<label>Name <input id=name></label>
<label>Password <input type=password id=secret></label>
<label>Age <input type=number id=age></label>
<label>Notes <textarea id=notes></textarea></label>
<label><input type=checkbox id=agree> I agree</label>
<label><input type=radio name=plan value=a> Plan A</label>
<select id=size aria-label=Size><option value=s>Small<option value=l>Large</select>
<button>Send</button></form>
<p id=out></p>
<div contenteditable=true aria-label=Editor></div>
<div onclick="this.textContent = 'Clicked by script'">Script only</div>
<span style="cursor:pointer" id=pointer>Pointer</span>
</main>)html";

TEST(Acting, ASnapshotShowsEveryFieldWithARefAndActingFillsThem) {
  servePage("/form", formPage);
  std::string tab = shared().open(url("/form"));
  Outcome taken = shared().nurel({"snapshot", tab});
  ASSERT_EQ(taken.status, 0) << taken.err;
  const std::string& s = taken.out;
  for (const char* line : {"textbox \"Name\"", "textbox \"Password\"", "spinbutton \"Age\"",
                           "textbox \"Notes\"", "checkbox \"I agree\"", "radio \"Plan A\"",
                           "combobox \"Size\" [value=\"Small\"]", "button \"Send\"",
                           "textbox \"Editor\"", "clickable \"Script only\"", "clickable \"Pointer\""})
    EXPECT_NE(refOn(s, line), "") << line << " in\n" << s;
  EXPECT_NE(s.find("- heading \"Sign up\" [level=1]\n"), std::string::npos) << s;
  EXPECT_NE(s.find("- text: Please fill in all fields.\n"), std::string::npos) << s;

  EXPECT_EQ(shared().nurel({"type", tab, "--ref", refOn(s, "\"Name\""), "Zoë 山田"}).out,
            "typed 6 characters into textbox \"Name\" [ref=" + refOn(s, "\"Name\"") + "]\n");
  shared().nurel({"type", tab, "--ref", refOn(s, "\"Password\""), "hunter2"});
  shared().nurel({"type", tab, "--ref", refOn(s, "\"Notes\""), "line one\nline two"});
  shared().nurel({"type", tab, "--ref", refOn(s, "\"Editor\""), "Привет"});
  // A box ticked is a change, though the document's markup stays as it was.
  EXPECT_EQ(shared().nurel({"click", tab, refOn(s, "\"I agree\"")}).out,
            "clicked checkbox \"I agree\" [ref=" + refOn(s, "\"I agree\"") + "]; the page changed\n");
  EXPECT_EQ(shared().nurel({"choose", tab, refOn(s, "\"Size\""), "large"}).out,
            "chose \"Large\" in combobox \"Size\" [ref=" + refOn(s, "\"Size\"") + "]\n");
  Outcome none = shared().nurel({"choose", tab, refOn(s, "\"Size\""), "Huge"});
  EXPECT_EQ(none.err, "no option \"Huge\" in combobox \"Size\" [ref=" + refOn(s, "\"Size\"") +
                          "]: \"Small\", \"Large\"\n");
  EXPECT_EQ(shared().nurel({"click", tab, refOn(s, "\"Script only\"")}).out,
            "clicked clickable \"Script only\" [ref=" + refOn(s, "\"Script only\"") +
                "]; the page changed\n");
  EXPECT_EQ(shared().nurel({"eval", tab, "return [document.getElementById('name').value, notes.value, secret.value, "
                                         "document.querySelector('[contenteditable]').textContent]"})
                .out,
            "[\n  \"Zoë 山田\",\n  \"line one\\nline two\",\n  \"hunter2\",\n  \"Привет\"\n]\n");
  EXPECT_EQ(shared().nurel({"type", tab, "--ref", refOn(s, "\"Name\""), "--replace", "Ann"}).status, 0);
  Outcome sent = shared().nurel({"key", tab, "enter"});
  EXPECT_EQ(sent.out, "pressed enter; the page changed\n");
  EXPECT_EQ(shared().nurel({"eval", tab, "return out.textContent"}).out, "Sent Ann l true\n");

  Outcome after = shared().nurel({"snapshot", tab});
  EXPECT_NE(after.out.find("textbox \"Password\" [value=••••]"), std::string::npos) << after.out;
  EXPECT_EQ(after.out.find("hunter2"), std::string::npos);
  EXPECT_NE(after.out.find("checkbox \"I agree\" [checked]"), std::string::npos);
  // The same elements keep their refs from one snapshot to the next.
  EXPECT_EQ(refOn(after.out, "\"Name\""), refOn(s, "\"Name\""));
  EXPECT_EQ(refOn(after.out, "button \"Send\""), refOn(s, "button \"Send\""));
}

TEST(Acting, InteractiveViewportDiffAndLimit) {
  servePage("/variants", "<title>V</title><h1>Top</h1><p>Just words here.</p><button onclick=\""
                         "document.body.insertAdjacentHTML('beforeend', '<p>Added line</p>')\">Add</button>"
                         "<div style='height:3000px'></div><a href=/second>Far below</a>");
  std::string tab = shared().open(url("/variants"));
  std::string full = shared().nurel({"snapshot", tab}).out;
  std::string interactive = shared().nurel({"snapshot", tab, "--interactive"}).out;
  std::string viewport = shared().nurel({"snapshot", tab, "--viewport"}).out;
  EXPECT_NE(full.find("Just words here."), std::string::npos);
  EXPECT_EQ(interactive.find("Just words here."), std::string::npos) << interactive;
  EXPECT_NE(interactive.find("- heading \"Top\" [level=1]"), std::string::npos) << interactive;
  EXPECT_NE(interactive.find("link \"Far below\""), std::string::npos);
  EXPECT_EQ(viewport.find("link \"Far below\""), std::string::npos) << viewport;
  EXPECT_NE(viewport.find("button \"Add\""), std::string::npos);

  EXPECT_EQ(shared().nurel({"snapshot", tab, "--diff"}).out, "nothing changed since the last snapshot\n");
  shared().nurel({"click", tab, refOn(full, "button \"Add\"")});
  EXPECT_EQ(shared().nurel({"snapshot", tab, "--diff"}).out,
            "1 lines added (+), 0 removed (-) since the last snapshot:\n+- text: Added line\n");

  // Cut at the limit, with a line that says how to get less or all; 0 is all of it.
  Session mcp(shared().socket());
  mcp.send(R"({"jsonrpc":"2.0","id":1,"method":"tools/call","params":{"name":"snapshot","arguments":{"tab":")" +
           tab + R"(","limit":40}}})");
  auto cut = mcp.next();
  ASSERT_TRUE(cut);
  std::string text = parseDocument(*cut)["result"]["content"][0]["text"];
  EXPECT_EQ(text.substr(text.find('\n')),
            "\n[cut at 40 of " + std::to_string(full.size() - 1 + std::string("- text: Added line\n").size()) +
                " characters: take it interactive or viewport for less, or save it to a file for all of it]");
  EXPECT_EQ(mcp.finish(), 0);
}

// The snapshot without its refs, whose numbers depend on what the tab showed before.
std::string withoutRefs(std::string snapshot) {
  for (size_t at; (at = snapshot.find(" [ref=")) != std::string::npos;)
    snapshot.erase(at, snapshot.find(']', at) - at + 1);
  return snapshot;
}

const char* cardsPage = R"html(<title>Cards</title>
<main><div style="cursor:pointer"><a href="/story"><img alt="Rain" width=20 height=20
src="data:image/gif;base64,R0lGODlhAQABAAAAACw="><h3>Rain on Monday</h3></a><p>Cloudy all week</p></div>
<h2><a href="/weather">Weather</a></h2>
<aside></aside><ul></ul>
<a href="https://example.org/path?q=1">Elsewhere</a>
<a href="http://example.net/">Plain</a>
<a href="/news">News today</a><h3>News today</h3>
<div style="cursor:pointer">Pointer alone</div>
<div style="cursor:pointer" onclick="this.remove()"><a href="/tag">Tag</a> Remove</div>
</main>)html";

TEST(Acting, ASnapshotSaysEachThingOnce) {
  servePage("/cards", cardsPage);
  std::string tab = shared().open(url("/cards"));
  Outcome taken = shared().nurel({"snapshot", tab});
  ASSERT_EQ(taken.status, 0) << taken.err;
  // A card that only shows the pointer is dissolved around its link; the link's words are not
  // said again by its image and heading; a heading that holds only a link of its words leaves
  // them to the link, as does a heading that repeats the link before it; an empty landmark or
  // list is left out; another site's https address is shown without https://. A card with a
  // handler of its own keeps its ref.
  EXPECT_EQ(withoutRefs(taken.out),
            "- main\n"
            "  - link \"Rain Rain on Monday\" [url=/story]\n"
            "    - heading [level=3]\n"
            "  - text: Cloudy all week\n"
            "  - heading [level=2]\n"
            "    - link \"Weather\" [url=/weather]\n"
            "  - link \"Elsewhere\" [url=example.org/path?q=1]\n"
            "  - link \"Plain\" [url=http://example.net/]\n"
            "  - link \"News today\" [url=/news]\n"
            "  - heading [level=3]\n"
            "  - clickable \"Pointer alone\"\n"
            "  - clickable\n"
            "    - link \"Tag\" [url=/tag]\n"
            "    - text: Remove\n");
  // Interactive: the headings that place nothing more are left out.
  EXPECT_EQ(withoutRefs(shared().nurel({"snapshot", tab, "--interactive"}).out),
            "- main\n"
            "  - link \"Rain Rain on Monday\"\n"
            "  - link \"Weather\"\n"
            "  - link \"Elsewhere\"\n"
            "  - link \"Plain\"\n"
            "  - link \"News today\"\n"
            "  - clickable \"Pointer alone\"\n"
            "  - clickable\n"
            "    - link \"Tag\"\n");
  for (const char* line : {"link \"Rain Rain on Monday\"", "link \"Weather\"", "link \"Elsewhere\"",
                           "link \"Plain\"", "clickable \"Pointer alone\"", "clickable [ref=", "link \"Tag\""})
    EXPECT_NE(refOn(taken.out, line), "") << line << " in\n" << taken.out;
  shared().nurel({"close", tab});
}

TEST(Acting, ALabelAroundItsFieldNamesItOnce) {
  servePage("/labelled", R"html(<title>Labelled</title><main>
<label>Delivery <select><option>Standard<option selected>Express</select></label>
<label>Size <select aria-label=Size><option>Small</select> and count <input type=number value=2 aria-label=Count></label>
</main>)html");
  std::string tab = shared().open(url("/labelled"));
  // The field's own options are not part of its name; another's chosen value is.
  EXPECT_EQ(withoutRefs(shared().nurel({"snapshot", tab}).out),
            "- main\n"
            "  - combobox \"Delivery\" [value=\"Express\"]\n"
            "  - combobox \"Size\" [value=\"Small\"]\n"
            "  - text: and count\n"
            "  - spinbutton \"Count\" [value=\"2\"]\n");
  shared().nurel({"close", tab});
}

TEST(Acting, AnInteractiveSnapshotShowsOneLinkToEachPlace) {
  std::string prose(400, 'x');
  servePage("/stories", R"html(<title>Stories</title><main>
<ul role=menu><li role=menuitem><a href=/home>Home</a></li></ul>
<a href=/story><img alt=""></a><a href=/story>Rain on Monday</a><a href=/story>Rain on Monday Weather desk</a>
<a href=/story>Comments</a>
<a href=#top>Top</a><a href=#top>Top</a>
<a href="/signin?operation=register&redirect=https%3A%2F%2Fexample.org%2Fa%2Fvery%2Flong%2Fway%2Fback">Sign in</a>
<p>)html" + prose + "</p></main>");
  std::string tab = shared().open(url("/stories"));
  // The full snapshot has every link, the menu item's click left to its link; a long query and
  // a long paragraph are begun, not spelled out.
  EXPECT_EQ(withoutRefs(shared().nurel({"snapshot", tab}).out),
            "- main\n"
            "  - menu\n"
            "    - link \"Home\" [url=/home]\n"
            "  - link [url=/story]\n"
            "  - link \"Rain on Monday\" [url=/story]\n"
            "  - link \"Rain on Monday Weather desk\" [url=/story]\n"
            "  - link \"Comments\" [url=/story]\n"
            "  - link \"Top\" [url=/stories#top]\n"
            "  - link \"Top\" [url=/stories#top]\n"
            "  - link \"Sign in\" [url=/signin?operation=register&redirect=https%3A%2…]\n"
            "  - text: " + std::string(249, 'x') + "…\n");
  // Interactive: one link to the story for each thing it is called, and every link within the
  // page (they may each do something of their own).
  EXPECT_EQ(withoutRefs(shared().nurel({"snapshot", tab, "--interactive"}).out),
            "- main\n"
            "  - link \"Home\"\n"
            "  - link\n"
            "  - link \"Rain on Monday\"\n"
            "  - link \"Comments\"\n"
            "  - link \"Top\"\n"
            "  - link \"Top\"\n"
            "  - link \"Sign in\"\n");
  shared().nurel({"close", tab});
}

TEST(Acting, ARefNeverMovesToAnotherElement) {
  servePage("/list", R"html(<title>List</title><ul id=list><li><button>Alpha</button><li><button>Beta</button></ul>
<button id=reverse onclick="list.append(...[...list.children].reverse())">Reverse</button>
<button id=render onclick="list.innerHTML = '<li><button>Alpha</button><li><button>Beta</button>'">Render</button>
<p id=said></p><script>list.onclick = (e) => said.textContent = 'pressed ' + e.target.textContent</script>)html");
  std::string tab = shared().open(url("/list"));
  std::string before = shared().nurel({"snapshot", tab}).out;
  std::string alpha = refOn(before, "\"Alpha\"");
  shared().nurel({"click", tab, refOn(before, "\"Reverse\"")});
  std::string reversed = shared().nurel({"snapshot", tab}).out;
  EXPECT_EQ(refOn(reversed, "\"Alpha\""), alpha);
  EXPECT_LT(reversed.find("\"Beta\""), reversed.find("\"Alpha\""));
  shared().nurel({"click", tab, alpha});
  EXPECT_EQ(shared().nurel({"eval", tab, "return said.textContent"}).out, "pressed Alpha\n");
  // Rendered anew: the same words, other elements. The old ref is refused, never moved.
  shared().nurel({"click", tab, refOn(before, "\"Render\"")});
  Outcome stale = shared().nurel({"click", tab, alpha});
  EXPECT_EQ(stale.status, 1);
  EXPECT_EQ(stale.err, "ref " + alpha + " is no longer on the page\n");
  std::string rendered = shared().nurel({"snapshot", tab}).out;
  EXPECT_NE(refOn(rendered, "\"Alpha\""), alpha);
}

TEST(Acting, RefsFromAnEarlierPageAreRefused) {
  std::string tab = shared().open(url("/"));
  std::string home = shared().nurel({"snapshot", tab}).out;
  std::string link = refOn(home, "link \"Second\"");
  Outcome went = shared().nurel({"click", tab, link});
  EXPECT_EQ(went.out, "clicked link \"Second\" [ref=" + link + "]; the page went to " + url("/second") +
                          " \"Second\"\n");
  Outcome old = shared().nurel({"click", tab, link});
  EXPECT_EQ(old.err, "ref " + link + " is from an earlier page: take a new snapshot\n");
  EXPECT_EQ(shared().nurel({"click", tab, "e999999"}).err,
            "there is no ref e999999 in " + tab + ": take a snapshot for refs\n");
  EXPECT_EQ(shared().nurel({"click", tab, "button"}).err,
            "\"button\" isn't a ref: refs look like e12 and come from a snapshot\n");
}

TEST(Acting, ACoveredElementIsNotClicked) {
  servePage("/covered", R"html(<title>Covered</title><button onclick="said.textContent='clicked'">Accept</button><p id=said></p>
<div role=dialog aria-label=Cookies style="position:fixed;inset:0;background:rgba(0,0,0,.5)"><button onclick="this.parentNode.remove()">Close</button></div>)html");
  std::string tab = shared().open(url("/covered"));
  std::string s = shared().nurel({"snapshot", tab}).out;
  std::string accept = refOn(s, "button \"Accept\"");
  Outcome covered = shared().nurel({"click", tab, accept});
  EXPECT_EQ(covered.err, "button \"Accept\" [ref=" + accept + "] is covered by dialog \"Cookies\"\n");
  EXPECT_EQ(shared().nurel({"eval", tab, "return said.textContent"}).out, "\n");
  shared().nurel({"click", tab, refOn(s, "button \"Close\"")});
  EXPECT_EQ(shared().nurel({"click", tab, accept}).status, 0);
  EXPECT_EQ(shared().nurel({"eval", tab, "return said.textContent"}).out, "clicked\n");
}

TEST(Acting, FramesOfTheSameOriginAndOpenShadowRootsAreWalked) {
  servePage("/inner", "<title>Inner</title><button onclick=\"this.textContent='Done'\">Inside the frame</button>");
  servePage("/framed", R"html(<title>Framed</title><p>Outside</p><iframe src="/inner" title="Inner frame" style="margin:40px"></iframe>
<div id=host></div><script>host.attachShadow({mode:'open'}).innerHTML = '<button>In the shadow</button>'</script>)html");
  std::string tab = shared().open(url("/framed"));
  std::string s = shared().nurel({"snapshot", tab}).out;
  std::string inner = refOn(s, "button \"Inside the frame\"");
  ASSERT_NE(inner, "") << s;
  EXPECT_NE(refOn(s, "button \"In the shadow\""), "") << s;
  EXPECT_LT(s.find("iframe \"Inner frame\""), s.find("button \"Inside the frame\"")) << s;
  EXPECT_EQ(shared().nurel({"click", tab, inner}).status, 0);
  EXPECT_NE(shared().nurel({"snapshot", tab}).out.find("button \"Done\""), std::string::npos);
}

// Frames of another origin: one on another port of 127.0.0.1 (the same site, so the page's own
// process), one on localhost (another site: a process of its own). The page's world can read
// neither; each is read in its own and put where its iframe stands.
TEST(Acting, FramesOfOtherOriginsAndProcessesAreSplicedInAndActedIn) {
  servePage("/guest", R"html(<title>Guest</title><label>Name <input id=name></label>
<button onclick="this.textContent = 'Hello ' + document.getElementById('name').value" style="width:90px;height:30px;background:#8c8">Greet</button>)html");
  servePage("/host", R"html(<title>Host</title><p>Before the frames</p>
<iframe src=")html" + otherOrigin("/guest") + R"html(" title="Same process" style="border:7px solid;padding:5px"></iframe>
<p>Between the frames</p><div style="height:1500px"></div>
<iframe src=")html" + otherSite("/guest") + R"html(" title="Other process" style="border:3px solid;padding:11px 0 0 23px"></iframe>
<p>After the frames</p>)html");
  std::string tab = shared().open(url("/host"));
  EXPECT_EQ(shared().nurel({"eval", tab, "return [...document.querySelectorAll('iframe')].map((f) => f.contentDocument)"}).out,
            "[\n  null,\n  null\n]\n");
  std::string s = shared().nurel({"snapshot", tab}).out;
  // Each frame's lines under its iframe, one level deeper, in the order of the page.
  size_t first = s.find("- iframe \"Same process\"\n  - textbox \"Name\" [ref=");
  size_t second = s.find("- iframe \"Other process\"\n  - textbox \"Name\" [ref=");
  ASSERT_NE(first, std::string::npos) << s;
  ASSERT_NE(second, std::string::npos) << s;
  EXPECT_LT(s.find("Before the frames"), first) << s;
  EXPECT_LT(first, s.find("Between the frames")) << s;
  EXPECT_LT(s.find("Between the frames"), second) << s;
  EXPECT_LT(second, s.find("After the frames")) << s;
  std::string near = refOn(s.substr(first), "textbox \"Name\"");
  std::string nearButton = refOn(s.substr(first), "button \"Greet\"");
  std::string far = refOn(s.substr(second), "textbox \"Name\"");
  std::string farButton = refOn(s.substr(second), "button \"Greet\"");
  ASSERT_NE(nearButton, "") << s;
  ASSERT_NE(farButton, "") << s;
  EXPECT_NE(near, far);

  // A picture of an element in a frame is of it alone.
  ASSERT_EQ(shared().nurel({"screenshot", tab, "--ref", farButton, "--file", shared().file("framed.png")}).status, 0);
  EXPECT_EQ(pngSize(fileText(shared().file("framed.png"))), std::make_pair(90u, 30u));
  // Labelled pictures name the frames' refs too.
  shared().nurel({"eval", tab, "scrollTo(0, 0)"});
  Outcome labelled = shared().nurel({"screenshot", tab, "--file", shared().file("frames.png")});
  EXPECT_EQ(refOn(labelled.out, "textbox \"Name\""), near) << labelled.out;

  // Typing and clicking land in the right frame, the far one scrolled to first.
  EXPECT_EQ(shared().nurel({"type", tab, "--ref", near, "Ada"}).out,
            "typed 3 characters into textbox \"Name\" [ref=" + near + "]\n");
  EXPECT_EQ(shared().nurel({"type", tab, "--ref", far, "Грейс"}).status, 0);
  EXPECT_EQ(shared().nurel({"click", tab, nearButton}).out,
            "clicked button \"Greet\" [ref=" + nearButton + "]; the page changed\n");
  EXPECT_EQ(shared().nurel({"click", tab, farButton}).status, 0);
  std::string after = shared().nurel({"snapshot", tab}).out;
  EXPECT_NE(after.find("- iframe \"Same process\"\n  - textbox \"Name\" [value=\"Ada\"] [ref=" + near +
                       "]\n  - button \"Hello Ada\" [ref=" + nearButton + "]"),
            std::string::npos)
      << after;
  EXPECT_NE(after.find("- iframe \"Other process\"\n  - textbox \"Name\" [value=\"Грейс\"] [ref=" + far +
                       "]\n  - button \"Hello Грейс\" [ref=" + farButton + "]"),
            std::string::npos)
      << after;

  // find looks in them too, with the same refs.
  EXPECT_EQ(shared().nurel({"find", tab, "Hello Грейс"}).out,
            "- button \"Hello Грейс\" [ref=" + farButton + "]\n");

  // Through nurel mcp, the interactive snapshot has them too, and a click by ref works.
  Session mcp(shared().socket());
  mcp.send(R"({"jsonrpc":"2.0","id":1,"method":"tools/call","params":{"name":"snapshot","arguments":{"tab":")" +
           tab + R"(","interactive":true}}})");
  auto interactive = mcp.next();
  ASSERT_TRUE(interactive);
  std::string lines = parseDocument(*interactive)["result"]["content"][0]["text"];
  EXPECT_EQ(refOn(lines, "button \"Hello Грейс\""), farButton) << lines;
  mcp.send(R"({"jsonrpc":"2.0","id":2,"method":"tools/call","params":{"name":"click","arguments":{"tab":")" +
           tab + R"(","ref":")" + near + R"("}}})");
  auto clicked = mcp.next();
  ASSERT_TRUE(clicked);
  EXPECT_EQ(parseDocument(*clicked)["result"]["content"][0]["text"],
            "clicked textbox \"Name\" [ref=" + near + "]; nothing visible changed");
  EXPECT_EQ(mcp.finish(), 0);

  // A frame that went to another page: its refs are refused, never matched to what is there now.
  shared().nurel({"eval", tab, "document.querySelectorAll('iframe')[1].src = '" + otherSite("/guest?again") + "'"});
  EXPECT_TRUE(eventually([&] {
    return shared().nurel({"click", tab, farButton}).err ==
           "ref " + farButton + " is from an earlier page: take a new snapshot\n";
  }));
  // A frame taken off the page: its refs are no longer there.
  shared().nurel({"eval", tab, "document.querySelectorAll('iframe')[0].remove()"});
  EXPECT_EQ(shared().nurel({"click", tab, nearButton}).err,
            "ref " + nearButton + " is no longer on the page\n");
}

// inspect says where an element lies in the top page, whichever frame it is in.
TEST(Acting, InspectPlacesWhatIsInFramesOnTheTopPage) {
  servePage("/placed", R"html(<title>Placed</title>
<button style="position:absolute;left:30px;top:50px;width:90px;height:30px">Placed</button>)html");
  std::string frame = "style=\"border:3px solid;padding:11px 0 0 23px;width:300px;height:200px\"";
  servePage("/frames-placed", R"html(<title>Frames placed</title><div style="height:700px"></div>
<iframe src="/placed" title="Near" )html" + frame + R"html(></iframe>
<iframe src=")html" + otherOrigin("/placed") + R"html(" title="Same process" )html" + frame + R"html(></iframe>
<iframe src=")html" + otherSite("/placed") + R"html(" title="Other process" )html" + frame + R"html(></iframe>)html");
  std::string tab = shared().open(url("/frames-placed"));
  std::string s = shared().nurel({"snapshot", tab}).out;
  shared().nurel({"eval", tab, "scrollTo(0, 400)"});
  Json frames = parseDocument(shared().nurel({"eval", tab,
      "return [...document.querySelectorAll('iframe')].map((f) => { const r = f.getBoundingClientRect(); "
      "return [Math.round(r.left + scrollX), Math.round(r.top + scrollY)] })"}).out);
  ASSERT_EQ(frames.size(), 3u);
  for (size_t i = 0; i < 3; ++i) {
    const char* title = i == 0 ? "Near" : i == 1 ? "Same process" : "Other process";
    std::string ref = refOn(s.substr(s.find(std::string("- iframe \"") + title)), "button \"Placed\"");
    ASSERT_NE(ref, "") << s;
    Json box = parseDocument(shared().nurel({"inspect", tab, ref}).out)["box"];
    EXPECT_EQ(box, Json::parse("{\"x\": " + std::to_string(frames[i][0].get<int>() + 3 + 23 + 30) +
                               ", \"y\": " + std::to_string(frames[i][1].get<int>() + 3 + 11 + 50) +
                               ", \"width\": 90, \"height\": 30}"))
        << title;
  }
  shared().nurel({"close", tab});
}

// Closed shadow roots, which the page's own elements don't give: walked all the same, roots
// within roots, and what is in them acted on.
TEST(Acting, ClosedShadowRootsAreWalkedAndActedIn) {
  servePage("/closed-guest", R"html(<div id=host></div><script>
host.attachShadow({mode: 'closed'}).innerHTML = '<button onclick="this.textContent = \'Done\'">In a frame</button>';
</script>)html");
  servePage("/closed", R"html(<title>Closed</title><div id=host></div><fancy-card></fancy-card>
<iframe src=")html" + otherSite("/closed-guest") + R"html("></iframe><p id=said></p><script>
host.attachShadow({mode: 'closed'}).innerHTML =
  '<button onclick="document.getElementById(\'said\').textContent = \'pressed\'">Deep inside</button>';
customElements.define('inner-part', class extends HTMLElement {
  constructor() { super(); this.attachShadow({mode: 'closed'}).innerHTML = '<a href="/second">Nested link</a>'; }
});
customElements.define('fancy-card', class extends HTMLElement {
  constructor() { super(); this.attachShadow({mode: 'closed'}).innerHTML = '<p>Card text</p><inner-part></inner-part>'; }
});
</script>)html");
  std::string tab = shared().open(url("/closed"));
  EXPECT_EQ(shared().nurel({"eval", tab, "return [host.shadowRoot, document.querySelector('fancy-card').shadowRoot]"}).out,
            "[\n  null,\n  null\n]\n");
  std::string s = shared().nurel({"snapshot", tab}).out;
  std::string button = refOn(s, "button \"Deep inside\"");
  std::string link = refOn(s, "link \"Nested link\"");
  ASSERT_NE(button, "") << s;
  ASSERT_NE(link, "") << s;
  EXPECT_LT(s.find("Card text"), s.find("Nested link")) << s;
  EXPECT_EQ(shared().nurel({"click", tab, button}).out,
            "clicked button \"Deep inside\" [ref=" + button + "]; the page changed\n");
  EXPECT_EQ(shared().nurel({"eval", tab, "return said.textContent"}).out, "pressed\n");
  // In a frame of another process too.
  std::string framed = refOn(s, "button \"In a frame\"");
  ASSERT_NE(framed, "") << s;
  EXPECT_EQ(shared().nurel({"click", tab, framed}).status, 0);
  EXPECT_EQ(refOn(shared().nurel({"snapshot", tab}).out, "button \"Done\""), framed);
  EXPECT_EQ(shared().nurel({"find", tab, "Nested"}).out,
            "- link \"Nested link\" [url=/second] [ref=" + link + "]\n");

  Session mcp(shared().socket());
  mcp.send(R"({"jsonrpc":"2.0","id":1,"method":"tools/call","params":{"name":"click","arguments":{"tab":")" +
           tab + R"(","ref":")" + link + R"("}}})");
  auto clicked = mcp.next();
  ASSERT_TRUE(clicked);
  EXPECT_EQ(parseDocument(*clicked)["result"]["content"][0]["text"],
            "clicked link \"Nested link\" [ref=" + link + "]; the page went to " + url("/second") + " \"Second\"");
  EXPECT_EQ(mcp.finish(), 0);
}

TEST(Acting, DialogsAreAnsweredBothWaysAndNeverHang) {
  servePage("/dialogs", R"html(<title>Dialogs</title><p id=said></p>
<button onclick="said.textContent = 'alerted'; alert('Heads up')">Alert</button>
<button onclick="said.textContent = confirm('Sure?') ? 'yes' : 'no'">Confirm</button>
<button onclick="said.textContent = prompt('Name?', 'x') ?? 'cancelled'">Prompt</button>)html");
  std::string tab = shared().open(url("/dialogs"));
  std::string s = shared().nurel({"snapshot", tab}).out;
  EXPECT_EQ(shared().nurel({"click", tab, refOn(s, "\"Alert\"")}).out,
            "clicked button \"Alert\" [ref=" + refOn(s, "\"Alert\"") +
                "]; a dialog opened: alert \"Heads up\": answer it with dialog (accept or dismiss)\n");
  EXPECT_EQ(shared().nurel({"eval", tab, "return 1"}).err,
            tab + " is showing a dialog (alert \"Heads up\"): answer it with dialog (accept or "
                  "dismiss) first\n");
  EXPECT_EQ(shared().nurel({"dialog", tab, "accept"}).out, "accepted alert \"Heads up\"\n");
  EXPECT_EQ(shared().nurel({"dialog", tab, "accept"}).err, tab + " shows no dialog\n");
  for (auto [answer, expected] : {std::pair{"accept", "yes"}, std::pair{"dismiss", "no"}}) {
    shared().nurel({"click", tab, refOn(s, "\"Confirm\"")});
    EXPECT_EQ(shared().nurel({"dialog", tab, answer}).out,
              std::string(answer) + "ed confirm \"Sure?\"\n");
    EXPECT_EQ(shared().nurel({"eval", tab, "return said.textContent"}).out, std::string(expected) + "\n");
  }
  shared().nurel({"click", tab, refOn(s, "\"Prompt\"")});
  EXPECT_EQ(shared().nurel({"dialog", tab, "accept", "Ada", "Lovelace"}).out,
            "accepted prompt \"Name?\" with \"Ada Lovelace\"\n");
  EXPECT_EQ(shared().nurel({"eval", tab, "return said.textContent"}).out, "Ada Lovelace\n");
  shared().nurel({"click", tab, refOn(s, "\"Prompt\"")});
  shared().nurel({"dialog", tab, "dismiss"});
  EXPECT_EQ(shared().nurel({"eval", tab, "return said.textContent"}).out, "cancelled\n");
}

TEST(Acting, AClickThatOpensATabGivesItsID) {
  servePage("/opener", "<title>Opener</title><a href=/second target=_blank>Elsewhere</a>");
  std::string tab = shared().open(url("/opener"));
  std::string s = shared().nurel({"snapshot", tab}).out;
  Outcome clicked = shared().nurel({"click", tab, refOn(s, "\"Elsewhere\"")});
  size_t opened = clicked.out.find("; a tab opened: t");
  ASSERT_NE(opened, std::string::npos) << clicked.out;
  std::string fresh = clicked.out.substr(opened + 16, clicked.out.size() - opened - 17);
  EXPECT_TRUE(eventually([&] {
    return shared().nurel({"tabs"}).out.find(fresh + " " + url("/second") + " \"Second\"") != std::string::npos;
  }));
  EXPECT_EQ(shared().nurel({"close", fresh}).status, 0);
}

TEST(Acting, AnActionsAnswerWaitsForWhatItSetOff) {
  // A handler that asks the server first and changes the page when it answers, and one that
  // changes it a moment later: neither is answered before the change.
  Response slow;
  slow.type = "text/plain";
  slow.body = "fetched";
  slow.delayMilliseconds = 400;
  serve("/slow-answer", slow);
  servePage("/settling", R"html(<title>Settling</title>
<button onclick="fetch('/slow-answer').then((r) => r.text()).then((t) => { out.textContent = t; })">Fetch</button>
<button onclick="setTimeout(() => { out.textContent = 'later'; }, 40)">Later</button>
<p id=out></p>)html");
  std::string tab = shared().open(url("/settling"));
  std::string s = shared().nurel({"snapshot", tab}).out;
  for (const char* name : {"Fetch", "Later"}) {
    std::string ref = refOn(s, "\"" + std::string(name) + "\"");
    EXPECT_EQ(shared().nurel({"click", tab, ref}).out,
              "clicked button \"" + std::string(name) + "\" [ref=" + ref + "]; the page changed\n");
  }
}

// A script that sorts the `item`s of #list by pointer: one pressed and let go over another
// moves after it, and #order lists their texts in their order.
std::string sortedByPointer(const std::string& item) {
  return R"js(<script>
let held = null;
list.addEventListener('pointerdown', (e) => { held = e.target.closest(')js" + item + R"js('); });
document.addEventListener('pointerup', (e) => {
  const over = document.elementFromPoint(e.clientX, e.clientY)?.closest(')js" + item + R"js(');
  if (held && over && over !== held) over.after(held);
  held = null;
  order.textContent = [...list.children].map((each) => each.textContent).join(',');
});
</script>)js";
}

TEST(Acting, DragsHoversScrollsAndPressesKeys) {
  servePage("/drag", R"html(<title>Drag</title><style>li{height:40px;border:1px solid}</style>
<ul id=list><li id=a>First</li><li id=b>Second</li><li id=c>Third</li></ul><p id=order></p>
<div id=hover onmouseenter="this.textContent='Hovered'">Hover me</div>
)html" + sortedByPointer("li") + R"html(<div style="height:3000px"></div>)html");
  std::string tab = shared().open(url("/drag"));
  std::string s = shared().nurel({"snapshot", tab}).out;
  EXPECT_EQ(shared().nurel({"drag", tab, "100,30", "100,110"}).status, 0);
  EXPECT_EQ(shared().nurel({"eval", tab, "return order.textContent"}).out, "Second,Third,First\n");
  EXPECT_EQ(shared().nurel({"hover", tab, "50", "200"}).status, 0);
  Outcome scrolled = shared().nurel({"scroll", tab, "500"});
  EXPECT_EQ(scrolled.out.rfind("turned the wheel 500 px over the page: the page is at 500 of ", 0), 0u)
      << scrolled.out;
  Outcome key = shared().nurel({"key", tab, "ctrl+alt+nothing"});
  EXPECT_EQ(key.err, "unknown key \"nothing\": enter, tab, space, escape, backspace, delete, arrows, "
                     "home, end, pageup, pagedown, f1-f12 or one character\n");
  EXPECT_EQ(shared().nurel({"key", tab, "hyper+a"}).err,
            "unknown modifier \"hyper\": use cmd, ctrl, alt or shift\n");
  EXPECT_EQ(shared().nurel({"key", tab, "home"}).status, 0);
}

// A drag by refs in a frame of another process, scrolled to first: the frame must have seen the
// pointer come in before the button goes down there, or the press is lost and nothing moves
// (as it was 1 time in 3 when run after the other tests here).
TEST(Acting, ADragInAFrameOfAnotherProcessMovesWhatItAimsAt) {
  servePage("/sort-guest", R"html(<title>Sort</title><style>button{display:block;width:120px;height:40px}</style>
<div id=list><button>First</button><button>Second</button><button>Third</button></div><p id=order>unsorted</p>
)html" + sortedByPointer("button"));
  servePage("/sort-host", R"html(<title>Host</title><p>Above</p><div style="height:1500px"></div>
<iframe src=")html" + otherSite("/sort-guest") + R"html(" title="Sorter" style="height:220px"></iframe>)html");
  std::string tab = shared().open(url("/sort-host"));
  for (int round = 0; round < 3; ++round) {
    std::string s = shared().nurel({"snapshot", tab}).out;
    std::string first = refOn(s, "button \"First\"");
    std::string third = refOn(s, "button \"Third\"");
    ASSERT_NE(first, "") << s;
    ASSERT_NE(third, "") << s;
    EXPECT_EQ(shared().nurel({"drag", tab, first, third}).status, 0);
    std::string after = shared().nurel({"snapshot", tab}).out;
    EXPECT_NE(after.find("Second,Third,First"), std::string::npos) << after;
    shared().nurel({"reload", tab});
    shared().nurel({"eval", tab, "scrollTo(0, 0)"});
  }
}

// Drag and drop of the browser's own (draggable elements, dragstart, dragover, drop): a sortable
// list and a drop zone, where pointer events alone would move nothing.
TEST(Acting, TheBrowsersOwnDragAndDropSortsAListAndFillsADropZone) {
  servePage("/dnd", R"html(<title>Drag and drop</title><style>li{height:40px;border:1px solid}</style>
<ul id=list><li draggable=true>Apple</li><li draggable=true>Banana</li><li draggable=true>Cherry</li></ul>
<div id=zone style="height:60px;border:2px dashed">Drop here</div><p id=order></p><p id=ended></p>
<script>
let held = null;
list.addEventListener('dragstart', (e) => {
  held = e.target;
  e.dataTransfer.setData('text/plain', e.target.textContent);
  e.dataTransfer.effectAllowed = 'move';
});
list.addEventListener('dragover', (e) => e.preventDefault());
list.addEventListener('drop', (e) => {
  e.preventDefault();
  const over = e.target.closest('li');
  if (held && over && over !== held) over.after(held);
  order.textContent = [...list.children].map((li) => li.textContent).join(',');
});
zone.addEventListener('dragover', (e) => e.preventDefault());
zone.addEventListener('drop', (e) => {
  e.preventDefault();
  zone.textContent = 'Dropped ' + e.dataTransfer.getData('text/plain');
});
document.addEventListener('dragend', () => { ended.textContent = 'ended'; });
</script>)html");
  std::string tab = shared().open(url("/dnd"));
  std::string s = shared().nurel({"snapshot", tab}).out;
  std::string apple = refOn(s, "\"Apple\"");
  std::string cherry = refOn(s, "\"Cherry\"");
  ASSERT_NE(apple, "") << s;
  ASSERT_NE(cherry, "") << s;
  EXPECT_EQ(shared().nurel({"drag", tab, apple, cherry}).out,
            "dragged listitem \"Apple\" [ref=" + apple + "] to listitem \"Cherry\" [ref=" + cherry +
                "]; the page changed\n");
  EXPECT_EQ(shared().nurel({"eval", tab, "return order.textContent"}).out, "Banana,Cherry,Apple\n");

  // By MCP, from a ref to a point: the middle of the drop zone.
  Json box = parseDocument(shared().nurel({"eval", tab, "const b = zone.getBoundingClientRect(); "
                                                        "return {x: b.x + b.width / 2, y: b.y + b.height / 2}"}).out);
  Session mcp(shared().socket());
  mcp.send(R"({"jsonrpc":"2.0","id":1,"method":"tools/call","params":{"name":"drag","arguments":{"tab":")" +
           tab + R"(","ref":")" + refOn(s, "\"Banana\"") + R"(","to_x":)" + std::to_string(box["x"].get<double>()) +
           R"(,"to_y":)" + std::to_string(box["y"].get<double>()) + "}}}");
  auto dropped = mcp.next();
  ASSERT_TRUE(dropped);
  EXPECT_EQ(parseDocument(*dropped)["result"].value("isError", false), false) << *dropped;
  EXPECT_EQ(mcp.finish(), 0);
  EXPECT_EQ(shared().nurel({"eval", tab, "return [zone.textContent, ended.textContent]"}).out,
            "[\n  \"Dropped Banana\",\n  \"ended\"\n]\n");
}

TEST(Acting, APageThatMovesItselfOnTheWheelStillGetsTheWheel) {
  servePage("/wheel", R"html(<title>Wheel</title><body style="overflow:hidden;margin:0"><p id=moved>0</p>
<script>addEventListener('wheel', (e) => { moved.textContent = Number(moved.textContent) + e.deltaY; }, {passive: true})</script></body>)html");
  std::string tab = shared().open(url("/wheel"));
  Outcome scrolled = shared().nurel({"scroll", tab, "300"});
  EXPECT_NE(scrolled.out.find("(it didn't move: the page may move itself; a screenshot shows it)"),
            std::string::npos) << scrolled.out;
  EXPECT_EQ(shared().nurel({"eval", tab, "return moved.textContent"}).out, "300\n");
}

TEST(Acting, FindAndInspect) {
  servePage("/find", "<title>Find</title><p>Sign in to continue</p><button>Sign in</button>"
                     "<a href=/second>Sign in help</a>");
  std::string tab = shared().open(url("/find"));
  Outcome found = shared().nurel({"find", tab, "sign in"});
  std::vector<std::string> lines;
  for (size_t at = 0, end; (end = found.out.find('\n', at)) != std::string::npos; at = end + 1)
    lines.push_back(found.out.substr(at, end - at));
  ASSERT_EQ(lines.size(), 3u) << found.out;
  EXPECT_EQ(lines[0].rfind("- button \"Sign in\" [ref=", 0), 0u);
  EXPECT_EQ(lines[1].rfind("- link \"Sign in help\" [url=/second] [ref=", 0), 0u);
  EXPECT_EQ(lines[2].rfind("- paragraph \"Sign in to continue\" [ref=", 0), 0u) << lines[2];
  EXPECT_EQ(shared().nurel({"find", tab, "nowhere"}).out, "nothing on the page says \"nowhere\"\n");
  std::string button = refOn(found.out, "button");
  Json inspected = parseDocument(shared().nurel({"inspect", tab, button, "--styles", "display,cursor"}).out);
  EXPECT_EQ(inspected["tag"], "button");
  EXPECT_EQ(inspected["style"], Json::parse(R"({"cursor":"default","display":"inline-block"})"));
  EXPECT_GT(inspected["box"]["width"].get<int>(), 10);
  // find's refs are the snapshot's.
  EXPECT_EQ(refOn(shared().nurel({"snapshot", tab}).out, "button \"Sign in\""), button);
}

TEST(Acting, ABatchStopsAtItsFirstFailure) {
  servePage("/batch", "<title>Batch</title><input aria-label=Query><button onclick=\"said.textContent=1\">Go</button><p id=said></p>");
  std::string tab = shared().open(url("/batch"));
  std::string s = shared().nurel({"snapshot", tab}).out;
  Outcome ran = shared().nurel(
      {"batch", tab, R"([{"do":"type","ref":")" + refOn(s, "Query") + R"(","text":"hello"},
                        {"do":"click","ref":")" + refOn(s, "\"Go\"") + R"("},
                        {"do":"click","ref":"e99999"},
                        {"do":"press_key","key":"enter"}])"});
  EXPECT_EQ(ran.status, 1);
  EXPECT_EQ(ran.out, "");
  // A step's own ref isn't said again.
  EXPECT_EQ(ran.err, "1. type: typed 5 characters into textbox \"Query\"\n"
                         "2. click: clicked button \"Go\"; the page changed\n3. click failed: there is no ref "
                         "e99999 in " + tab + ": take a snapshot for refs (the 1 after it not done)\n");
  Outcome fine = shared().nurel({"batch", tab, R"([{"do":"press_key","key":"a"},{"do":"snapshot","interactive":true}])"});
  EXPECT_EQ(fine.status, 0) << fine.err;
  EXPECT_EQ(fine.out.rfind("1. press_key: pressed a", 0), 0u) << fine.out;
}

TEST(Acting, ScreenshotsLabelWhatCanBeActedOnAndLeaveNothingBehind) {
  servePage("/shots", "<title>Shots</title><button style='width:120px;height:40px'>Big button</button>"
                      "<a href=/second>A link</a>");
  std::string tab = shared().open(url("/shots"));
  std::string before = shared().nurel({"eval", tab, "return document.documentElement.outerHTML"}).out;
  Outcome labelled = shared().nurel({"screenshot", tab, "--file", shared().file("labelled.png")});
  EXPECT_EQ(labelled.status, 0) << labelled.err;
  std::string button = refOn(labelled.out, "button \"Big button\"");
  EXPECT_NE(button, "") << labelled.out;
  EXPECT_NE(refOn(labelled.out, "link \"A link\""), "");
  EXPECT_EQ(labelled.out.substr(labelled.out.rfind("saved to")), "saved to " + shared().file("labelled.png") + "\n");
  EXPECT_EQ(shared().nurel({"eval", tab, "return document.documentElement.outerHTML"}).out, before);
  // Labelled and plain differ only where the labels are.
  shared().nurel({"screenshot", tab, "--plain", "--file", shared().file("plain.png")});
  EXPECT_NE(fileText(shared().file("labelled.png")), fileText(shared().file("plain.png")));
  EXPECT_EQ(shared().nurel({"screenshot", tab, "--plain", "--file", shared().file("plain.png")}).out,
            "saved to " + shared().file("plain.png") + "\n");
  // One element: its own size.
  ASSERT_EQ(shared().nurel({"screenshot", tab, "--ref", button, "--file", shared().file("one.png")}).status, 0);
  EXPECT_EQ(pngSize(fileText(shared().file("one.png"))), std::make_pair(120u, 40u));

  Session mcp(shared().socket());
  mcp.send(R"({"jsonrpc":"2.0","id":1,"method":"tools/call","params":{"name":"screenshot","arguments":{"tab":")" +
           tab + R"("}}})");
  auto answer = mcp.next();
  ASSERT_TRUE(answer);
  Json content = parseDocument(*answer)["result"]["content"];
  ASSERT_EQ(content.size(), 2u);
  EXPECT_EQ(content[0]["type"], "image");
  EXPECT_NE(content[1]["text"].get<std::string>().find("button \"Big button\" [ref=" + button + "]"),
            std::string::npos);
  EXPECT_EQ(mcp.finish(), 0);
}

// Real pages, saved: every link, button and field a person can see has a ref in the full
// snapshot; the sizes are printed for the record (the benchmark compares them with others').
TEST(Acting, SavedRealPagesHaveARefOnEverythingToActOn) {
  std::string folder = NUREL_TEST_DIR "/../../shared/pages";
  if (!std::filesystem::exists(folder)) GTEST_SKIP() << "no saved pages beside the repository";
  std::vector<std::string> names;
  for (auto& entry : std::filesystem::directory_iterator(folder))
    if (entry.path().extension() == ".html") names.push_back(entry.path().filename());
  std::sort(names.begin(), names.end());
  ASSERT_FALSE(names.empty());
  std::printf("%-18s %12s %12s %8s\n", "page", "full bytes", "interactive", "refs");
  // What a person can act on, counted by the page itself.
  const std::string count =
      "return [...document.querySelectorAll('a[href], button, input:not([type=hidden]), select, "
      "textarea')].filter((e) => e.checkVisibility({visibilityProperty: true}) && "
      "!e.closest('[aria-hidden=true]') && e.getClientRects().length).length";
  for (const std::string& name : names) {
    servePage("/saved/" + name, fileText(folder + "/" + name));
    Outcome opened = shared().nurel({"open", url("/saved/" + name)});
    ASSERT_EQ(opened.status, 0) << name << ": " << opened.err;
    std::string tab = opened.out.substr(0, opened.out.find(' '));
    Outcome full = shared().nurel({"snapshot", tab, "--file", shared().file("full.txt")});
    ASSERT_EQ(full.status, 0) << name << ": " << full.err;
    std::string text = fileText(shared().file("full.txt"));
    Outcome interactive = shared().nurel({"snapshot", tab, "--interactive", "--file", shared().file("i.txt")});
    ASSERT_EQ(interactive.status, 0) << interactive.err;
    size_t refs = 0;
    for (size_t at = 0; (at = text.find("[ref=e", at)) != std::string::npos; ++at) ++refs;
    size_t visible = std::stoul(shared().nurel({"eval", tab, count}).out);
    std::printf("%-18s %12zu %12zu %8zu\n", name.c_str(), text.size(),
                fileText(shared().file("i.txt")).size(), refs);
    EXPECT_GE(refs, visible) << name;
    shared().nurel({"close", tab});
  }
}

}  // namespace
}  // namespace nurel::testing
