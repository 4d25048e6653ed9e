// tests/files_test.cpp: the person's files and records against real Chromium: downloads,
// uploads, and the action log.
#include <gtest/gtest.h>

#include <filesystem>
#include <sstream>

#include "link/json.h"
#include "tests/browser_fixture.h"

namespace nurel::testing {
namespace {

TEST(Files, ADownloadByAClickIsToldWaitedForAndNeverOverwritesAnother) {
  if (overWebSocket()) GTEST_SKIP() << "files are the remote machine's (Remote.FilesNameTheirLimit)";
  Response file;
  file.type = "text/csv";
  file.body = "a,b\n1,2\n";
  file.headers = {{"Content-Disposition", "attachment; filename=\"report.csv\""}};
  serve("/report.csv", file);
  servePage("/files", "<title>Files</title><a href=/report.csv>Get the report</a>");
  std::string tab = shared().open(url("/files"));
  std::string folder = shared().file("downloads");
  EXPECT_EQ(shared().nurel({"downloads", tab}).out,
            tab + " downloaded nothing (downloads go to " + folder + ")\n");

  std::string link = refOn(shared().nurel({"snapshot", tab}).out, "link \"Get the report\"");
  ASSERT_NE(link, "");
  Outcome clicked = shared().nurel({"click", tab, link});
  ASSERT_EQ(clicked.status, 0) << clicked.err;
  EXPECT_EQ(clicked.out, "clicked link \"Get the report\" [ref=" + link +
                             "]; a download started: report.csv to " + folder +
                             "/report.csv; downloads tells how it goes\n");
  Outcome waited = shared().nurel({"downloads", tab, "--wait"});
  EXPECT_EQ(waited.out, "report.csv: 8 of 8 bytes, done: " + folder + "/report.csv\n") << waited.err;
  EXPECT_EQ(fileText(folder + "/report.csv"), "a,b\n1,2\n");

  // The same name again: a number is added, and the first file stays as it was.
  writeTestFile(folder + "/report.csv", "the person's own edit\n");
  Outcome again = shared().nurel({"click", tab, link});
  EXPECT_NE(again.out.find("a download started: report (2).csv to " + folder + "/report (2).csv"),
            std::string::npos) << again.out << again.err;
  waited = shared().nurel({"downloads", tab, "--wait"});
  EXPECT_EQ(waited.out, "report.csv: 8 of 8 bytes, done: " + folder + "/report.csv\n" +
                            "report (2).csv: 8 of 8 bytes, done: " + folder + "/report (2).csv\n");
  EXPECT_EQ(fileText(folder + "/report.csv"), "the person's own edit\n");
  EXPECT_EQ(fileText(folder + "/report (2).csv"), "a,b\n1,2\n");
  // Nothing half-done is left behind, and the page is still usable.
  size_t files = 0;
  for (auto& entry : std::filesystem::directory_iterator(folder)) files += entry.is_regular_file();
  EXPECT_EQ(files, 2u);
  EXPECT_EQ(shared().nurel({"eval", tab, "return document.title"}).out, "Files\n");
}

TEST(Files, UploadGivesAllowedFilesThroughTheFieldOrTheButtonThatOpensIt) {
  if (overWebSocket()) GTEST_SKIP() << "files are the remote machine's (Remote.FilesNameTheirLimit)";
  servePage("/upload", R"html(<title>Upload</title>
<label>Photo <input type=file id=photo onchange="out.textContent = Array.from(this.files).map((f) => f.name + ':' + f.size).join(',')"></label>
<input type=file id=picker multiple style="display:none" onchange="more.textContent = Array.from(this.files).map((f) => f.name).join(',')">
<button onclick="picker.click()">Choose files</button>
<p id=out></p><p id=more></p>)html");
  std::string allowed = shared().file("allowed");
  writeTestFile(allowed + "/a.txt", "hello");
  writeTestFile(allowed + "/b.txt", "world!");
  writeTestFile(shared().file("outside.txt"), "not yours");
  std::string tab = shared().open(url("/upload"));
  std::string s = shared().nurel({"snapshot", tab}).out;
  std::string field = refOn(s, "\"Photo\""), button = refOn(s, "button \"Choose files\"");
  ASSERT_NE(field, "") << s;
  ASSERT_NE(button, "") << s;
  EXPECT_EQ(refOn(s, "button \"Photo\""), field) << "a file field is a button that opens a chooser\n" << s;

  Outcome given = shared().nurel({"upload", tab, field, allowed + "/a.txt"});
  ASSERT_EQ(given.status, 0) << given.err;
  EXPECT_NE(given.out.find("gave "), std::string::npos);
  EXPECT_NE(given.out.find("1 file: a.txt"), std::string::npos) << given.out;
  EXPECT_EQ(shared().nurel({"eval", tab, "return out.textContent"}).out, "a.txt:5\n");

  given = shared().nurel({"upload", tab, button, allowed + "/a.txt", allowed + "/b.txt"});
  ASSERT_EQ(given.status, 0) << given.err;
  EXPECT_EQ(given.out, "gave button \"Choose files\" [ref=" + button + "] 2 files: a.txt, b.txt\n");
  EXPECT_EQ(shared().nurel({"eval", tab, "return more.textContent"}).out, "a.txt,b.txt\n");

  Outcome outside = shared().nurel({"upload", tab, field, shared().file("outside.txt")});
  EXPECT_EQ(outside.status, 1);
  EXPECT_EQ(outside.err, "won't give the page " + shared().file("outside.txt") +
                             ": it isn't under a folder of NUREL_ALLOW_FILES\n");
  Outcome missing = shared().nurel({"upload", tab, field, allowed + "/gone.txt", allowed + "/a.txt"});
  EXPECT_EQ(missing.err, "no such file: " + allowed + "/gone.txt\n");
  Outcome many = shared().nurel({"upload", tab, field, allowed + "/a.txt", allowed + "/b.txt"});
  EXPECT_NE(many.err.find("takes one file, and 2 were given"), std::string::npos) << many.err;
  Outcome plain = shared().nurel({"upload", tab, refOn(s, "paragraph"), allowed + "/a.txt"});
  EXPECT_EQ(plain.status, 1);
  // Clicking the button as an action never opens a window: the answer says how to answer it.
  Outcome clicked = shared().nurel({"click", tab, button});
  EXPECT_NE(clicked.out.find("; a file chooser opened: give it files with upload " + tab), std::string::npos)
      << clicked.out << clicked.err;
}

TEST(Files, UploadWithNoAllowedFolderSaysHowToAllowOne) {
  if (overWebSocket()) GTEST_SKIP() << "files are the remote machine's (Remote.FilesNameTheirLimit)";
  BackEnd own({{"NUREL_ALLOW_FILES", std::nullopt}});
  servePage("/upload-none", "<title>Upload</title><input type=file aria-label=Photo>");
  std::string tab = own.open(url("/upload-none"));
  std::string field = refOn(own.nurel({"snapshot", tab}).out, "\"Photo\"");
  writeTestFile(own.file("a.txt"), "x");
  Outcome refused = own.nurel({"upload", tab, field, own.file("a.txt")});
  EXPECT_EQ(refused.status, 1);
  EXPECT_EQ(refused.err, "no folder is allowed for uploads: allow one with NUREL_ALLOW_FILES (folders "
                         "separated by colons) in the environment nurel starts from\n");
}

TEST(Remote, FilesNameTheirLimit) {
  if (!overWebSocket()) GTEST_SKIP() << "for a browser that runs elsewhere";
  servePage("/remote-files", "<title>Files</title><input type=file aria-label=Photo>");
  std::string tab = shared().open(url("/remote-files"));
  EXPECT_EQ(shared().nurel({"downloads", tab}).err,
            "downloads stay on the machine the browser runs on (NUREL_CDP_URL): nurel can't list or keep them here\n");
  EXPECT_EQ(shared().nurel({"upload", tab, "e1", "a.txt"}).err,
            "the browser runs on another machine (NUREL_CDP_URL), which can't read this one's files: "
            "upload isn't available there\n");
}

std::vector<Json> logLines(const BackEnd& backEnd, const std::string& tab) {
  std::vector<Json> lines;
  for (auto& entry : std::filesystem::recursive_directory_iterator(backEnd.file("data"))) {
    if (entry.path().filename() != "actions.jsonl") continue;
    std::istringstream text(fileText(entry.path().string()));
    std::string line;
    while (std::getline(text, line)) {
      Json parsed = Json::parse(line, nullptr, false);
      EXPECT_FALSE(parsed.is_discarded()) << line;
      if (parsed.value("tab", "") == tab) lines.push_back(parsed);
    }
  }
  return lines;
}

TEST(Files, TheActionLogHoldsWhatWasDoneAndWhyButNoSecret) {
  servePage("/login", R"html(<title>Log in</title><form onsubmit="event.preventDefault(); said.textContent = 'in'">
<label>User <input id=user></label><label>Password <input type=password id=pass></label>
<button>Log in</button></form><p id=said></p>)html");
  std::string tab = shared().open(url("/login?token=abc123secret&page=2"));
  std::string s = shared().nurel({"snapshot", tab}).out;
  ASSERT_EQ(shared().nurel({"type", tab, "ann", "--ref", refOn(s, "\"User\""), "--intent", "Filling in the user"}).status, 0);
  ASSERT_EQ(shared().nurel({"type", tab, "hunter2-very-secret", "--ref", refOn(s, "\"Password\""), "--intent", "Typing the password"}).status, 0);
  ASSERT_EQ(shared().nurel({"click", tab, refOn(s, "button \"Log in\""), "--intent", "Logging in"}).status, 0);
  EXPECT_EQ(shared().nurel({"eval", tab, "return said.textContent + document.cookie", "--intent", "Checking"}).out, "in\n");
  EXPECT_EQ(shared().nurel({"click", tab, "e99999"}).status, 1);

  std::vector<Json> lines = logLines(shared(), tab);
  ASSERT_EQ(lines.size(), 6u);  // the snapshot and reads are not actions
  EXPECT_EQ(lines[0]["method"], "open");
  EXPECT_EQ(lines[0]["outcome"].get<std::string>().rfind(tab + " " + url("/login?token=•••&page=2"), 0), 0u) << lines[0];
  EXPECT_EQ(lines[1]["method"], "type");
  EXPECT_EQ(lines[1]["intent"], "Filling in the user");
  EXPECT_EQ(lines[1]["address"], url("/login?token=•••&page=2"));
  EXPECT_EQ(lines[2]["outcome"].get<std::string>().rfind("typed 19 characters into textbox \"Password\"", 0), 0u) << lines[2];
  EXPECT_EQ(lines[3]["method"], "click");
  EXPECT_EQ(lines[3]["intent"], "Logging in");
  EXPECT_EQ(lines[4]["outcome"], "ran a script");
  EXPECT_EQ(lines[5]["method"], "click");
  EXPECT_NE(lines[5].value("error", "").find("e99999"), std::string::npos) << lines[5];
  for (const Json& line : lines) {
    EXPECT_NE(line.value("time", "").find('T'), std::string::npos);
    std::string text = compactRepaired(line);
    EXPECT_EQ(text.find("hunter2"), std::string::npos) << text;
    EXPECT_EQ(text.find("abc123"), std::string::npos) << text;
  }
}

}  // namespace
}  // namespace nurel::testing
